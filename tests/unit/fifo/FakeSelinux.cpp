#include "unit/fifo/FakeSelinux.h"

#include <selinux/restorecon.h>
#include <selinux/selinux.h>

#include <cstdlib>
#include <cstring>

#include "unit/fifo/LogCalls.h"

namespace tarvo_test {

FakeSelinux &Selinux() {
    static auto *const fake = new FakeSelinux;
    return *fake;
}

namespace {

int HandOut(char **con) {
    FakeSelinux &fake = Selinux();
    if (fake.context) {
        *con = strdup(fake.context->c_str());
        fake.outstanding.insert(*con);
    }
    return fake.getResult;
}

int Note(std::string call) {
    Selinux().calls.push_back(std::move(call));
    return Selinux().result;
}

} // namespace
} // namespace tarvo_test

using tarvo_test::Note;
using tarvo_test::Selinux;
using tarvo_test::Text;

extern "C" {

int getpidcon(pid_t pid, char **con) {
    Note(Text("getpidcon %d", pid));
    return tarvo_test::HandOut(con);
}

int getcon(char **con) {
    Note("getcon");
    return tarvo_test::HandOut(con);
}

void freecon(char *con) {
    if (Selinux().outstanding.erase(con) == 0) {
        ++Selinux().strayReleases;
        return;
    }
    std::free(con);
}

int setfilecon(const char *path, const char *con) { return Note(Text("setfilecon %s %s", path, con)); }

int setcon(const char *con) { return Note(Text("setcon %s", con)); }

int selinux_restorecon(const char *path, unsigned int flags) {
    return Note(Text("selinux_restorecon %s %#x", path, flags));
}

int security_getenforce(void) { return Note("security_getenforce"); }

int security_check_context(const char *con) { return Note(Text("security_check_context %s", con)); }

int security_compute_av(const char *scon, const char *tcon, security_class_t tclass, access_vector_t requested,
                        av_decision *decision) {
    Selinux().allowedBefore = decision->allowed;
    decision->allowed = Selinux().allowed;
    return Note(Text("security_compute_av %s %s %d %u", scon, tcon, tclass, requested));
}

access_vector_t string_to_av_perm(security_class_t tclass, const char *name) {
    return static_cast<access_vector_t>(Note(Text("string_to_av_perm %d %s", tclass, name)));
}

security_class_t string_to_security_class(const char *name) {
    return static_cast<security_class_t>(Note(Text("string_to_security_class %s", name)));
}

} // extern "C"
