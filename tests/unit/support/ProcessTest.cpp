#include "support/Process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "support/SyslogCapture.h"
#include "support/Unprivileged.h"
#include "support/Watchdog.h"

namespace tarvo_test {
namespace {

TEST(ChildProcess, ExitsWithTheResultOfItsBody) {
    EXPECT_EQ(ChildProcess([](Channel &) { return 7; }).Wait(), 7);
}

TEST(ChildProcess, ExitsWithWhatItPassesToExit) {
    EXPECT_EQ(ChildProcess([](Channel &) -> int { std::exit(5); }).Wait(), 5);
}

TEST(ChildProcess, FailsWhenAnAssertionFailsInIt) {
    testing::internal::CaptureStdout();
    const int code = ChildProcess([](Channel &) {
                         EXPECT_EQ(1, 2);
                         return 0;
                     }).Wait();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(code, 99);
}

TEST(ChildProcess, GoesStepByStepWithTheTest) {
    ChildProcess child([](Channel &test) {
        const auto text = test.Receive();
        return test.Send(*text + "!") && test.Await() ? 0 : 1;
    });
    EXPECT_TRUE(child.ToChild().Send("hello"));
    EXPECT_EQ(child.ToChild().Receive(), "hello!");
    EXPECT_TRUE(child.Signal());
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_FALSE(child.Await());
    EXPECT_FALSE(child.Signal());
}

TEST(ChildProcess, CanBeKilled) {
    ChildProcess child([](Channel &test) { return test.Await() ? 0 : 1; });
    child.Kill();
    EXPECT_EQ(child.Wait(), 128 + SIGKILL);
}

TEST(ChildProcess, IgnoresSigpipeAsTheTestDoes) {
    const int code = ChildProcess([](Channel &) {
                         int ends[2];
                         if (pipe(ends) != 0) {
                             return 1;
                         }
                         close(ends[0]);
                         return write(ends[1], "x", 1) == -1 && errno == EPIPE ? 0 : 2;
                     }).Wait();
    EXPECT_EQ(code, 0);
}

TEST(Unprivileged, RunsAsTheOtherUser) {
    TARVO_SKIP_UNLESS_ROOT();
    EXPECT_EQ(RunAs(65534, 65533, [] { return geteuid() == 65534 && getegid() == 65533 ? 0 : 1; }), 0);
}

TEST(WatchdogDeathTest, EndsAHangingTestWithItsLog) {
    EXPECT_DEATH(
        {
            const Watchdog watchdog(std::chrono::seconds(1));
            syslog(LOG_ERR, "the last words");
            for (;;) {
                pause();
            }
        },
        "EndsAHangingTestWithItsLog hangs(.|\n)*the last words");
}

} // namespace
} // namespace tarvo_test
