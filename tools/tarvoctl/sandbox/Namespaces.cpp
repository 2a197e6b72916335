#include "sandbox/Namespaces.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "base/UniqueFd.h"

namespace tarvoctl {
namespace {

constexpr char SHARED_MEMORY[] = "/dev/shm";
constexpr mode_t PARENT_MODE = 0755;
constexpr mode_t OPEN_MODE = 01777;

std::string Failed(const std::string &what) { return fmt::format("{}: {}", what, std::strerror(errno)); }

bool WriteFile(const std::string &path, const std::string &text) {
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return file.Get() >= 0 && write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool FileSays(const char *path, const char *word) {
    std::ifstream file(path);
    std::string found;
    return file >> found && found == word;
}

// What an administrator can change about it.
std::string Remedy() {
    if (FileSays("/proc/sys/kernel/unprivileged_userns_clone", "0")) {
        return "run it as root, or allow it: sysctl kernel.unprivileged_userns_clone=1";
    }
    if (FileSays("/proc/sys/kernel/apparmor_restrict_unprivileged_userns", "1")) {
        return "run it as root, or allow it: sysctl kernel.apparmor_restrict_unprivileged_userns=0";
    }
    if (FileSays("/proc/sys/user/max_user_namespaces", "0")) {
        return "run it as root, or allow it: sysctl user.max_user_namespaces=10000";
    }
    return "run it as root; in a container, the container must allow it";
}

std::string Refused(const std::string &what) {
    const std::string failure = Failed("the kernel refuses to make " + what); // before anything changes errno
    return failure + " (" + Remedy() + ")";
}

// The user and group stay themselves; others cannot be had, and so need no numbers.
std::string EnterUserNamespace() {
    const std::string user = fmt::format("{0} {0} 1", geteuid());
    const std::string group = fmt::format("{0} {0} 1", getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return Refused("namespaces for this user");
    }
    // The kernel takes a map of groups only from who has given up to change them.
    if (!WriteFile("/proc/self/setgroups", "deny") || !WriteFile("/proc/self/uid_map", user) ||
        !WriteFile("/proc/self/gid_map", group)) {
        return Refused("a namespace with this user in it");
    }
    return "";
}

bool MakeFolder(const std::string &path, mode_t mode) {
    // Whatever the umask.
    return (mkdir(path.c_str(), mode) == 0 || errno == EEXIST) && chmod(path.c_str(), mode) == 0;
}

} // namespace

std::string EnterOwnDirectory(const std::string &directory) {
    if (unshare(CLONE_NEWNS) != 0) {
        std::string failure = errno == EPERM ? EnterUserNamespace() : Refused("a mount namespace");
        if (!failure.empty()) {
            return failure;
        }
    }
    // What is mounted outside later is seen here as well, but nothing of the contrary.
    if (mount("none", "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
        return Refused("mounts of its own");
    }
    if (mount("tarvo", SHARED_MEMORY, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) {
        return Refused(std::string("a ") + SHARED_MEMORY + " of its own");
    }
    for (std::size_t at = directory.find('/', sizeof(SHARED_MEMORY)); at != std::string::npos;
         at = directory.find('/', at + 1)) {
        const bool last = at + 1 == directory.size();
        if (!MakeFolder(directory.substr(0, at), last ? OPEN_MODE : PARENT_MODE)) {
            return Failed("cannot make " + directory.substr(0, at));
        }
    }
    return "";
}

} // namespace tarvoctl
