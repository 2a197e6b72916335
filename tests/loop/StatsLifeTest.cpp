// What is counted of links and services as such, who is told, and what is left of a process that ends.
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "loop/StatsFixture.h"
#include "support/AllocFaults.h"
#include "support/Process.h"

namespace tarvo_test {
namespace {

class StatsLifeTest : public LinkStatsTest {
protected:
    static uint64_t Opens(uint32_t how) { return OwnStats().Header().opens[how]; }
    static TarvoStatsServer ServerOnFile() {
        const std::vector<TarvoStatsSlot> servers = OwnStats().Slots(TARVO_STATS_SERVER);
        EXPECT_EQ(servers.size(), 1U);
        return servers.empty() ? TarvoStatsServer{} : servers.front().of.server;
    }
    int OpenResult(Probe &probe, TarvoLinkKind kind, const std::string &target, int timeoutMs = OPEN_LIMIT_MS) {
        EXPECT_EQ(probe.Open(kind, target, self, timeoutMs), 0);
        EXPECT_TRUE(probe.AwaitCount(1));
        return std::atoi(probe.events.front().substr(7).c_str());
    }
};

TEST_F(StatsLifeTest, ALinkHasASlotFromItsOpenToItsEnd) {
    EXPECT_EQ(PipesOnFile().front().state, uint32_t{TARVO_STATS_OPEN});
    EXPECT_EQ(PipesOnFile().front().engine, uint32_t{TARVO_STATS_LOOP});
    EXPECT_EQ(PipesOnFile().front().handle, 0);
    EXPECT_EQ(PipesOnFile().front().name, self);
    EXPECT_EQ(PipesOnFile().front().remote, remote);
    EXPECT_GT(PipesOnFile().front().openedAt, 0U);
    peer.CloseWrite();
    ASSERT_TRUE(link.Await("closed"));
    EXPECT_EQ(PipesOnFile().front().state, uint32_t{TARVO_STATS_REMOTE_CLOSED});
    ASSERT_EQ(link.Close(), 0);
    EXPECT_EQ(PipesOnFile().front().state, uint32_t{TARVO_STATS_CLOSED});
    EXPECT_GE(PipesOnFile().front().closedAt, PipesOnFile().front().openedAt);
    Probe opening(loop);
    ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("nobody"), self), 0);
    const std::vector<TarvoStatsSlot> pipes = PipesOnFile();
    EXPECT_EQ(std::count_if(pipes.begin(), pipes.end(),
                            [](const TarvoStatsSlot &slot) { return slot.state == TARVO_STATS_OPENING; }),
              1);
}

TEST_F(StatsLifeTest, SlotsAreGivenBackWithTheMemoryOfTheLinks) {
    for (int i = 0; i < 100; ++i) {
        Probe opening(loop);
        ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("nobody"), self), 0);
    }
    EXPECT_EQ(OwnStats().Header().slots, TARVO_STATS_SLOTS_PER_CHUNK);
    EXPECT_EQ(OwnStats().Header().uncounted, 0U);
}

TEST_F(StatsLifeTest, ALoopThatIsDestroyedClosesItsLinks) {
    ASSERT_EQ(link.Send("x"), 0);
    link.Forget();
    loop.Destroy();
    EXPECT_EQ(PipesOnFile().front().state, uint32_t{TARVO_STATS_CLOSED});
    EXPECT_EQ(OnFile().sent.messages[TARVO_STATS_ONE_WAY], 1U);
}

TEST_F(StatsLifeTest, OpensAreCountedByResultWithTheirTime) {
    EXPECT_EQ(Opens(TARVO_STATS_OPEN_OK), 1U);
    EXPECT_EQ(Times(OwnStats().Header().openTime), 1U);
    Probe late(loop);
    EXPECT_EQ(OpenResult(late, TARVO_LINK_ARRANGED_CLIENT, UniqueName("nobody"), 1), -ETIMEDOUT);
    EXPECT_EQ(Opens(TARVO_STATS_OPEN_TIMED_OUT), 1U);
    Probe lonely(loop);
    EXPECT_EQ(OpenResult(lonely, TARVO_LINK_TO_SERVER, UniqueName("nobody")), -ENXIO);
    EXPECT_EQ(Opens(TARVO_STATS_OPEN_NO_SERVER), 1U);
    EXPECT_EQ(Times(OwnStats().Header().openTime), 1U) << "of those that succeeded";
}

TEST_F(StatsLifeTest, AServerCountsItsClients) {
    const std::string name = UniqueName("server");
    ServiceProbe service(loop);
    ASSERT_EQ(service.Open(name), 0);
    Probe client(loop);
    EXPECT_EQ(OpenResult(client, TARVO_LINK_TO_SERVER, name), 0);
    ASSERT_TRUE(service.AwaitClients(1));
    EXPECT_EQ(ServerOnFile().packets, 1U);
    EXPECT_EQ(ServerOnFile().opened, 1U);
    EXPECT_EQ(Times(ServerOnFile().openTime), 1U);
    EXPECT_EQ(ServerOnFile().bad, 0U);
    WriteToRawServer(name, "no packet" + RawConnectPacket("a;b", 0, 1));
    loop.RunWhileReadable();
    EXPECT_EQ(ServerOnFile().bad, 1U);
    EXPECT_EQ(ServerOnFile().packets, 2U);
    EXPECT_EQ(ServerOnFile().failed, 1U) << "no client has such a name";
    WriteToRawServer(name, RawConnectPacket("gone", TARVO_LOOP_ANY_GROUP, 1));
    loop.RunWhileReadable();
    ASSERT_EQ(service.Close(), 0);
    EXPECT_EQ(ServerOnFile().packets, 3U);
    EXPECT_EQ(ServerOnFile().opened + ServerOnFile().failed, 3U) << "the link that was opening gets nowhere";
    EXPECT_EQ(OwnStats().Slots(TARVO_STATS_SERVER).front().state, uint32_t{TARVO_STATS_CLOSED});
}

TEST_F(StatsLifeTest, NumbersAreForTheThreadOfTheLoopOnly) {
    TarvoStatsPipe numbers{};
    EXPECT_EQ(TarvoLinkStats(nullptr, &numbers), -EINVAL);
    EXPECT_EQ(TarvoLinkStats(link.link, nullptr), -EINVAL);
    std::thread([&] { EXPECT_EQ(TarvoLinkStats(link.link, &numbers), -EDEADLK); }).join();
    EXPECT_EQ(TarvoLinkStats(link.link, &numbers), 0);
}

TEST_F(StatsLifeTest, AForkedChildChangesNothing) {
    ASSERT_GT(link.Call("q", "call", -1), 0);
    const TarvoStatsPipe before = OnFile();
    ChildProcess child([&](Channel &) {
        TarvoStatsPipe numbers{};
        EXPECT_EQ(TarvoLinkStats(link.link, &numbers), -ENOENT);
        EXPECT_EQ(link.Send("x"), -ENOENT);
        EXPECT_EQ(TarvoLinkClose(link.link), -ENOENT);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    const TarvoStatsPipe after = OnFile();
    EXPECT_EQ(std::memcmp(&before, &after, sizeof(before)), 0);
    EXPECT_EQ(PipesOnFile().front().state, uint32_t{TARVO_STATS_OPEN});
}

// Without the directory.
TEST(StatsOffTest, NothingIsCountedAndNothingMade) {
    TARVO_STATS_OR_SKIP(0);
    TestLoop loop;
    Probe link(loop);
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("nobody"), UniqueName("self")), 0);
    TarvoStatsPipe numbers{};
    EXPECT_EQ(TarvoLinkStats(link.link, &numbers), -ENODATA);
    EXPECT_EQ(access(TARVO_STATS_DIRECTORY, F_OK), -1);
}

// A server and its client, each a process, with calls and one-way requests without end in both directions.
class Pair {
public:
    Pair()
        : server([this](Channel &channel) { return Serve(channel); }), client([this](Channel &channel) {
              static_cast<void>(channel.Await());
              return Flood(channel);
          }) {
        EXPECT_TRUE(server.Await());
        client.Signal();
        EXPECT_TRUE(client.Await());
    }

    const std::string name = UniqueName("killed");
    ChildProcess server;
    ChildProcess client;

private:
    int Serve(Channel &channel) const {
        TestLoop loop;
        ServiceProbe service(loop);
        service.onClient = [](Probe &probe) {
            probe.onRequest = [&probe](uint32_t number, const std::string &text) {
                probe.Reply(number, text);
                probe.events.clear();
                probe.requests.clear();
            };
        };
        EXPECT_EQ(service.Open(name), 0);
        channel.Signal();
        return TarvoLoopRun(loop.Get(), -1);
    }
    int Flood(Channel &channel) const {
        TestLoop loop;
        Probe link(loop);
        EXPECT_EQ(link.Open(TARVO_LINK_TO_SERVER, name, UniqueName("client")), 0);
        EXPECT_TRUE(link.Await("opened 0"));
        channel.Signal();
        const std::string text(64, 'x');
        for (;;) {
            for (int i = 0; i < 20; ++i) {
                link.Send(text);
                TarvoLinkCall(
                    link.link, View(text), 1000, [](void *, int, TarvoBytes) {}, nullptr);
            }
            TarvoLoopDispatch(loop.Get(), 1000);
            link.events.clear();
        }
    }
};

TarvoStatsPipe LastNumbersOf(const ChildProcess &process) {
    const StatsSnapshot file(StatsFileOf(process.Pid()));
    EXPECT_TRUE(file.IsWhole());
    const std::vector<TarvoStatsSlot> pipes = file.Slots(TARVO_STATS_PIPE);
    EXPECT_EQ(pipes.size(), 1U);
    return pipes.empty() ? TarvoStatsPipe{} : pipes.front().of.pipe;
}

// One message may be under way in each step of a process that is killed.
void ExpectAgreement(const TarvoStatsPipe &pipe) {
    EXPECT_LE(Ends(pipe), pipe.calls.begun + 1);
    EXPECT_LE(pipe.requests.finished, pipe.requests.begun);
    EXPECT_LE(pipe.requests.begun - pipe.requests.finished, 1U);
    EXPECT_LE(pipe.requests.begun + Dropped(pipe), Requests(pipe.received.messages));
    EXPECT_EQ(Messages(pipe.received.bytes), 64 * Messages(pipe.received.messages));
}

TEST(StatsKilledTest, AProcessLeavesNumbersThatAgreeWheneverItIsKilled) {
    TARVO_STATS_OR_SKIP();
    for (int round = 0; round < 10; ++round) {
        Pair pair;
        const StatsSnapshot alive(StatsFileOf(pair.client.Pid()));
        while (round > 0 && Messages(LastNumbersOf(pair.client).sent.messages) < 100U * static_cast<unsigned>(round)) {
        }
        pair.client.Kill();
        pair.client.Wait();
        EXPECT_FALSE(IsAliveStatsFile(StatsFileOf(pair.client.Pid())));
        ExpectAgreement(LastNumbersOf(pair.client));
        pair.server.Kill();
        pair.server.Wait();
        const TarvoStatsPipe sent = LastNumbersOf(pair.client);
        const TarvoStatsPipe received = LastNumbersOf(pair.server);
        ExpectAgreement(received);
        // The write is counted before it is made, but where one message is the whole of it.
        EXPECT_LE(Requests(received.received.messages), Requests(sent.sent.messages) + 1);
        EXPECT_LE(sent.received.messages[TARVO_STATS_RESPONSE], received.sent.messages[TARVO_STATS_RESPONSE] + 1);
    }
}

} // namespace
} // namespace tarvo_test
