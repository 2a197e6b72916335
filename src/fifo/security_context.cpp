#include "fifo/security_context.h"

#include <selinux/restorecon.h>
#include <selinux/selinux.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "base/bounded.h"

namespace {

constexpr char CONTEXTS_DIRECTORY[] = "/etc/selinux/"
                                      "targeted"
                                      "/contexts/files/";
constexpr mode_t READ_FOR_ALL = S_IRUSR | S_IRGRP | S_IROTH;

constexpr std::string_view CONTEXT_HEAD = "system_u:object_r:";
constexpr std::string_view CONTEXT_TAIL = ":s0";
constexpr char FIELD_SEPARATOR = ':';
constexpr int FULL_CONTEXT_FIELDS = 4;
constexpr int TYPE_FIELD = 3;

// Allocates the concatenation of `parts` for the caller of a conversion; 0, or -1 with `*out` null.
int AllocateJoined(std::initializer_list<std::string_view> parts, char **out) {
    std::size_t room = 1;
    for (const std::string_view part : parts) {
        room += part.size();
    }
    *out = static_cast<char *>(std::malloc(room));
    if (*out == nullptr) {
        return -1;
    }
    char *end = *out;
    for (const std::string_view part : parts) {
        if (!part.empty() && memcpy_s(end, room, part.data(), part.size()) != 0) {
            std::free(*out);
            *out = nullptr;
            return -1;
        }
        end += part.size();
        room -= part.size();
    }
    *end = '\0';
    return 0;
}

// The type of a full context, or "" when `context` does not have exactly four fields.
std::string_view TypeOf(std::string_view context) {
    std::string_view type;
    int fields = 0;
    while (!context.empty()) {
        const std::string_view field = context.substr(0, context.find(FIELD_SEPARATOR));
        context.remove_prefix(field.size() < context.size() ? field.size() + 1 : field.size());
        if (field.empty()) {
            continue;
        }
        ++fields;
        if (fields == TYPE_FIELD) {
            type = field;
        }
    }
    return fields == FULL_CONTEXT_FIELDS ? type : std::string_view();
}

} // namespace

int CheckContextsAccess() {
    struct stat state {};
    if (lstat(CONTEXTS_DIRECTORY, &state) != 0) {
        return -errno;
    }
    return (state.st_mode & READ_FOR_ALL) == READ_FOR_ALL ? 0 : -EACCES;
}

int AuthGetPidCon(pid_t pid, char **con) { return IsAuthEnabled() > 0 ? getpidcon(pid, con) : 1; }

int AuthGetCon(char **con) { return IsAuthEnabled() > 0 ? getcon(con) : 1; }

int AuthSetFileCon(const char *path, const char *con) { return IsAuthEnabled() > 0 ? setfilecon(path, con) : 0; }

int AuthSelinuxSetFileCon(const char *path, const char *con) { return AuthSetFileCon(path, con); }

int AuthSetCon(const char *con) { return IsAuthEnabled() > 0 ? setcon(con) : 0; }

void AuthFreeCon(char *con) {
    if (con != nullptr) {
        freecon(con);
    }
}

void AuthProxyFree(void *ptr) {
    if (ptr != nullptr) {
        std::free(ptr);
    }
}

int AuthRestoreCon(const char *path, unsigned int flags) {
    unsigned int mapped = 0;
    if ((flags & AUTH_RESTORECON_SYSLOG_CHANGES) != 0) {
        mapped |= SELINUX_RESTORECON_SYSLOG_CHANGES;
    }
    if ((flags & AUTH_RESTORECON_IGNORE_NOENTRY) != 0) {
        mapped |= SELINUX_RESTORECON_IGNORE_NOENTRY;
    }
    if ((flags & AUTH_RESTORECON_IGNORE_MOUNTS) != 0) {
        mapped |= SELINUX_RESTORECON_IGNORE_MOUNTS;
    }
    return selinux_restorecon(path, mapped);
}

int AuthSelinuxRestoreCon(const char *path, unsigned int flags) { return AuthRestoreCon(path, flags); }

int AuthSecurityGetEnforce(void) { return security_getenforce(); }

int AuthSecurityCheckContext(const char *con) { return security_check_context(con); }

int AuthSecurityComputeAv(const char *scon, const char *tcon, uint16_t tclass, uint32_t requested, uint32_t *av) {
    av_decision decision{};
    decision.allowed = *av;
    const int ret = security_compute_av(scon, tcon, tclass, requested, &decision);
    *av = decision.allowed;
    return ret;
}

uint32_t AuthStringToAvPerm(uint16_t tclass, const char *name) { return string_to_av_perm(tclass, name); }

uint16_t AuthStringToSecurityClass(const char *name) { return string_to_security_class(name); }

int GetVornConBySelinuxCon(const char *con, char **out) {
    if (con == nullptr || con[0] == '\0') {
        return -1;
    }
    return AllocateJoined({TypeOf(con)}, out);
}

int GetSelinuxConByVornCon(const char *con, char **out) {
    if (con == nullptr || con[0] == '\0') {
        return -1;
    }
    return AllocateJoined({CONTEXT_HEAD, con, CONTEXT_TAIL}, out);
}
