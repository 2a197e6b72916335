#include "diag/run_time_record.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <climits>

#include "support/Faults.h"
#include "unit/diag/LogFixture.h"

namespace {

using namespace std::chrono_literals;
using Tarvo::GetCurrentTime;
using Tarvo::RunTimeRecord;
using tarvo_test::ANY_LEVEL;
using tarvo_test::Call;
using tarvo_test::CallCounter;
using tarvo_test::Where;

constexpr char NO_POINTS[] = "print point time log failed, point num is = 0";

class RunTimeRecordTest : public LogFixture {
protected:
    // The only line since the last call: its whole text but for the line number, its level and its message.
    std::string OnlyMessage() {
        const auto lines = log.Lines();
        if (lines.size() != 1) {
            ADD_FAILURE() << lines.size() << " lines";
            return "";
        }
        EXPECT_EQ(lines[0].level, LOG_NOTICE);
        EXPECT_EQ(OnlyLine(), Header("TARVO", "run_time_record:" + lines[0].line) + lines[0].message);
        return lines[0].message;
    }
};

TEST_F(RunTimeRecordTest, CurrentTimeIsTheMonotonicClockInMicroseconds) {
    clock.SetMonotonic(5s + 7us + 999ns);
    EXPECT_EQ(GetCurrentTime(), 5000007U);
    clock.SetMonotonic(0s);
    EXPECT_EQ(GetCurrentTime(), 0U);
    clock.SetMonotonic(1000000s + 999999999ns);
    EXPECT_EQ(GetCurrentTime(), 1000000999999U);
    const CallCounter monotonic(Call::ClockGettime, Where().Number(CLOCK_MONOTONIC));
    const CallCounter all(Call::ClockGettime);
    GetCurrentTime();
    EXPECT_EQ(monotonic.Count(), 1U);
    EXPECT_EQ(all.Count(), 1U);
}

TEST_F(RunTimeRecordTest, TheStartIsTheFirstPointInMicroseconds) {
    RunTimeRecord record(50);
    EXPECT_EQ(record.StartTime(), 0U);
    const uint64_t before = GetCurrentTime();
    record.RecordCurrentTime();
    const uint64_t start = record.StartTime();
    EXPECT_GE(start, before);
    EXPECT_LE(start, GetCurrentTime());
    record.RecordCurrentTime();
    EXPECT_EQ(record.StartTime(), start);
}

TEST_F(RunTimeRecordTest, AnIntervalIsInWholeMicrosecondsAndNeverNegative) {
    struct Row {
        timespec later;
        timespec earlier;
        int64_t expected;
    };
    const Row rows[] = {
        {{0, 0}, {0, 0}, 0},
        {{5, 47000}, {5, 0}, 47},
        {{5, 999}, {5, 0}, 0},
        {{5, 1999}, {5, 0}, 1},
        {{5, 0}, {5, 1}, 0},            // reversed by a nanosecond
        {{5, 0}, {5, 999999999}, 0},    // reversed within the second
        {{4, 999999999}, {5, 0}, 0},    // reversed across it
        {{6, 0}, {5, 999999000}, 1},    // across a second
        {{6, 0}, {5, 999999999}, 1},    // the division truncates towards zero: -999999 us and a second
        {{6, 500}, {5, 1000}, 1000000}, // a difference of -500 ns truncates to none
        {{1000000, 1000}, {0, 0}, 1000000000001},
        {{5, 0}, {-5, 0}, 10000000},
    };
    const RunTimeRecord record(50);
    for (const Row &row : rows) {
        EXPECT_EQ(record.CalculationInterval(row.later, row.earlier), row.expected)
            << row.later.tv_sec << "." << row.later.tv_nsec << " - " << row.earlier.tv_sec << "."
            << row.earlier.tv_nsec;
    }
}

TEST_F(RunTimeRecordTest, TheBudgetIsReachedAtExactlyItsLength) {
    struct Row {
        std::chrono::nanoseconds took;
        bool expected;
    };
    for (const Row &row : {Row{0us, false}, Row{49999us, false}, Row{49999us + 999ns, false}, Row{50000us, true},
                           Row{50001us, true}, Row{10s, true}}) {
        // At the beginning of a second: a time that crosses into the next one is rounded up.
        clock.SetMonotonic(100s);
        RunTimeRecord record(50);
        record.RecordCurrentTime();
        clock.AdvanceMonotonic(row.took);
        EXPECT_EQ(record.WhetherTotalTimeHasTimeout(), row.expected) << row.took.count();
    }
    EXPECT_EQ(LineCount(), 0U);
}

TEST_F(RunTimeRecordTest, AcrossASecondTheBudgetIsReachedUpToAMicrosecondEarlier) {
    clock.SetMonotonic(100s + 999999us);
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    clock.AdvanceMonotonic(49999us + 1ns);
    EXPECT_TRUE(record.WhetherTotalTimeHasTimeout());
}

TEST_F(RunTimeRecordTest, ABudgetOfNothingIsReachedAtOnce) {
    RunTimeRecord record(0);
    record.RecordCurrentTime();
    EXPECT_TRUE(record.WhetherTotalTimeHasTimeout());
}

TEST_F(RunTimeRecordTest, TheWallClockHasNoSay) {
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    clock.AdvanceWall(1h);
    EXPECT_FALSE(record.WhetherTotalTimeHasTimeout());
}

TEST_F(RunTimeRecordTest, ReversedPointsReachNoBudget) {
    clock.SetMonotonic(100s);
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    clock.SetMonotonic(10s);
    EXPECT_FALSE(record.WhetherTotalTimeHasTimeout());
    record.RunTimePrint("back");
    EXPECT_EQ(OnlyMessage(), "back t10 = 0us,totalTime=0us");
}

TEST_F(RunTimeRecordTest, PrintsTheStagesLatestFirst) {
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    clock.AdvanceMonotonic(12us);
    record.RecordCurrentTime();
    clock.AdvanceMonotonic(35us);
    record.RecordCurrentTime();
    record.RunTimePrint("CreateWriteFifo /x takes more than 50ms");
    EXPECT_EQ(OnlyMessage(), "CreateWriteFifo /x takes more than 50ms t21 = 35us, t10 = 12us,totalTime=47us");
}

TEST_F(RunTimeRecordTest, TheCheckRecordsAFinalPoint) {
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    clock.AdvanceMonotonic(60ms);
    EXPECT_TRUE(record.WhetherTotalTimeHasTimeout());
    record.RunTimePrint("head");
    EXPECT_EQ(OnlyMessage(), "head t10 = 60000us,totalTime=60000us");
    clock.AdvanceMonotonic(1ms);
    EXPECT_TRUE(record.WhetherTotalTimeHasTimeout());
    record.RunTimePrint("head");
    EXPECT_EQ(OnlyMessage(), "head t21 = 1000us, t10 = 60000us,totalTime=61000us");
}

TEST_F(RunTimeRecordTest, PointNumbersOfTwoDigitsAreWrittenTogether) {
    RunTimeRecord record(50);
    for (int i = 0; i < 12; ++i) {
        record.RecordCurrentTime();
        clock.AdvanceMonotonic(1us);
    }
    record.RunTimePrint("");
    EXPECT_EQ(OnlyMessage(), " t1110 = 1us, t109 = 1us, t98 = 1us, t87 = 1us, t76 = 1us, t65 = 1us, t54 = 1us,"
                             " t43 = 1us, t32 = 1us, t21 = 1us, t10 = 1us,totalTime=11us");
}

TEST_F(RunTimeRecordTest, OnePointPrintsATotalOfNothing) {
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    record.RunTimePrint("head ");
    EXPECT_EQ(OnlyMessage(), "head totalTime=0us");
}

TEST_F(RunTimeRecordTest, WithoutPointsThereIsNothingToPrintOrCheck) {
    RunTimeRecord record(0);
    record.RunTimePrint("head");
    EXPECT_EQ(OnlyMessage(), NO_POINTS);
    EXPECT_FALSE(record.WhetherTotalTimeHasTimeout());
    EXPECT_EQ(OnlyMessage(), NO_POINTS);
    // That check recorded no point either.
    EXPECT_FALSE(record.WhetherTotalTimeHasTimeout());
    EXPECT_EQ(OnlyMessage(), NO_POINTS);
}

TEST_F(RunTimeRecordTest, PercentSignsOfTheHeadArePrintedAsTheyAre) {
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    record.RunTimePrint("100%s ");
    EXPECT_EQ(OnlyMessage(), "100%s totalTime=0us");
}

TEST_F(RunTimeRecordTest, AHeadThatIsTooLongBecomesF) {
    RunTimeRecord record(50);
    record.RecordCurrentTime();
    record.RunTimePrint(std::string(256, 'h'));
    EXPECT_EQ(OnlyMessage(), "F");
}

} // namespace
