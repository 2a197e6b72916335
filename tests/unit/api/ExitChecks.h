// Checks in processes of their own that go on while these exit, when assertions of the test framework are of no use.
#ifndef TARVO_TESTS_API_EXITCHECKS_H
#define TARVO_TESTS_API_EXITCHECKS_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

#include "support/Process.h"

// Include it in one source of a test program only.
// A forked child has the objects of its parent, but not the stacks of its threads: what only a worker refers to at that
// moment would be reported as leaked by the child.
static bool isForkedChild = false;
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() { return isForkedChild ? 1 : 0; }

namespace tarvo_test {

inline void Require(bool condition, const char *file, int line) {
    if (!condition) {
        std::fprintf(stderr, "%s:%d: not so\n", file, line);
        _exit(1);
    }
}
#define REQUIRE_THAT(condition) tarvo_test::Require(condition, __FILE__, __LINE__)

// Runs `body` in a process that then exits, which it must do well.
inline void ExpectGoodExit(const std::function<void()> &body) {
    ChildProcess child([&](Channel &) -> int {
        body();
        std::exit(0);
    });
    EXPECT_EQ(child.Wait(), 0);
}

} // namespace tarvo_test

#endif // TARVO_TESTS_API_EXITCHECKS_H
