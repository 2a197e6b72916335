#include "support/SyslogCapture.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <thread>

#include "diag/velm_syslog.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(SyslogCapture, KeepsTheLinesOfTheLibrary) {
    const SyslogCapture log;
    VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 42, "unit", "code %d", 7);
    ASSERT_EQ(log.Lines().size(), 1U);
    const LogLine line = log.Lines()[0];
    EXPECT_EQ(line.level, LOG_ERR);
    ASSERT_TRUE(line.hasHeader) << line.text;
    EXPECT_EQ(line.label, "TARVO");
    EXPECT_EQ(line.pid, std::to_string(getpid()));
    EXPECT_EQ(line.file, "unit");
    EXPECT_EQ(line.line, "42");
    EXPECT_EQ(line.message, "code 7");
}

TEST(SyslogCapture, FindsLinesByLevelAndText) {
    SyslogCapture log;
    syslog(LOG_ERR, "one %s", "two");
    syslog(LOG_WARNING, "one %s", "two");
    EXPECT_TRUE(log.Contains(LOG_ERR, "e t"));
    EXPECT_FALSE(log.Contains(LOG_NOTICE, "e t"));
    EXPECT_EQ(log.Count(ANY_LEVEL, "one"), 2U);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "one two"));
    EXPECT_FALSE(log.ContainsExactly(LOG_ERR, "one"));
    EXPECT_THAT(log.Messages(), ElementsAre("one two", "one two"));
    log.Clear();
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(SyslogCapture, WaitsForALineOfAnotherThread) {
    const SyslogCapture log;
    std::thread writer([] { syslog(LOG_ERR, "late"); });
    const auto line = log.WaitFor(LOG_ERR, "late");
    writer.join();
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->text, "late");
}

TEST(SyslogCapture, CapturesOnlyWhileItLives) {
    syslog(LOG_ERR, "before");
    const SyslogCapture log;
    {
        const SyslogCapture inner;
        syslog(LOG_ERR, "inside");
        EXPECT_THAT(inner.Messages(), ElementsAre("inside"));
    }
    syslog(LOG_ERR, "after");
    EXPECT_THAT(log.Messages(), ElementsAre("inside", "after"));
}

TEST(SyslogCapture, LongLinesAreKeptWhole) {
    const SyslogCapture log;
    syslog(LOG_ERR, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(log.Messages().at(0).size(), 5000U);
}

TEST(SyslogCapture, HooksSeeTheLine) {
    std::string seen;
    const ScopedHook hook(Call::Syslog, [&](const CallInfo &info) { seen = info.path; });
    syslog(LOG_ERR, "%d", 12);
    EXPECT_EQ(seen, "12");
}

TEST(ParseLogLine, LeavesLinesWithoutAHeaderWhole) {
    for (const char *text : {"", "plain", "[a][b][c]", "[a][b][c][d][e][f:1]", "[a][b][c][d][e][f] m", "[a] b"}) {
        const LogLine line = ParseLogLine(LOG_ERR, text);
        EXPECT_FALSE(line.hasHeader) << text;
        EXPECT_EQ(line.message, text);
    }
}

TEST(ParseLogLine, TakesTheHeaderApart) {
    const LogLine line = ParseLogLine(LOG_ERR, "[TARVO][p][10:00:00.000001][12][34][file:-5] the [message]: x");
    EXPECT_TRUE(line.hasHeader);
    EXPECT_EQ(line.process, "p");
    EXPECT_EQ(line.time, "10:00:00.000001");
    EXPECT_EQ(line.thread, "34");
    EXPECT_EQ(line.line, "-5");
    EXPECT_EQ(line.message, "the [message]: x");
}

} // namespace
} // namespace tarvo_test
