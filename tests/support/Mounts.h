// File systems of a test's own.
#ifndef TARVO_SUPPORT_MOUNTS_H
#define TARVO_SUPPORT_MOUNTS_H

#include <sched.h>
#include <sys/mount.h>

namespace tarvo_test {

// Why a test is skipped for which EnterMountNamespace is false.
constexpr char NO_MOUNTS[] = "needs the right to mount, which not even root has in most containers";

// Mounts of this process are its own and its children's from now on. False where that is not allowed.
inline bool EnterMountNamespace() {
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_MOUNTS_H
