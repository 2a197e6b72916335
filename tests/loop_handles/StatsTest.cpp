// The numbers of a link through its handle.
#include <thread>

#include "LoopHandles.h"
#include "stats/StatsFile.h"
#include "support/StatsDirectory.h"

namespace tarvo_test {
namespace {

// Before the loop, and before leaks are looked for.
struct MaybeCounted {
    const bool mayMount = EnterMountNamespace();
    const bool isCounted = mayMount && GetOwnStatsDirectory() && StatsFile::Get() != nullptr;
};

class HandleStatsTest : private MaybeCounted, public LoopHandlesTest {
protected:
    void SetUp() override {
        if (!mayMount) {
            GTEST_SKIP() << NO_MOUNTS;
        }
        ASSERT_TRUE(isCounted);
    }
};

TEST_F(HandleStatsTest, ALinkTellsItsNumbers) {
    service = tarvo::Service::Open(
        loop, name, {},
        tarvo::ServiceHandlers().OnRequest([](const tarvo::LinkRequest &asked) { return asked.Text(); }));
    const tarvo::Link link = Connected();
    std::string answer;
    ASSERT_FALSE(link.Call("hello", PATIENCE, [&](std::error_code, std::string_view bytes) { answer = bytes; }));
    TarvoStatsPipe numbers{};
    EXPECT_FALSE(link.Stats(numbers));
    EXPECT_EQ(numbers.calls.outstanding.now, 1U);
    Until([&] { return !answer.empty(); });
    EXPECT_FALSE(link.Stats(numbers));
    EXPECT_EQ(numbers.calls.ended[TARVO_STATS_END_ANSWERED], 1U);
    EXPECT_EQ(numbers.received.bytes[TARVO_STATS_RESPONSE], 5U);
    std::thread([&] { EXPECT_EQ(link.Stats(numbers), std::errc::resource_deadlock_would_occur); }).join();
    EXPECT_EQ(tarvo::LinkView().Stats(numbers), std::errc::invalid_argument);
}

class HandleWithoutStatsTest : public LoopHandlesTest {};

TEST_F(HandleWithoutStatsTest, ALinkThatIsNotCountedSaysSo) {
    if (access(TARVO_STATS_DIRECTORY, F_OK) == 0) {
        GTEST_SKIP() << "processes are counted on this machine";
    }
    service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers());
    const tarvo::Link link = Connected();
    TarvoStatsPipe numbers{};
    EXPECT_EQ(link.Stats(numbers), std::errc::no_message_available);
}

} // namespace
} // namespace tarvo_test
