// Processes of several users.
#ifndef TARVO_SYSTEM_USERS_H
#define TARVO_SYSTEM_USERS_H

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace tarvo_test {

constexpr uid_t FIRST_USER = 61001;
constexpr uid_t SECOND_USER = 61002;
constexpr uid_t STRANGER = 61003;

// For processes that share no group with others.
constexpr gid_t NO_GROUP = static_cast<gid_t>(-1);

// Turns the calling process into one of the user: primary group of the same number, and the further group.
inline bool Become(uid_t user, gid_t further) {
    return setgroups(further == NO_GROUP ? 0 : 1, &further) == 0 && setgid(user) == 0 && setuid(user) == 0;
}

// Whether `action` is true in a process of the stranger. For test programs with one thread: the fork needs no exec.
inline bool StrangerCan(const std::function<bool()> &action) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(Become(STRANGER, NO_GROUP) ? (action() ? 1 : 0) : 2);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 2);
    return WEXITSTATUS(status) == 1;
}

inline bool Opens(const std::string &file, int flags) { return open(file.c_str(), flags | O_NONBLOCK) >= 0; }

} // namespace tarvo_test

#endif // TARVO_SYSTEM_USERS_H
