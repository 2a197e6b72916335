// Real processes whose numbers must agree: what one has sent another has received, or one of them says why not.
#include <csignal>

#include "stats/Stats.h"
#include "support/Process.h"
#include "support/StatsWrap.h"
#include "unit/api/StatsFixture.h"

namespace {

using namespace tarvo_test;

constexpr uint64_t HEAD = 32;

void Slowly(int fd, TarvoRequest *request) {
    if (request == nullptr) {
        return;
    }
    if (request->size % 7 == 0) {
        poll(nullptr, 0, 1);
    }
    Echo(fd, request);
}

int Serve(const std::string &name, Channel &parent) {
    const int ret = CreateServer(name, Slowly);
    parent.Signal();
    static_cast<void>(parent.Await());
    TarvoCfgFinishServer();
    return -ret;
}

// Requests, calls that are answered, and some whose time is too short, over pipes that come and go.
void Talk(const std::string &name, const std::string &server, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        const int fd = CreateClient(name, server);
        for (int i = 1; i <= 40; ++i) {
            std::string text(static_cast<std::size_t>(i), 'x');
            TarvoRequest request{0, text.data(), static_cast<uint32_t>(text.size())};
            TarvoSendRequest(fd, &request);
            Ask(fd, text, i % 5 == 0 ? 0 : 1000);
        }
        TarvoClosePipe(fd);
    }
}

int BeClient(const std::string &name, const std::string &server, int rounds) {
    Talk(name, server, rounds);
    TarvoCfgFinishServer();
    return 0;
}

std::vector<std::string> AllDisagreements() {
    std::vector<std::string> faults;
    for (const std::string &path : StatsFiles()) {
        for (std::string &fault : DisagreementsIn(path)) {
            faults.push_back(std::move(fault));
        }
    }
    return faults;
}

StatsSums SumOfAll() {
    StatsSums sums;
    for (const std::string &path : StatsFiles()) {
        sums.Add(StatsSnapshot(path));
    }
    return sums;
}

TEST(CountedTruthTest, WhatWasSentHasArrivedOrIsSaidToBeLost) {
    TARVO_STATS_OR_SKIP();
    const std::string name = UniqueName("server");
    ChildProcess server([&](Channel &parent) { return Serve(name, parent); });
    ASSERT_TRUE(server.Await());
    constexpr int ROUNDS = 5;
    {
        ChildProcess one([&](Channel &) { return BeClient("one", name, ROUNDS); });
        ChildProcess other([&](Channel &) { return BeClient("other", name, ROUNDS); });
        EXPECT_EQ(0, one.Wait());
        EXPECT_EQ(0, other.Wait());
    }
    server.Signal();
    EXPECT_EQ(0, server.Wait());
    EXPECT_THAT(AllDisagreements(), ::testing::IsEmpty());
    const StatsSums sums = SumOfAll();
    EXPECT_GT(sums.answered, 0U);
    EXPECT_GT(sums.calls, sums.answered);
    EXPECT_EQ(sums.calls, sums.ended);
    EXPECT_EQ(sums.requests, sums.begun + sums.dropped);
    const uint64_t written = sums.sentBytes + HEAD * sums.sent;
    const uint64_t accounted = sums.receivedBytes + HEAD * sums.received + sums.unread;
    // An answer that is written between the last look at a FIFO and its close, once for each close at most.
    EXPECT_GE(written, accounted);
    EXPECT_LE(written, accounted + 2 * ROUNDS * (HEAD + 40));
}

TEST(CountedTruthTest, TheNumbersOfAKilledProcessAgreeUpToWhatItHadInHand) {
    TARVO_STATS_OR_SKIP();
    const std::string name = UniqueName("server");
    for (int kill = 0; kill < 5; ++kill) {
        ChildProcess server([&](Channel &parent) { return Serve(name, parent); });
        ASSERT_TRUE(server.Await());
        ChildProcess client([&](Channel &parent) {
            parent.Signal();
            return BeClient("client", name, 1000000);
        });
        ASSERT_TRUE(client.Await());
        const auto answers = [&client] {
            const std::string path = StatsFileOf(client.Pid());
            StatsSums sums;
            if (!path.empty()) {
                sums.Add(StatsSnapshot(path));
            }
            return sums.answered;
        };
        ASSERT_TRUE(Eventually([&] { return answers() > 20; }));
        (kill % 2 == 0 ? client : server).Kill();
        (kill % 2 == 0 ? client : server).Wait();
        client.Kill();
        client.Wait();
        EXPECT_THAT(AllDisagreements(), ::testing::IsEmpty());
        EXPECT_FALSE(IsAliveStatsFile(StatsFileOf(client.Pid())));
        server.Kill();
        server.Wait();
    }
    const StatsSums sums = SumOfAll();
    EXPECT_GE(sums.calls, sums.ended);
    EXPECT_LE(sums.calls, sums.ended + 5);
    EXPECT_GE(sums.answered, sums.roundTrips);
    EXPECT_GE(sums.roundTrips * 16 + 5, sums.answered);
}

class CountedWrapTest : public ApiStatsTest {};

TEST_F(CountedWrapTest, WhatHasComeIsRightBeyondTheWrapOfEveryCounter) {
    constexpr uint64_t CALLS = 40;
    const PipePair pair(Echo);
    EXPECT_EQ("12345", Ask(pair.far, "12345"));
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return CountOf(stats.callback) == 1; }));
    GoNearTheWrap();
    const TarvoStatsPipe far = Of(pair.far);
    const TarvoStatsPipe near = Of(pair.near);
    EXPECT_GT(far.calls.begun, UINT64_MAX - 5);
    for (uint64_t i = 0; i < CALLS; ++i) {
        ASSERT_EQ("12345", Ask(pair.far, "12345"));
    }
    SendMany(pair.far, 3);
    const uint64_t finished = near.requests.finished + CALLS + 3;
    ASSERT_TRUE(
        EventuallyOf(pair.near, [=](const TarvoStatsPipe &stats) { return stats.requests.finished == finished; }));
    const TarvoStatsPipe called = Of(pair.far);
    EXPECT_EQ(CALLS, called.calls.begun - far.calls.begun);
    EXPECT_LT(called.calls.begun, CALLS);
    EXPECT_EQ(CALLS, called.calls.ended[TARVO_STATS_END_ANSWERED] - far.calls.ended[TARVO_STATS_END_ANSWERED]);
    EXPECT_EQ(CALLS, called.sent.messages[TARVO_STATS_CALL] - far.sent.messages[TARVO_STATS_CALL]);
    EXPECT_EQ(CALLS * 5, called.sent.bytes[TARVO_STATS_CALL] - far.sent.bytes[TARVO_STATS_CALL]);
    EXPECT_EQ(0U, called.calls.outstanding.now);
    EXPECT_EQ(1U, called.calls.outstanding.most);
    const TarvoStatsPipe served = Of(pair.near);
    EXPECT_EQ(3U, served.received.messages[TARVO_STATS_ONE_WAY] - near.received.messages[TARVO_STATS_ONE_WAY]);
    EXPECT_EQ(0U, served.requests.queued.now);
    EXPECT_EQ(0U, served.requests.running.now);
    EXPECT_EQ(1U, served.requests.running.most);
    EXPECT_LT(served.requests.queued.most, 100U);
    EXPECT_LT(served.wait.sum - near.wait.sum, Stats::NS_PER_SECOND * 100);
}

} // namespace
