#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <condition_variable>
#include <future>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "diag/velm_syslog.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/Threads.h"
#include "unit/diag/LogFixture.h"

namespace {

using namespace std::chrono_literals;
using tarvo_test::AllocFault;
using tarvo_test::Call;
using tarvo_test::CallCounter;
using tarvo_test::Channel;
using tarvo_test::ChildProcess;
using tarvo_test::Where;
using testing::ElementsAre;

class RestrainedLogTest : public LogFixture {
protected:
    RestrainedLogTest() { ToANewDay(); }

    // Whether a restrained line of that place is written now.
    bool Writes(int line, const char *file, VELMLogType type = LOG_TYPE_TARVO_RESTRAINED, int level = LOG_ERR) {
        VelmSyslog(type, level, line, file, "restrained");
        return LineCount() == 1;
    }

    // What pthread_self contributes to the key: its digits without the leading one.
    static std::size_t ThreadDigits() { return std::to_string(pthread_self()).size() - 1; }
};

TEST_F(RestrainedLogTest, OnePlaceWritesOneLineIn600Seconds) {
    EXPECT_TRUE(Writes(40, "limit"));
    EXPECT_FALSE(Writes(40, "limit"));
    clock.AdvanceWall(599s);
    EXPECT_FALSE(Writes(40, "limit"));
    clock.AdvanceWall(1s);
    EXPECT_TRUE(Writes(40, "limit"));
    EXPECT_FALSE(Writes(40, "limit"));
}

TEST_F(RestrainedLogTest, LineThatTheLimiterCannotRememberIsNotWritten) {
    {
        const AllocFault fault(1);
        VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 40, "memory", "restrained");
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_EQ(LineCount(), 0U);
    EXPECT_TRUE(Writes(40, "memory"));
}

TEST_F(RestrainedLogTest, SuppressedLinesDoNotProlongTheLimit) {
    EXPECT_TRUE(Writes(40, "prolong"));
    for (int i = 0; i < 5; ++i) {
        clock.AdvanceWall(100s);
        EXPECT_FALSE(Writes(40, "prolong"));
    }
    clock.AdvanceWall(100s);
    EXPECT_TRUE(Writes(40, "prolong"));
}

TEST_F(RestrainedLogTest, PlacesThatTakeTurnsKeepTheirLimits) {
    for (int line = 40; line < 45; ++line) {
        EXPECT_TRUE(Writes(line, "turns"));
    }
    for (int turn = 0; turn < 5; ++turn) {
        clock.AdvanceWall(119s);
        for (int line = 40; line < 45; ++line) {
            EXPECT_FALSE(Writes(line, "turns")) << line;
        }
    }
    clock.AdvanceWall(5s);
    for (int line = 40; line < 45; ++line) {
        EXPECT_TRUE(Writes(line, "turns")) << line;
        EXPECT_FALSE(Writes(line, "turns")) << line;
    }
}

TEST_F(RestrainedLogTest, APlaceIsKnownByTheTextOfItsFile) {
    char file[] = "text_a";
    EXPECT_TRUE(Writes(40, file));
    EXPECT_FALSE(Writes(40, file));
    file[5] = 'b';
    EXPECT_TRUE(Writes(40, file));
}

TEST_F(RestrainedLogTest, AForkedChildHasLimitsOfItsOwn) {
    EXPECT_TRUE(Writes(40, "forked"));
    EXPECT_FALSE(Writes(40, "forked"));
    EXPECT_EQ(ChildProcess([](Channel &) {
                  const tarvo_test::SyslogCapture childs;
                  VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 40, "forked", "in the child");
                  VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 40, "forked", "and once more");
                  EXPECT_THAT(childs.Messages(), ElementsAre("in the child"));
                  return testing::Test::HasFailure() ? 1 : 0;
              }).Wait(),
              0);
}

TEST_F(RestrainedLogTest, OnlyWholeSecondsCount) {
    const std::string file = NewFile("fixed");
    clock.SetWall(1000s + 999ms);
    EXPECT_TRUE(Writes(40, file.c_str()));
    clock.SetWall(1599s + 999999999ns);
    EXPECT_FALSE(Writes(40, file.c_str()));
    clock.SetWall(1600s);
    EXPECT_TRUE(Writes(40, file.c_str()));
}

TEST_F(RestrainedLogTest, SettingTheWallClockBackProlongsTheLimit) {
    const std::string file = NewFile("fixed");
    clock.SetWall(5000s);
    EXPECT_TRUE(Writes(40, file.c_str()));
    clock.SetWall(1000s);
    EXPECT_FALSE(Writes(40, file.c_str()));
    clock.SetWall(5599s);
    EXPECT_FALSE(Writes(40, file.c_str()));
    clock.SetWall(5600s);
    EXPECT_TRUE(Writes(40, file.c_str()));
}

TEST_F(RestrainedLogTest, LinesWrittenBeforeTheEpochLimitNothing) {
    const std::string file = NewFile("fixed");
    clock.SetWall(-5s);
    EXPECT_TRUE(Writes(40, file.c_str()));
    EXPECT_TRUE(Writes(40, file.c_str()));
    clock.SetWall(0s);
    EXPECT_TRUE(Writes(40, file.c_str()));
    EXPECT_FALSE(Writes(40, file.c_str()));
}

TEST_F(RestrainedLogTest, TheMonotonicClockHasNoSay) {
    EXPECT_TRUE(Writes(40, "monotonic"));
    clock.AdvanceMonotonic(1h);
    EXPECT_FALSE(Writes(40, "monotonic"));
}

TEST_F(RestrainedLogTest, EachFileHasItsOwnLimit) {
    EXPECT_TRUE(Writes(40, "file_a"));
    EXPECT_TRUE(Writes(40, "file_b"));
    EXPECT_TRUE(Writes(40, ""));
    EXPECT_FALSE(Writes(40, ""));
}

TEST_F(RestrainedLogTest, TypesAndLevelsShareThePlacesLimit) {
    EXPECT_TRUE(Writes(40, "shared", LOG_TYPE_VELM_RESTRAINED));
    EXPECT_FALSE(Writes(40, "shared", LOG_TYPE_TARVO_RESTRAINED));
    EXPECT_FALSE(Writes(40, "shared", LOG_TYPE_FAULTEVENT_RESTRAINED, LOG_EMERG));
    EXPECT_FALSE(Writes(40, "shared", LOG_TYPE_HEARTBEAT_RESTRAINED));
    EXPECT_FALSE(Writes(40, "shared", static_cast<VELMLogType>(8)));
}

TEST_F(RestrainedLogTest, UnrestrainedTypesKnowNoLimit) {
    for (const VELMLogType type : {LOG_TYPE_VELM, LOG_TYPE_TARVO, LOG_TYPE_FAULTEVENT, LOG_TYPE_HEARTBEAT}) {
        EXPECT_TRUE(Writes(40, "free", type));
        EXPECT_TRUE(Writes(40, "free", type));
    }
    EXPECT_TRUE(Writes(40, "free", LOG_TYPE_TARVO_RESTRAINED));
}

TEST_F(RestrainedLogTest, DiscardedLevelsDoNotUseUpTheLimit) {
    EXPECT_FALSE(Writes(40, "discarded", LOG_TYPE_TARVO_RESTRAINED, LOG_INFO));
    EXPECT_FALSE(Writes(40, "discarded", LOG_TYPE_TARVO_RESTRAINED, LOG_DEBUG));
    EXPECT_TRUE(Writes(40, "discarded"));
}

// The key has each line's digits reversed and without the leading one.
TEST_F(RestrainedLogTest, LinesShareALimitWhenTheyDifferInTheirFirstDigitOnly) {
    struct Row {
        int first;
        int second;
        bool share;
    };
    const Row rows[] = {
        {123, 223, true},
        {123, 923, true},
        {1, 9, true},
        {0, 5, true},
        {1, 2, true},
        {10, 20, true},
        {40, 90, true},
        {100, 900, true},
        {1001, 2001, true},
        {123, 124, false},
        {40, 41, false},
        {1, 10, false},
        {10, 100, false},
        {123, 1123, false},
        {132, 123, false},
        {-1, 1, false},
        {-1, -1, true},
        {-1, -2, false},
        // Sign-extended to 64 bits: 18446744071562067968 for INT_MIN.
        {INT_MIN, INT_MAX, false},
    };
    for (const Row &row : rows) {
        const std::string file = "pair" + std::to_string(row.first) + "and" + std::to_string(row.second);
        EXPECT_TRUE(Writes(row.first, file.c_str()));
        EXPECT_EQ(Writes(row.second, file.c_str()), !row.share) << row.first << " " << row.second;
    }
}

// A line of one digit adds nothing to the key, so that a file name can spell out what another line adds.
TEST_F(RestrainedLogTest, ALinesPartOfTheKeyIsItsReversedDigits) {
    EXPECT_TRUE(Writes(40, "spelled_a"));
    EXPECT_FALSE(Writes(5, "0spelled_a"));
    EXPECT_TRUE(Writes(1234, "spelled_b"));
    EXPECT_FALSE(Writes(5, "432spelled_b"));
    // 18446744073709551615
    EXPECT_TRUE(Writes(-1, "spelled_d"));
    EXPECT_FALSE(Writes(5, "5161559073704476448spelled_d"));
}

TEST_F(RestrainedLogTest, TheLinesOneToNineShareOneLimit) {
    EXPECT_TRUE(Writes(1, "one_to_nine"));
    for (int line = 2; line <= 9; ++line) {
        EXPECT_FALSE(Writes(line, "one_to_nine")) << line;
    }
}

TEST_F(RestrainedLogTest, EachThreadHasItsOwnLimit) {
    constexpr int count = 4;
    std::mutex mutex;
    std::condition_variable allDone;
    int done = 0;
    tarvo_test::OnThreads(count, [&](int) {
        VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 40, "threads", "restrained");
        VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 40, "threads", "restrained");
        // The thread id is part of the key: nobody ends before all have written, lest an id be used again.
        std::unique_lock<std::mutex> lock(mutex);
        ++done;
        allDone.notify_all();
        allDone.wait(lock, [&] { return done == count; });
    });
    EXPECT_EQ(LineCount(), static_cast<std::size_t>(count));
    EXPECT_TRUE(Writes(40, "threads"));
}

TEST_F(RestrainedLogTest, ANullFileIsNeverWritten) {
    errno = EXDEV;
    for (int type = LOG_TYPE_VELM_RESTRAINED; type <= 8; ++type) {
        EXPECT_FALSE(Writes(40, nullptr, static_cast<VELMLogType>(type)));
    }
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(RestrainedLogTest, AKeyThatFillsItsBufferIsTheLongest) {
    // 255 characters with the terminator's place left; line 40 gives one digit.
    const std::string fits(255 - ThreadDigits() - 1, 'f');
    VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 40, fits.c_str(), "no header has room for such a file");
    EXPECT_EQ(OnlyLine(), "no header has room for such a file");
    EXPECT_FALSE(Writes(40, fits.c_str()));
    EXPECT_FALSE(Writes(40, (fits + "f").c_str()));
    EXPECT_FALSE(Writes(40, std::string(1000, 'f').c_str()));
    // Line 5 gives no digit and leaves room for one character more.
    EXPECT_TRUE(Writes(5, (fits + "f").c_str()));
}

TEST_F(RestrainedLogTest, TheLimiterComparesWholeSecondsOfTheWallClock) {
    ZoVelm::VelmRestrainedLog limiter;
    EXPECT_EQ(limiter.PrintTableInsert(1), 0);
    EXPECT_EQ(limiter.PrintTableInsert(1), -1);
    EXPECT_EQ(limiter.PrintTableInsert(2), 0);
    EXPECT_EQ(limiter.PrintTableInsert(ULONG_MAX), 0);
    EXPECT_EQ(limiter.PrintTableInsert(ULONG_MAX), -1);
    clock.AdvanceWall(599s);
    EXPECT_EQ(limiter.PrintTableInsert(1), -1);
    clock.AdvanceWall(1s);
    EXPECT_EQ(limiter.PrintTableInsert(1), 0);
    EXPECT_EQ(limiter.PrintTableInsert(2), 0);
}

TEST_F(RestrainedLogTest, AnInsertReadsTheWallClockOnce) {
    ZoVelm::VelmRestrainedLog limiter;
    const CallCounter wall(Call::ClockGettime, Where().Number(CLOCK_REALTIME));
    const CallCounter all(Call::ClockGettime);
    limiter.PrintTableInsert(1);
    EXPECT_EQ(wall.Count(), 1U);
    EXPECT_EQ(all.Count(), 1U);
}

TEST_F(RestrainedLogTest, OneOfManyThreadsWithTheSameKeyWrites) {
    ZoVelm::VelmRestrainedLog limiter;
    std::atomic<int> written{0};
    tarvo_test::OnThreads(4, [&](int) {
        for (unsigned long key = 0; key < 500; ++key) {
            written += limiter.PrintTableInsert(key) == 0 ? 1 : 0;
        }
    });
    EXPECT_EQ(written, 500);
}

TEST_F(RestrainedLogTest, TheInstanceIsOne) {
    const auto first = ZoVelm::VelmRestrainedLog::GetInstance(true);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(ZoVelm::VelmRestrainedLog::GetInstance(true), first);
    VelmLogGetInstance(true);
    EXPECT_EQ(ZoVelm::VelmRestrainedLog::GetInstance(true), first);
}

// In a process of its own, since it has no way back. 0 when all is as it must be.
int SwitchOff(bool usedBefore) {
    const tarvo_test::SyslogCapture log;
    if (usedBefore) {
        VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 40, "off", "before");
    }
    const auto held = usedBefore ? ZoVelm::VelmRestrainedLog::GetInstance(true) : nullptr;
    VelmLogGetInstance(false);
    EXPECT_EQ(ZoVelm::VelmRestrainedLog::GetInstance(false), nullptr);
    EXPECT_EQ(ZoVelm::VelmRestrainedLog::GetInstance(true), nullptr);
    VelmLogGetInstance(true);
    EXPECT_EQ(ZoVelm::VelmRestrainedLog::GetInstance(true), nullptr);
    errno = EXDEV;
    VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 41, "off", "after");
    EXPECT_EQ(errno, EXDEV);
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 42, "off", "unrestrained");
    if (usedBefore) {
        EXPECT_THAT(log.Messages(), ElementsAre("before", "unrestrained"));
        // Whoever holds the limiter may go on using it.
        EXPECT_EQ(held->PrintTableInsert(77), 0);
    } else {
        EXPECT_THAT(log.Messages(), ElementsAre("unrestrained"));
    }
    return 0;
}

TEST_F(RestrainedLogTest, SwitchedOffItStaysOff) {
    EXPECT_EQ(ChildProcess([](Channel &) { return SwitchOff(true); }).Wait(), 0);
}

TEST_F(RestrainedLogTest, LogMayBeSwitchedOffBeforeTheFirstLine) {
    EXPECT_EQ(ChildProcess([](Channel &) { return SwitchOff(false); }).Wait(), 0);
}

TEST_F(RestrainedLogTest, SwitchingOffMeetsWritersInAnyState) {
    const int code = ChildProcess([](Channel &) {
                         std::promise<void> go;
                         const std::shared_future<void> start = go.get_future().share();
                         const tarvo_test::Threads threads(3, [start](int) {
                             start.wait();
                             for (int line = 10; line < 300; ++line) {
                                 VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, line, "racing", "m");
                             }
                         });
                         go.set_value();
                         VelmLogGetInstance(false);
                         return 0;
                     }).Wait();
    EXPECT_EQ(code, 0);
}

tarvo_test::SyslogCapture *exitLog = nullptr;

// Runs after the library's statics are gone, since it is registered before anything can have made them.
void LogAfterTheEnd() {
    if (exitLog == nullptr) {
        return;
    }
    VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 41, "exit", "restrained");
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 42, "exit", "unrestrained");
    const bool right = exitLog->Messages() == std::vector<std::string>{"before", "unrestrained"} &&
                       ZoVelm::VelmRestrainedLog::GetInstance(true) == nullptr;
    _exit(right ? 33 : 1);
}

__attribute__((constructor)) void RegisterFirst() { std::atexit(LogAfterTheEnd); }

TEST_F(RestrainedLogTest, RestrainedLinesAreDroppedOnceProcessExitHasTakenTheLimiter) {
    const int code = ChildProcess([](Channel &) -> int {
                         exitLog = new tarvo_test::SyslogCapture;
                         VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 40, "exit", "before");
                         std::exit(2);
                     }).Wait();
    EXPECT_EQ(code, 33);
}

} // namespace
