#ifndef TARVO_UNIT_DIAG_LOGFIXTURE_H
#define TARVO_UNIT_DIAG_LOGFIXTURE_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>

#include "api/EnvManager.h"
#include "support/FakeClock.h"
#include "support/SyslogCapture.h"

// Everything a log line depends on, known: the process name, the wall clock and the time zone.
class LogFixture : public testing::Test {
protected:
    LogFixture() {
        setenv("TZ", "UTC", 1);
        tzset();
        SetProcessName("unit_log");
        EnvManager::ProcName(); // settled: no later change of the name is taken for the first use
        // 2024-05-06 14:03:27.000512
        clock.SetWall(std::chrono::seconds(1715004207) + std::chrono::microseconds(512));
    }

    // A file whose lines are nobody else's, also when the test is repeated: the limiter remembers them all.
    static std::string NewFile(const std::string &name) {
        static int count = 0;
        return name + std::to_string(++count);
    }

    // Past the limits of all lines that earlier tests wrote.
    void ToANewDay() {
        static int day = 0;
        clock.AdvanceWall(std::chrono::hours(24) * ++day);
    }

    static void SetProcessName(const std::string &name) {
        MutexLock lock(EnvManager::Instance());
        EnvManager::SetProcName(name);
    }

    static std::string Header(const std::string &label, const std::string &fileAndLine,
                              const std::string &time = "14:03:27.000512") {
        return "[" + label + "][unit_log][" + time + "][" + std::to_string(getpid()) + "][" +
               std::to_string(pthread_self()) + "][" + fileAndLine + "] ";
    }

    // The text of the only line since the last call.
    std::string OnlyLine() {
        const auto lines = log.Lines();
        log.Clear();
        EXPECT_EQ(lines.size(), 1U);
        return lines.empty() ? "(no line)" : lines[0].text;
    }

    std::size_t LineCount() {
        const std::size_t count = log.Lines().size();
        log.Clear();
        return count;
    }

    tarvo_test::FakeClock clock{tarvo_test::FakeClock::Mode::Frozen};
    tarvo_test::SyslogCapture log;
};

#endif // TARVO_UNIT_DIAG_LOGFIXTURE_H
