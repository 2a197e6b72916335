// A file and forked children of its process.
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include "stats/Stats.h"
#include "stats/StatsFile.h"
#include "support/Eventually.h"
#include "support/Process.h"
#include "support/StatsDirectory.h"
#include "unit/stats/PipeNamed.h"

namespace {

using namespace tarvo_test;

TEST(StatsFork, AChildDoesNotWriteIntoTheFileOfItsParent) {
    TARVO_STATS_OR_SKIP();
    StatsSlot slot(PipeNamed("parent"));
    Stats::Count(slot.Pipe()->calls.begun);
    ChildProcess child([&](Channel &) {
        Stats::Count(slot.Pipe()->calls.begun, 100);
        Stats::Count(StatsFile::Get()->Header().uncounted, 100);
        slot.Closed();
        slot = StatsSlot();
        return 0;
    });
    EXPECT_EQ(0, child.Wait());
    const StatsSnapshot file = OwnStats();
    ASSERT_EQ(1U, file.Slots(TARVO_STATS_PIPE).size());
    EXPECT_EQ(1U, file.Slots(TARVO_STATS_PIPE).front().of.pipe.calls.begun);
    EXPECT_EQ(0U, file.Slots(TARVO_STATS_PIPE).front().closedAt);
    EXPECT_EQ(0U, file.Header().uncounted);
}

TEST(StatsFork, AChildMayHaveAFileOfItsOwn) {
    TARVO_STATS_OR_SKIP();
    const StatsSlot slot(PipeNamed("parent"));
    ChildProcess child([&](Channel &channel) {
        const StatsSlot own(PipeNamed("child"));
        Stats::Count(own.Pipe()->calls.begun, 3);
        channel.Signal();
        static_cast<void>(channel.Await());
        return 0;
    });
    ASSERT_TRUE(child.Await());
    EXPECT_EQ(2U, StatsFiles().size());
    const auto pipes = StatsSnapshot(StatsFileOf(child.Pid())).Slots(TARVO_STATS_PIPE);
    ASSERT_EQ(1U, pipes.size());
    EXPECT_STREQ("child", pipes.front().name);
    EXPECT_EQ(3U, pipes.front().of.pipe.calls.begun);
    EXPECT_EQ(0U, OwnStats().Slots(TARVO_STATS_PIPE).front().of.pipe.calls.begun);
    EXPECT_TRUE(IsAliveStatsFile(StatsFileOf(child.Pid())));
}

TEST(StatsFork, AChildDoesNotKeepItsParentsFileAlive) {
    TARVO_STATS_OR_SKIP();
    ChildProcess parent([](Channel &channel) {
        const StatsSlot slot(PipeNamed("parent"));
        const pid_t child = fork();
        if (child == 0) {
            pause();
        }
        channel.Send(std::to_string(child));
        static_cast<void>(channel.Await());
        return 0;
    });
    const auto grandchild = parent.ToChild().Receive();
    ASSERT_TRUE(grandchild);
    const std::string path = StatsFileOf(parent.Pid());
    EXPECT_TRUE(IsAliveStatsFile(path));
    parent.Kill();
    parent.Wait();
    // The child closes its descriptor when it first runs.
    EXPECT_TRUE(Eventually([&] { return !IsAliveStatsFile(path); }));
    EXPECT_EQ(0, kill(std::stoi(*grandchild), SIGKILL));
}

TEST(StatsFork, ChildrenOfAProcessWhoseThreadsTakeAndGivePlacesAreWell) {
    TARVO_STATS_OR_SKIP();
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> taken{0};
    std::thread busy([&] {
        while (!stop) {
            const StatsSlot slot(PipeNamed("busy"));
            Stats::Count(slot.Pipe()->calls.begun);
            ++taken;
        }
    });
    for (int i = 0; i < 20; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            const StatsSlot own(PipeNamed("child"));
            _exit(own.Pipe() != nullptr && own.Pipe()->calls.begun == 0 ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    stop = true;
    busy.join();
    uint64_t counted = 0;
    for (const uint32_t kind : {TARVO_STATS_PIPE, TARVO_STATS_GONE}) {
        for (const TarvoStatsSlot &slot : OwnStats().Slots(kind)) {
            counted += slot.of.pipe.calls.begun;
        }
    }
    EXPECT_EQ(taken, counted);
}

} // namespace
