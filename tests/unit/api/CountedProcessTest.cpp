// What a process counts besides the messages of its pipes: opens, servers, threads, and the life of each pipe.
#include <sys/wait.h>

#include "support/Faults.h"
#include "support/Threads.h"
#include "tarvo.hpp"
#include "unit/api/StatsFixture.h"
#include "worker/PoolStats.h"
#include "worker/WorkerPool.h"

namespace {

using namespace tarvo_test;

class CountedProcessTest : public ApiStatsTest {
protected:
    static uint64_t Opens(unsigned result) { return OwnStats().Header().opens[result]; }
    static TarvoStatsServer ServerInFile() { return OwnStats().Slots(TARVO_STATS_SERVER).at(0).of.server; }
    static TarvoStatsPool PoolInFile() { return OwnStats().Slots(TARVO_STATS_POOL).at(0).of.pool; }
};

TEST_F(CountedProcessTest, OpensAreCountedByResult) {
    const PipePair pair;
    EXPECT_EQ(2U, Opens(TARVO_STATS_OPEN_OK));
    EXPECT_EQ(2U, CountOf(OwnStats().Header().openTime));
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    EXPECT_EQ(-ENXIO, TarvoCreateClient(&attr));
    EXPECT_EQ(1U, Opens(TARVO_STATS_OPEN_NO_SERVER));
    attr.timeout = 1;
    EXPECT_EQ(-ETIMEDOUT, TarvoOpen(&attr));
    EXPECT_EQ(1U, Opens(TARVO_STATS_OPEN_TIMED_OUT));
    const std::string another = UniqueName("another");
    attr = MakeAttr(self, another, TARVO_MODE_SERVER);
    {
        const ScopedFault fault(Call::Mkfifo, EACCES, Where().Always());
        EXPECT_EQ(-EACCES, TarvoOpen(&attr));
    }
    EXPECT_EQ(1U, Opens(TARVO_STATS_OPEN_REFUSED));
    const std::string third = UniqueName("third");
    attr = MakeAttr(self, third, TARVO_MODE_SERVER);
    attr.priority = TARVO_PRIORITY_NONE;
    EXPECT_EQ(-EINVAL, TarvoOpen(&attr));
    EXPECT_EQ(1U, Opens(TARVO_STATS_OPEN_OTHER));
    EXPECT_EQ(2U, CountOf(OwnStats().Header().openTime));
}

TEST_F(CountedProcessTest, APipesSlotTellsWhoItIsAndHowItLives) {
    Gate &gate = Gate::Make();
    const int fd = OpenToRaw([&gate](int, TarvoRequest *request) {
        if (request == nullptr) {
            gate.Pass();
        }
    });
    TarvoStatsSlot slot = InFile(fd);
    EXPECT_EQ(self, slot.name);
    EXPECT_EQ(remote, slot.remote);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_THREADS), slot.engine);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_OPEN), slot.state);
    EXPECT_GT(slot.openedAt, 0U);
    { const JoinedRawPeer peer(remote, self); }
    gate.AwaitWaiting(1);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_REMOTE_CLOSED), InFile(fd).state);
    gate.Open();
    ASSERT_TRUE(Eventually([&] { return InFile(fd).state == TARVO_STATS_CLOSED; }));
    slot = InFile(fd);
    EXPECT_GE(slot.closedAt, slot.openedAt);
}

TEST_F(CountedProcessTest, APipeThatDidNotOpenIsClosedInItsSlotUntilItDoes) {
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    attr.timeout = 1;
    EXPECT_EQ(-ETIMEDOUT, TarvoOpen(&attr));
    TarvoStatsSlot slot = OwnStats().Slots(TARVO_STATS_PIPE).at(0);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_CLOSED), slot.state);
    EXPECT_EQ(0U, slot.openedAt);
    RawPeer peer(remote, self);
    peer.CreateFiles();
    const int fd = TarvoOpen(&attr);
    ASSERT_EQ(slot.handle, fd);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_OPEN), InFile(fd).state);
    EXPECT_EQ(0U, InFile(fd).closedAt);
}

TEST_F(CountedProcessTest, AServerCountsWhoCameToIt) {
    ASSERT_EQ(0, CreateServer(self, Ignore));
    const int fd = CreateClient(remote, self);
    ASSERT_GT(fd, 0);
    ASSERT_TRUE(Eventually([] { return CountOf(ServerInFile().openTime) == 1; }));
    EXPECT_EQ(1U, ServerInFile().packets);
    EXPECT_EQ(1U, ServerInFile().opened);
    EXPECT_EQ(0U, ServerInFile().bad);
    EXPECT_EQ(self, OwnStats().Slots(TARVO_STATS_SERVER).at(0).name);

    WriteToRawServer(self, "garbage");
    WriteToRawServer(self, RawConnectPacket("no;name", 0, 1));
    ASSERT_TRUE(Eventually([] { return ServerInFile().failed == 1; }));
    EXPECT_EQ(2U, ServerInFile().packets);
    EXPECT_EQ(1U, ServerInFile().bad); // however many bytes
    std::string tooLong = RawConnectPacket(std::string(200, 'x'), 0, 1);
    WriteToRawServer(self, tooLong);
    ASSERT_TRUE(Eventually([] { return ServerInFile().bad >= 2; }));
    EXPECT_EQ(1U, ServerInFile().opened);
    EXPECT_EQ(1U, CountOf(ServerInFile().openTime));
    TarvoCfgFinishServer();
    EXPECT_GT(OwnStats().Slots(TARVO_STATS_SERVER).at(0).closedAt, 0U);
}

TEST_F(CountedProcessTest, ThreadsAreCountedWhileTheyRun) {
    Gate &gate = Gate::Make();
    const PipePair pair([&gate](int, TarvoRequest *) { gate.Pass(); });
    EXPECT_TRUE(Eventually([] { return PoolInFile().monitors == 1; }));
    SendMany(pair.far, 1);
    gate.AwaitWaiting(1);
    EXPECT_EQ(1U, PoolInFile().taken.now);
    EXPECT_GE(PoolInFile().taken.most, 1U);
    EXPECT_GE(PoolInFile().threads.now, 1U);
    EXPECT_GE(PoolInFile().threads.most, 1U);
    gate.Open();
    TarvoClosePipe(pair.near);
    EXPECT_EQ(0U, PoolInFile().taken.now);
    TarvoCfgFinishServer();
    EXPECT_EQ(0U, PoolInFile().threads.now);
    EXPECT_EQ(0U, PoolInFile().monitors);
}

TEST_F(CountedProcessTest, WaitsForAThreadAreCounted) {
    PoolStats::Begin();
    WorkerPool pool(1, 0);
    Worker *const only = pool.GetWorker();
    ASSERT_NE(nullptr, only);
    Worker *next = nullptr;
    Threads waits;
    waits.Start([&] { next = pool.GetWorker(); });
    ASSERT_TRUE(Eventually([] { return PoolInFile().waited == 1; }));
    EXPECT_EQ(1U, PoolInFile().refused);
    EXPECT_EQ(1U, PoolInFile().taken.now);
    pool.FreeWorker(*only);
    waits.Join();
    EXPECT_EQ(only, next);
    EXPECT_EQ(1U, PoolInFile().taken.now);
    EXPECT_EQ(1U, PoolInFile().taken.most);
    pool.FreeWorker(*next);
    pool.FreeWorker(*next);
    EXPECT_EQ(0U, PoolInFile().taken.now);
}

TEST_F(CountedProcessTest, AProcessReadsItsOwnPipesNumbers) {
    const PipePair pair(Echo);
    EXPECT_EQ("x", Ask(pair.far, "x"));
    TarvoStatsPipe stats{};
    EXPECT_EQ(-EINVAL, TarvoPipeStats(pair.far, nullptr));
    EXPECT_EQ(-ENOENT, TarvoPipeStats(0, &stats));
    EXPECT_EQ(-ENOENT, TarvoPipeStats(pair.far + 1000, &stats));
    EXPECT_EQ(0, TarvoPipeStats(pair.far, &stats));
    EXPECT_EQ(1U, stats.calls.begun);
    EXPECT_EQ(1U, tarvo::PipeView(pair.far).Stats().calls.begun);
    std::error_code error;
    static_cast<void>(tarvo::PipeView(pair.far + 1000).Stats(error));
    EXPECT_EQ(std::errc::no_such_file_or_directory, error);
    EXPECT_THROW(static_cast<void>(tarvo::PipeView(pair.far + 1000).Stats()), std::system_error);
}

TEST(UncountedProcessTest, NothingIsThereWithoutTheDirectory) {
    TARVO_STATS_OR_SKIP(0);
    const PipePair pair(Echo);
    ASSERT_EQ(0, mkdir(TARVO_STATS_DIRECTORY, 02770));
    EXPECT_EQ("x", Ask(pair.far, "x"));
    TarvoStatsPipe stats{};
    EXPECT_EQ(-ENODATA, TarvoPipeStats(pair.far, &stats));
    EXPECT_TRUE(StatsFiles().empty());
}

TEST(UncountedProcessTest, APipeWithoutAPlaceWorksAndIsNotCounted) {
    TARVO_STATS_OR_SKIP(02770,
                        "size=80k"); // one chunk, and the quarter that stays free: the sums, the threads and six pipes
    const SyslogCapture log;
    const PipePair first(Echo);
    const PipePair second(Echo);
    const PipePair third(Echo);
    const PipePair fourth(Echo);
    EXPECT_EQ("x", Ask(fourth.far, "x"));
    TarvoStatsPipe stats{};
    EXPECT_EQ(0, TarvoPipeStats(third.far, &stats));
    EXPECT_EQ(-ENODATA, TarvoPipeStats(fourth.near, &stats));
    EXPECT_EQ(-ENODATA, TarvoPipeStats(fourth.far, &stats));
    EXPECT_EQ(2U, OwnStats().Header().uncounted);
    EXPECT_EQ(1U, log.Count(LOG_WARNING, "No room in the statistics file"));
    TarvoCfgFinishServer();
}

TEST(UncountedProcessTest, AForkedChildOfARunningProcessDoesNotCount) {
    TARVO_STATS_OR_SKIP();
    const PipePair pair(Echo);
    EXPECT_EQ("x", Ask(pair.far, "x"));
    const TarvoStatsPipe before = OwnStats().Slots(TARVO_STATS_PIPE).at(1).of.pipe;
    const pid_t child = fork();
    if (child == 0) {
        TarvoStatsPipe stats{};
        const bool refused = Ask(pair.far, "x") == "error -2" && TarvoPipeStats(pair.far, &stats) == -ENOENT;
        TarvoClosePipe(pair.far);
        TarvoCfgFinishServer();
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(1U, StatsFiles().size());
    const TarvoStatsPipe after = OwnStats().Slots(TARVO_STATS_PIPE).at(1).of.pipe;
    EXPECT_EQ(0, std::memcmp(&before, &after, sizeof(before)));
    EXPECT_EQ("x", Ask(pair.far, "x"));
    TarvoCfgFinishServer();
}

} // namespace
