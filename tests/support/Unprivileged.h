// Parts of tests that run as another user.
#ifndef TARVO_SUPPORT_UNPRIVILEGED_H
#define TARVO_SUPPORT_UNPRIVILEGED_H

#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "support/Coverage.h"
#include "support/Process.h"

namespace tarvo_test {

// Codes below are for `body`.
constexpr int COULD_NOT_CHANGE_USER = 98;

// Runs `body` in a child process with that user and group and no others; yields its result (see ChildProcess).
inline int RunAs(uid_t user, gid_t group, const std::function<int()> &body) {
    ChildProcess child([&](Channel &) {
        if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(user) != 0) {
            return COULD_NOT_CHANGE_USER;
        }
        if (LibraryCounts()) {
            // The files of the counts are the first user's.
            setenv("LLVM_PROFILE_FILE", "/dev/null", 1);
        }
        return body();
    });
    return child.Wait();
}

} // namespace tarvo_test

// In a test: skips it, with the reason printed, for a user who cannot become another one.
#define TARVO_SKIP_UNLESS_ROOT()                                                                                       \
    do {                                                                                                               \
        if (geteuid() != 0) {                                                                                          \
            GTEST_SKIP() << "only root can run a part of this test as another user";                                   \
        }                                                                                                              \
    } while (false)

#endif // TARVO_SUPPORT_UNPRIVILEGED_H
