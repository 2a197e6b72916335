// What a process does that cannot have its file, or no more of it: it counts nothing more, says so where somebody would
// want to know, leaves nothing half made, and goes on.
#include <sys/resource.h>

#include <string>
#include <vector>

#include "stats/Stats.h"
#include "stats/StatsFile.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/FileFaults.h"
#include "support/Process.h"
#include "support/StatsDirectory.h"
#include "support/SyslogCapture.h"
#include "unit/stats/PipeNamed.h"

namespace {

using namespace tarvo_test;

constexpr int PLACES = TARVO_STATS_SLOTS_PER_CHUNK - 1; // of the first chunk, one of which is taken

// That nothing is counted, which is said once with this error, or not at all when it is 0.
void ExpectNoFile(int error) {
    const SyslogCapture log;
    EXPECT_EQ(nullptr, StatsFile::Get());
    EXPECT_EQ(nullptr, StatsFile::Get());
    EXPECT_EQ(nullptr, StatsSlot(PipeNamed("pipe")).Pipe());
    EXPECT_TRUE(StatsFiles().empty());
    if (error == 0) {
        EXPECT_TRUE(log.Lines().empty());
        return;
    }
    EXPECT_EQ(1U, log.Lines().size());
    EXPECT_TRUE(log.Contains(LOG_WARNING, "err = -" + std::to_string(error) + ", nothing is counted"));
}

TEST(StatsFaults, ADirectoryThatCannotBeOpenedForWantOfDescriptorsIsTakenForNone) {
    TARVO_STATS_OR_SKIP();
    const ScopedFault fault(Call::Open, EMFILE, Where().Path(TARVO_STATS_DIRECTORY));
    ExpectNoFile(0);
    EXPECT_EQ(1U, fault.Hits());
}

TEST(StatsFaults, AProcessThatCannotAskForItsStartIsNotCounted) {
    TARVO_STATS_OR_SKIP();
    const ScopedFault fault(Call::Open, EMFILE, Where().Path("/proc/self/stat"));
    ExpectNoFile(EMFILE);
}

TEST(StatsFaults, AProcessThatIsNotToldItsStartIsNotCounted) {
    TARVO_STATS_OR_SKIP();
    const ScopedFault fault(Call::Read, EIO, Where().ThisThread());
    ExpectNoFile(EIO);
    EXPECT_EQ(1U, fault.Hits());
}

class UnusualLine : public testing::TestWithParam<const char *> {};

TEST_P(UnusualLine, OfTheKernelsIsNoProcess) {
    TARVO_STATS_OR_SKIP();
    const std::string line = GetParam();
    const auto read = [&line](const CallInfo &info) {
        return std::make_optional(Outcome{static_cast<long>(line.copy(static_cast<char *>(info.data), info.size))});
    };
    const ScopedHook hook(Call::Read, read, Where().ThisThread());
    ExpectNoFile(0);
    EXPECT_EQ(1U, hook.Hits());
}

INSTANTIATE_TEST_SUITE_P(Each, UnusualLine,
                         testing::Values("", "1 name) S 1 2", "1 (name S 1 2", "1 )name( S 1 2", "1 (name) S 1 2 3",
                                         "1 (name) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 0 20"));

TEST(StatsFaults, ANameWithSpacesAndParenthesesIsRead) {
    TARVO_STATS_OR_SKIP();
    const std::string line = "1 (a) b (c) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 4711 20";
    const auto read = [&line](const CallInfo &info) {
        return std::make_optional(Outcome{static_cast<long>(line.copy(static_cast<char *>(info.data), info.size))});
    };
    const ScopedHook hook(Call::Read, read, Where().ThisThread());
    ASSERT_NE(nullptr, StatsFile::Get());
    EXPECT_STREQ("a) b (c", OwnStats().Header().process);
    EXPECT_EQ(4711U, OwnStats().Header().startedAt);
}

TEST(StatsFaults, AFileThatCannotBeLockedIsTakenAwayAgain) {
    TARVO_STATS_OR_SKIP();
    const ScopedFault fault(Call::Fcntl, ENOLCK, Where().ThisThread());
    ExpectNoFile(ENOLCK);
    EXPECT_EQ(1U, fault.Hits());
}

TEST(StatsFaults, AFileThatCannotBeMappedIsTakenAwayAgain) {
    TARVO_STATS_OR_SKIP();
    const FileFault fault(FileCall::Mmap, ENOMEM);
    ExpectNoFile(ENOMEM);
}

TEST(StatsFaults, AFileOfTheSameNameThatAnotherHoldsIsLeftAlone) {
    TARVO_STATS_OR_SKIP();
    std::string line;
    std::getline(std::ifstream("/proc/self/stat"), line);
    const pid_t parent = getpid();
    ChildProcess holder([&](Channel &channel) {
        // Under the name of its parent, which has no file yet.
        StatsFile::Get();
        const std::string own = StatsFileOf(getpid());
        const std::string ticks = line.substr(line.rfind(')'));
        std::size_t at = 0;
        for (int field = 0; field < 20; ++field) {
            at = ticks.find(' ', at + 1);
        }
        const std::string name = std::to_string(parent) + "." + std::to_string(std::stoull(ticks.substr(at)));
        std::filesystem::rename(own, TARVO_STATS_DIRECTORY + ("/" + name));
        channel.Signal();
        return channel.Await() ? 0 : 1;
    });
    ASSERT_TRUE(holder.Await());
    const SyslogCapture log;
    EXPECT_EQ(nullptr, StatsFile::Get());
    EXPECT_TRUE(log.Contains(LOG_WARNING, "err = -17, nothing is counted"));
    const StatsSnapshot left(StatsFileOf(parent));
    ASSERT_TRUE(left.IsWhole());
    EXPECT_EQ(holder.Pid(), left.Header().pid);
    holder.Signal();
    EXPECT_EQ(0, holder.Wait());
}

TEST(StatsFaults, WithoutMemoryNothingIsCountedAndNothingHalfMadeStays) {
    TARVO_STATS_OR_SKIP();
    bool over = false;
    for (unsigned nth = 1; !over; ++nth) {
        ASSERT_LT(nth, 50U);
        ChildProcess child([&](Channel &) {
            bool hit = false;
            {
                const AllocFault fault(nth);
                StatsFile::Get();
                hit = fault.Hit();
            }
            if ((StatsFile::Get() == nullptr) != StatsFiles().empty() || (!hit && StatsFile::Get() == nullptr)) {
                return 1;
            }
            return hit ? 0 : 2;
        });
        const int result = child.Wait();
        EXPECT_NE(1, result) << nth;
        over = result != 0;
        for (const std::string &path : StatsFiles()) {
            std::filesystem::remove(path);
        }
    }
}

std::vector<StatsSlot> FullChunk() {
    std::vector<StatsSlot> slots;
    for (int i = 0; i < PLACES; ++i) {
        slots.emplace_back(PipeNamed("first"));
    }
    return slots;
}

// The pipe of the next chunk is not counted, those of the first go on, and what is missing is there later.
void ExpectRefusedGrowth(const std::vector<StatsSlot> &first, const SyslogCapture &log, int error) {
    Stats::Count(first.back().Pipe()->calls.begun);
    EXPECT_TRUE(log.Contains(LOG_WARNING, "No room in the statistics file, err = -" + std::to_string(error)));
    const StatsSnapshot file = OwnStats();
    ASSERT_TRUE(file.IsWhole());
    EXPECT_EQ(TARVO_STATS_SLOTS_PER_CHUNK, file.Header().slots);
    EXPECT_EQ(1U, file.Header().uncounted);
    EXPECT_EQ(1U, file.Slots(TARVO_STATS_PIPE).back().of.pipe.calls.begun);
    const StatsSlot later(PipeNamed("later"));
    EXPECT_NE(nullptr, later.Pipe());
    EXPECT_EQ(2U * TARVO_STATS_SLOTS_PER_CHUNK, OwnStats().Header().slots);
}

TEST(StatsFaults, APipeForWhichNothingCanBeMappedIsNotCounted) {
    TARVO_STATS_OR_SKIP();
    const SyslogCapture log;
    const std::vector<StatsSlot> first = FullChunk();
    {
        const FileFault fault(FileCall::Mmap, ENOMEM);
        EXPECT_EQ(nullptr, StatsSlot(PipeNamed("refused")).Pipe());
    }
    ExpectRefusedGrowth(first, log, ENOMEM);
}

TEST(StatsFaults, APipeForWhichThereIsNoMemoryIsNotCounted) {
    TARVO_STATS_OR_SKIP();
    const SyslogCapture log;
    const std::vector<StatsSlot> first = FullChunk();
    {
        const AllocFault fault(1);
        EXPECT_EQ(nullptr, StatsSlot(PipeNamed("refused")).Pipe());
        EXPECT_TRUE(fault.Hit());
    }
    ExpectRefusedGrowth(first, log, ENOMEM);
}

TEST(StatsFaults, APipeBeyondTheLargestSizeOfFilesIsNotCounted) {
    TARVO_STATS_OR_SKIP();
    const SyslogCapture log;
    const std::vector<StatsSlot> first = FullChunk();
    rlimit usual{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &usual));
    const rlimit enough{TARVO_STATS_HEADER_SIZE + TARVO_STATS_SLOTS_PER_CHUNK * TARVO_STATS_SLOT_SIZE, usual.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &enough));
    EXPECT_EQ(nullptr, StatsSlot(PipeNamed("refused")).Pipe());
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &usual));
    ExpectRefusedGrowth(first, log, EFBIG);
}

} // namespace
