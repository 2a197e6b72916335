#include "diag/velm_syslog.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <cwchar>
#include <thread>
#include <vector>

#include "support/Faults.h"
#include "support/Threads.h"
#include "unit/diag/LogFixture.h"

namespace {

using namespace std::chrono_literals;
using tarvo_test::ANY_LEVEL;
using tarvo_test::Call;
using tarvo_test::CallInfo;
using tarvo_test::Outcome;
using tarvo_test::ScopedFault;
using tarvo_test::ScopedHook;
using tarvo_test::Where;
using testing::EndsWith;
using testing::StartsWith;

constexpr std::size_t LONGEST_LINE = 255;

class VelmSyslogTest : public LogFixture {
protected:
    // A file name that makes the header of line 1 exactly `length` characters long.
    static std::string FileForHeader(std::size_t length) {
        const std::size_t rest = Header("TARVO", ":1").size();
        return std::string(length - rest, 'f');
    }
};

TEST_F(VelmSyslogTest, AWholeLineIsHeaderAndMessage) {
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 42, "unit", "code %d of %s", 7, "nine");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:42") + "code 7 of nine");
}

TEST_F(VelmSyslogTest, EveryTypeHasItsLabel) {
    const char *labels[] = {"VELM", "TARVO", "FAULTEVENT", "HEARTBEAT", "VELM", "TARVO", "FAULTEVENT", "HEARTBEAT"};
    for (int type = LOG_TYPE_VELM; type <= LOG_TYPE_HEARTBEAT_RESTRAINED; ++type) {
        const std::string file = NewFile("label");
        VelmSyslog(static_cast<VELMLogType>(type), LOG_ERR, 1, file.c_str(), "m");
        EXPECT_EQ(OnlyLine(), Header(labels[type], file + ":1") + "m") << type;
    }
}

TEST_F(VelmSyslogTest, LevelsUpToNoticeArePassedOnAndTheOthersDiscarded) {
    for (int type = LOG_TYPE_VELM; type <= LOG_TYPE_HEARTBEAT_RESTRAINED + 1; ++type) {
        for (const int level : {0, 1, 2, 3, 4, 5}) {
            const std::string file = NewFile("level");
            VelmSyslog(static_cast<VELMLogType>(type), level, 1, file.c_str(), "m");
            ASSERT_EQ(log.Lines().size(), 1U) << level << " " << type;
            EXPECT_EQ(log.Lines()[0].level, level);
            log.Clear();
        }
        for (const int level : {6, 7, 8, INT_MAX}) {
            VelmSyslog(static_cast<VELMLogType>(type), level, 1, "discarded", "m");
            EXPECT_EQ(LineCount(), 0U) << level << " " << type;
        }
    }
}

TEST_F(VelmSyslogTest, DiscardedLevelsLeaveErrnoAlone) {
    errno = EXDEV;
    VelmSyslog(LOG_TYPE_TARVO, LOG_INFO, 1, "unit", "m");
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(VelmSyslogTest, WrittenLinesKeepErrno) {
    const std::string file = NewFile("errno_kept");
    for (const VELMLogType type : {LOG_TYPE_TARVO, LOG_TYPE_TARVO_RESTRAINED, LOG_TYPE_TARVO_RESTRAINED}) {
        errno = EXDEV;
        VelmSyslog(type, LOG_ERR, 1, file.c_str(), "m");
        EXPECT_EQ(errno, EXDEV);
    }
    // One unrestrained, one restrained and one suppressed.
    EXPECT_EQ(LineCount(), 2U);
}

TEST_F(VelmSyslogTest, ErrnoCanBePrinted) {
    errno = EXDEV;
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "unit", "errno = %d", errno);
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:1") + "errno = 18");
}

TEST_F(VelmSyslogTest, AMessageOf255CharactersIsKeptAndCut) {
    const std::string message(LONGEST_LINE, 'm');
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "unit", "%s", message.c_str());
    const std::string header = Header("TARVO", "unit:1");
    const std::string line = OnlyLine();
    // The line stays one below what the buffer holds.
    EXPECT_EQ(line, header + message.substr(0, 254 - header.size()));
    EXPECT_EQ(line.size(), 254U);
}

TEST_F(VelmSyslogTest, AMessageOf256CharactersBecomesF) {
    for (const std::size_t length : {256U, 257U, 5000U}) {
        VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "unit", "%s", std::string(length, 'm').c_str());
        EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:1") + "F") << length;
    }
}

TEST_F(VelmSyslogTest, AMessageIsCutOnlyWhereTheHeaderLeavesNoRoom) {
    const std::size_t room = 254 - Header("TARVO", "unit:1").size();
    for (const std::size_t length : {room - 1, room, room + 1}) {
        const std::string message = std::string(length - 1, 'm') + "z";
        VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "unit", "%s", message.c_str());
        EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:1") + message.substr(0, room)) << length;
    }
}

TEST_F(VelmSyslogTest, AnEmptyMessageLeavesTheHeader) {
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "unit", "%s", "");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:1"));
}

TEST_F(VelmSyslogTest, AMessageThatCannotBeFormattedBecomesF) {
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "unit", "before %lc", static_cast<wint_t>(0x110000));
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:1") + "F");
}

TEST_F(VelmSyslogTest, ANullFormatBecomesF) {
    const char *volatile none = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "unit", none);
#pragma GCC diagnostic pop
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:1") + "F");
}

TEST_F(VelmSyslogTest, PercentSignsOfArgumentsAreNotFormattedAgain) {
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "unit", "%s", "100%s %n");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:1") + "100%s %n");
}

TEST_F(VelmSyslogTest, AHeaderThatFillsTheLineLeavesNoMessage) {
    const std::string file = FileForHeader(LONGEST_LINE);
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, file.c_str(), "message");
    const std::string line = OnlyLine();
    EXPECT_EQ(line, Header("TARVO", file + ":1"));
    EXPECT_EQ(line.size(), LONGEST_LINE);
}

TEST_F(VelmSyslogTest, AHeaderOneShortOfThatLeavesNoMessageEither) {
    const std::string file = FileForHeader(254);
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, file.c_str(), "message");
    EXPECT_EQ(OnlyLine(), Header("TARVO", file + ":1"));
}

TEST_F(VelmSyslogTest, AHeaderTwoShortOfThatLeavesOneCharacter) {
    const std::string file = FileForHeader(253);
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, file.c_str(), "message");
    EXPECT_EQ(OnlyLine(), Header("TARVO", file + ":1") + "m");
}

TEST_F(VelmSyslogTest, AHeaderThatIsTooLongIsLeftOut) {
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, FileForHeader(256).c_str(), "message");
    EXPECT_EQ(OnlyLine(), "message");
    const std::string message(LONGEST_LINE, 'm');
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, FileForHeader(300).c_str(), "%s", message.c_str());
    EXPECT_EQ(OnlyLine(), message.substr(0, 254));
}

TEST_F(VelmSyslogTest, TypesAboveSevenHaveNoHeader) {
    for (const int type : {8, 9, INT_MAX}) {
        const std::string file = NewFile("above");
        VelmSyslog(static_cast<VELMLogType>(type), LOG_ERR, 1, file.c_str(), "message %d", type);
        EXPECT_EQ(OnlyLine(), "message " + std::to_string(type));
        // Such a type counts among the restrained ones.
        VelmSyslog(static_cast<VELMLogType>(type), LOG_ERR, 1, file.c_str(), "message");
        EXPECT_EQ(LineCount(), 0U);
    }
    VelmSyslog(static_cast<VELMLogType>(8), LOG_ERR, 1, NewFile("above").c_str(), "%s",
               std::string(LONGEST_LINE, 'm').c_str());
    EXPECT_EQ(OnlyLine(), std::string(254, 'm'));
}

TEST_F(VelmSyslogTest, NegativeTypesHaveNoHeader) {
    VelmSyslog(static_cast<VELMLogType>(-1), LOG_ERR, 1, "unit", "message");
    EXPECT_EQ(OnlyLine(), "message");
}

TEST_F(VelmSyslogTest, ANullFileHasAName) {
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, nullptr, "m");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "UnknowFile:5") + "m");
}

TEST_F(VelmSyslogTest, EmptyNamesLeaveEmptyBrackets) {
    SetProcessName("");
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "", "m");
    EXPECT_THAT(log.Lines().at(0).text, StartsWith("[TARVO][][14:03:27.000512]["));
    EXPECT_THAT(OnlyLine(), EndsWith("][:5] m"));
}

TEST_F(VelmSyslogTest, LineNumbersArePrintedSigned) {
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, INT_MIN, "unit", "m");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:-2147483648") + "m");
}

TEST_F(VelmSyslogTest, TheThreadIsTheCallers) {
    std::string expected;
    std::thread([&] {
        VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "unit", "m");
        expected = Header("TARVO", "unit:5") + "m";
    }).join();
    EXPECT_EQ(OnlyLine(), expected);
}

TEST_F(VelmSyslogTest, MicrosecondsAreCutAndNotRounded) {
    clock.AdvanceWall(999999999ns - 512us);
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "unit", "m");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:5", "14:03:27.999999") + "m");
}

TEST_F(VelmSyslogTest, TheTimeIsLocal) {
    setenv("TZ", "XYZ-05:30", 1);
    tzset();
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "unit", "m");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:5", "19:33:27.000512") + "m");
}

TEST_F(VelmSyslogTest, SecondsAreNarrowedTo32Bits) {
    clock.SetWall(std::chrono::seconds((int64_t{1} << 32) + 3661));
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "unit", "m");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:5", "01:01:01.000000") + "m");
    // The first second that 32 bits cannot hold is the first of 1901-12-13 20:45:52.
    clock.SetWall(std::chrono::seconds(int64_t{1} << 31));
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "unit", "m");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:5", "20:45:52.000000") + "m");
}

TEST_F(VelmSyslogTest, ATimeThatCannotBeFormattedIsF) {
    const ScopedFault fault(Call::Strftime, 0);
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "unit", "m");
    EXPECT_EQ(fault.Hits(), 1U);
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:5", "F") + "m");
}

TEST_F(VelmSyslogTest, AStampThatIsTooLongIsF) {
    std::size_t length = 0;
    const ScopedHook hook(Call::Strftime, [&](const CallInfo &info) -> std::optional<Outcome> {
        EXPECT_STREQ(info.path, "%T");
        EXPECT_EQ(info.size, 32U);
        std::memset(info.data, 'T', length);
        static_cast<char *>(info.data)[length] = '\0';
        return Outcome{static_cast<long>(length)};
    });
    length = 24; // with ".000512" 31 characters
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "unit", "m");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:5", std::string(24, 'T') + ".000512") + "m");
    length = 25;
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 5, "unit", "m");
    EXPECT_EQ(OnlyLine(), Header("TARVO", "unit:5", "F") + "m");
}

TEST_F(VelmSyslogTest, LinesOfManyThreadsAreWrittenOneAtATimeAndWhole) {
    constexpr int threads = 4;
    constexpr int lines = 100;
    std::atomic<int> writing{0};
    std::atomic<int> overlaps{0};
    const ScopedHook hook(Call::Syslog, [&](const CallInfo &) {
        overlaps += writing.fetch_add(1) == 0 ? 0 : 1;
        std::this_thread::yield();
        --writing;
    });
    tarvo_test::OnThreads(threads, [](int number) {
        for (int n = 0; n < lines; ++n) {
            VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, n, "unit", "thread %d line %d", number, n);
        }
    });
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(log.Lines().size(), static_cast<std::size_t>(threads * lines));
    for (int i = 0; i < threads; ++i) {
        for (int n = 0; n < lines; ++n) {
            const std::string message = "thread " + std::to_string(i) + " line " + std::to_string(n);
            EXPECT_EQ(log.CountExactly(LOG_ERR, message), 1U) << message;
        }
    }
}

constexpr char LOG_TAG[] = "macro_tag";

TEST_F(VelmSyslogTest, TheMacrosNameTheirFileAndLine) {
    const int line = __LINE__ + 1;
    TARVO_LOG(LOG_ERR, "one %d", 1);
    EXPECT_EQ(OnlyLine(), Header("TARVO", "macro_tag:" + std::to_string(line)) + "one 1");
    const int next = __LINE__ + 1;
    TARVO_LOG_AS(LOG_TYPE_VELM, LOG_NOTICE, "two");
    EXPECT_EQ(OnlyLine(), Header("VELM", "macro_tag:" + std::to_string(next)) + "two");
    ToANewDay();
    for (int i = 0; i < 3; ++i) {
        TARVO_LOG_RESTRAINED(LOG_WARNING, "three");
    }
    EXPECT_EQ(log.CountExactly(LOG_WARNING, "three"), 1U);
}

} // namespace
