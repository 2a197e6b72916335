// The file of a process: whether it is made, what it says of its process, and how long it lives.
#include "stats/StatsFile.h"

#include <sys/resource.h>

#include <thread>

#include "stats/Stats.h"
#include "support/Process.h"
#include "support/StatsDirectory.h"
#include "support/SyslogCapture.h"
#include "support/Unprivileged.h"
#include "unit/stats/PipeNamed.h"

namespace {

using namespace tarvo_test;

// Field 22 of /proc/self/stat.
std::string StartTicks() {
    std::ifstream stream("/proc/self/stat");
    std::string word;
    for (int i = 0; i < 22; ++i) {
        stream >> word;
    }
    return word;
}

TEST(StatsFile, IsNotMadeWhereThereIsNoDirectoryAndNobodyLooksAgain) {
    TARVO_STATS_OR_SKIP(0);
    const SyslogCapture log;
    EXPECT_EQ(nullptr, StatsFile::Get());
    ASSERT_EQ(0, mkdir(TARVO_STATS_DIRECTORY, 02770));
    EXPECT_EQ(nullptr, StatsFile::Get());
    StatsSlot slot(PipeNamed("self"));
    EXPECT_EQ(nullptr, slot.Pipe());
    slot.Opened();
    slot.Closed();
    EXPECT_TRUE(StatsFiles().empty());
    EXPECT_TRUE(log.Lines().empty());
}

TEST(StatsFile, SaysWhoseItIs) {
    TARVO_STATS_OR_SKIP();
    ASSERT_NE(nullptr, StatsFile::Get());
    const std::string path = StatsFileOf(getpid());
    EXPECT_EQ(TARVO_STATS_DIRECTORY + ("/" + std::to_string(getpid()) + "." + StartTicks()), path);
    const StatsSnapshot file(path);
    ASSERT_TRUE(file.IsWhole());
    const TarvoStatsHeader header = file.Header();
    EXPECT_EQ(TARVO_STATS_VERSION, header.version);
    EXPECT_EQ(TARVO_STATS_HEADER_SIZE, header.headerSize);
    EXPECT_EQ(TARVO_STATS_SLOT_SIZE, header.slotSize);
    EXPECT_EQ(TARVO_STATS_SLOTS_PER_CHUNK, header.slots);
    EXPECT_EQ(static_cast<uint32_t>(CLOCK_MONOTONIC), header.clock);
    EXPECT_EQ(getpid(), header.pid);
    EXPECT_EQ(Stats::ONE_WAYS_PER_TIME, header.oneWaysPerTime);
    EXPECT_EQ(Stats::CALLS_PER_TIME, header.callsPerTime);
    EXPECT_EQ(StartTicks(), std::to_string(header.startedAt));
    EXPECT_STREQ("unit_stats", header.process);
    EXPECT_LE(header.createdAt, Stats::Now());
    EXPECT_GT(header.createdAt, 0U);
    EXPECT_GT(header.createdWall, header.createdAt);
    EXPECT_EQ(1U, file.Slots(TARVO_STATS_GONE).size());
}

TEST(StatsFile, HasTheModeAndTheGroupOfItsDirectoryWhateverTheMaskIs) {
    TARVO_STATS_OR_SKIP(0770);
    ASSERT_EQ(0, chown(TARVO_STATS_DIRECTORY, 0, 4711));
    umask(0777);
    ASSERT_NE(nullptr, StatsFile::Get());
    struct stat about {};
    ASSERT_EQ(0, stat(StatsFileOf(getpid()).c_str(), &about));
    EXPECT_EQ(0640U, about.st_mode & 07777U);
    EXPECT_EQ(4711U, about.st_gid);
}

TEST(StatsFile, LivesAsLongAsItsProcessAndStaysThereWhenThatIsKilled) {
    TARVO_STATS_OR_SKIP();
    ChildProcess child([](Channel &channel) {
        StatsSlot slot(PipeNamed("victim"));
        Stats::Count(slot.Pipe()->sent.lost, 7);
        // Which would end a lock of the process.
        close(open(StatsFileOf(getpid()).c_str(), O_RDONLY));
        channel.Signal();
        static_cast<void>(channel.Await());
        return 0;
    });
    ASSERT_TRUE(child.Await());
    const std::string path = StatsFileOf(child.Pid());
    EXPECT_TRUE(IsAliveStatsFile(path));
    child.Kill();
    child.Wait();
    EXPECT_FALSE(IsAliveStatsFile(path));
    const auto pipes = StatsSnapshot(path).Slots(TARVO_STATS_PIPE);
    ASSERT_EQ(1U, pipes.size());
    EXPECT_STREQ("victim", pipes.front().name);
    EXPECT_EQ(7U, pipes.front().of.pipe.sent.lost);
}

TEST(StatsFile, IsNotMadeByWhoMayNotWriteThereAndNobodyIsTold) {
    TARVO_STATS_OR_SKIP(0750);
    EXPECT_EQ(0, RunAs(4712, 4712, [] {
                  const SyslogCapture log;
                  return StatsFile::Get() == nullptr && log.Lines().empty() ? 0 : 1;
              }));
    EXPECT_TRUE(StatsFiles().empty());
}

TEST(StatsFile, IsNotMadeThroughALinkWhichIsSaidOnce) {
    TARVO_STATS_OR_SKIP(0);
    ASSERT_EQ(0, mkdir("/dev/shm/elsewhere", 0770));
    ASSERT_EQ(0, symlink("/dev/shm/elsewhere", TARVO_STATS_DIRECTORY));
    const SyslogCapture log;
    EXPECT_EQ(nullptr, StatsFile::Get());
    EXPECT_EQ(nullptr, StatsFile::Get());
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm/elsewhere"));
    EXPECT_EQ(1U, log.Lines().size());
    EXPECT_TRUE(log.Contains(LOG_WARNING, "No statistics file in"));
}

TEST(StatsFile, LeavesWhatStandsUnderItsNameAlone) {
    TARVO_STATS_OR_SKIP();
    const std::string name = TARVO_STATS_DIRECTORY + ("/" + std::to_string(getpid()) + "." + StartTicks());
    std::ofstream("/dev/shm/precious") << "precious";
    ASSERT_EQ(0, symlink("/dev/shm/precious", name.c_str()));
    const SyslogCapture log;
    EXPECT_EQ(nullptr, StatsFile::Get());
    EXPECT_EQ(8U, std::filesystem::file_size("/dev/shm/precious"));
    EXPECT_TRUE(std::filesystem::is_symlink(name));
    EXPECT_EQ(1U, log.Lines().size());
}

TEST(StatsFile, LeavesAnothersFileUnderItsNameAlone) {
    TARVO_STATS_OR_SKIP();
    const std::string name = TARVO_STATS_DIRECTORY + ("/" + std::to_string(getpid()) + "." + StartTicks());
    std::ofstream(name) << "another's";
    ASSERT_EQ(0, chown(name.c_str(), 4712, 4712));
    EXPECT_EQ(nullptr, StatsFile::Get());
    EXPECT_EQ(9U, std::filesystem::file_size(name));
}

TEST(StatsFile, TakesThePlaceOfTheOneFromBeforeAnExec) {
    TARVO_STATS_OR_SKIP();
    const std::string name = TARVO_STATS_DIRECTORY + ("/" + std::to_string(getpid()) + "." + StartTicks());
    std::ofstream(name) << "of the program before";
    ASSERT_NE(nullptr, StatsFile::Get());
    EXPECT_EQ(std::vector<std::string>{name}, StatsFiles());
    EXPECT_TRUE(StatsSnapshot(name).IsWhole());
}

TEST(StatsFile, IsNotMadeWhereThereIsNoSpaceWhichIsSaidOnce) {
    TARVO_STATS_OR_SKIP(02770, "size=16k");
    const SyslogCapture log;
    EXPECT_EQ(nullptr, StatsFile::Get());
    EXPECT_TRUE(StatsFiles().empty());
    StatsSlot slot(PipeNamed("self"));
    EXPECT_EQ(nullptr, slot.Pipe());
    EXPECT_EQ(1U, log.Lines().size());
}

TEST(StatsFile, LeavesTheLastQuarterOfTheFileSystemFree) {
    TARVO_STATS_OR_SKIP(02770, "size=80k"); // two chunks without it
    std::vector<StatsSlot> slots;
    for (int i = 0; i < 7; ++i) {
        slots.emplace_back(PipeNamed("fits"));
        ASSERT_NE(nullptr, slots.back().Pipe());
    }
    EXPECT_EQ(nullptr, StatsSlot(PipeNamed("too much")).Pipe());
    EXPECT_EQ(TARVO_STATS_SLOTS_PER_CHUNK, OwnStats().Header().slots);
}

TEST(StatsFile, IsNotMadeWhereFilesMayNotBeThatLarge) {
    TARVO_STATS_OR_SKIP();
    rlimit usual{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &usual));
    const rlimit little{4096, usual.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &little));
    EXPECT_EQ(nullptr, StatsFile::Get());
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &usual)); // what the test writes at its end may be larger
    EXPECT_TRUE(StatsFiles().empty());
}

TEST(StatsFile, WhatDoesNotFitAnyMoreIsNotCountedWhichIsSaidOnce) {
    TARVO_STATS_OR_SKIP(02770, "size=108k"); // two chunks, and the quarter that stays free
    const SyslogCapture log;
    std::vector<StatsSlot> slots;
    for (int i = 0; i < 15; ++i) {
        slots.emplace_back(PipeNamed("fits"));
        ASSERT_NE(nullptr, slots.back().Pipe());
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(nullptr, StatsSlot(PipeNamed("too much")).Pipe());
    }
    for (const StatsSlot &slot : slots) {
        Stats::Count(slot.Pipe()->calls.begun);
    }
    const StatsSnapshot file = OwnStats();
    ASSERT_TRUE(file.IsWhole());
    EXPECT_EQ(16U, file.Header().slots);
    EXPECT_EQ(3U, file.Header().uncounted);
    EXPECT_EQ(15U, file.Slots(TARVO_STATS_PIPE).size());
    ASSERT_EQ(1U, log.Lines().size());
    EXPECT_TRUE(log.Contains(LOG_WARNING, "No room in the statistics file, err = -28, too much=>remote"));
    slots.pop_back();
    EXPECT_NE(nullptr, StatsSlot(PipeNamed("fits again")).Pipe());
}

TEST(StatsFile, IsMadeOnceByThreadsThatComeTogether) {
    TARVO_STATS_OR_SKIP();
    std::vector<std::thread> threads;
    std::atomic<int> counted{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] { counted += StatsFile::Get() != nullptr ? 1 : 0; });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(8, counted);
    EXPECT_EQ(1U, StatsFiles().size());
}

} // namespace
