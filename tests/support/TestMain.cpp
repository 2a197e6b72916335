// What every test program does around its tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "stats/StatsFile.h"
#include "support/Names.h"
#include "support/Sanitized.h"
#include "support/StatsSums.h"
#include "support/SyslogCapture.h"
#include "support/Watchdog.h"

namespace tarvo_test {

namespace {

constexpr unsigned DEFAULT_LIMIT = EMULATED ? 300 : 100;

extern "C" void ReportHang(int) {
    // The process ends here in any case, so what a signal handler may not call can do no further harm.
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    std::fprintf(stderr, "Watchdog: %s.%s hangs. The last log lines:\n", test ? test->test_suite_name() : "?",
                 test ? test->name() : "?");
    for (const std::string &line : RecentLogLines()) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
    std::fflush(nullptr);
    std::abort();
}

// With TARVO_TEST_STATS in the environment each test runs as it does elsewhere, but is counted, and its numbers must
// agree. For root, and one test in a process.
bool IsCounted() { return std::getenv("TARVO_TEST_STATS") != nullptr; }

void BeginCounting() {
    if (!GetOwnStatsDirectory() || StatsFile::Get() == nullptr) {
        ADD_FAILURE() << "no statistics";
    }
    FifoDirectory();
}

void CompareCounts() {
    for (const std::string &path : StatsFiles()) {
        for (const std::string &fault : DisagreementsIn(path)) {
            ADD_FAILURE() << fault;
        }
    }
}

class Surroundings : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override {
        ArmAlarm(TestLimit());
        if (IsCounted()) {
            BeginCounting();
        }
    }
    void OnTestEnd(const testing::TestInfo &) override {
        ArmAlarm(0);
        if (IsCounted()) {
            CompareCounts();
        }
    }
    void OnTestProgramEnd(const testing::UnitTest &) override { RemoveOwnFifoFiles(); }
};

// The host process ignores SIGPIPE, as every user of the library must. The tag is made here so that children forked
// later share it; what an earlier process of the same id may have left is removed.
__attribute__((constructor)) void PrepareProgram() {
    std::signal(SIGPIPE, SIG_IGN);
    RemoveOwnFifoFiles();
    testing::UnitTest::GetInstance()->listeners().Append(new Surroundings);
}

} // namespace

unsigned TestLimit() {
    const char *text = std::getenv("TARVO_TEST_WATCHDOG");
    return text != nullptr ? static_cast<unsigned>(std::atoi(text)) : DEFAULT_LIMIT;
}

unsigned ArmAlarm(unsigned seconds) {
    std::signal(SIGALRM, ReportHang);
    return alarm(seconds);
}

Watchdog::Watchdog(std::chrono::seconds limit) : outer(ArmAlarm(static_cast<unsigned>(limit.count()))) {}

Watchdog::~Watchdog() { ArmAlarm(outer); }

} // namespace tarvo_test
