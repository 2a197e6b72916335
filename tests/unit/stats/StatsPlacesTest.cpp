// The places of a file, and how they change hands.
#include <atomic>
#include <thread>

#include "stats/Stats.h"
#include "stats/StatsFile.h"
#include "support/FileFaults.h"
#include "support/Sanitized.h"
#include "support/StatsDirectory.h"
#include "unit/stats/PipeNamed.h"

namespace {

using namespace tarvo_test;

std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const TarvoStatsSlot &slot : OwnStats().Slots(TARVO_STATS_PIPE)) {
        names.emplace_back(slot.name);
    }
    return names;
}

TEST(StatsPlaces, APlaceSaysWhoseItIs) {
    TARVO_STATS_OR_SKIP();
    StatsSlot slot(PipeNamed("me", 77));
    TarvoStatsSlot seen = OwnStats().Slots(TARVO_STATS_PIPE).at(0);
    EXPECT_EQ(2U, seen.sequence);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_LOOP), seen.engine);
    EXPECT_EQ(77, seen.handle);
    EXPECT_STREQ("me", seen.name);
    EXPECT_STREQ("remote", seen.remote);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_OPENING), seen.state);
    EXPECT_EQ(0U, seen.openedAt);
    slot.Opened();
    seen = OwnStats().Slots(TARVO_STATS_PIPE).at(0);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_OPEN), seen.state);
    EXPECT_GT(seen.openedAt, 0U);
    slot.RemoteClosed();
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_REMOTE_CLOSED), OwnStats().Slots(TARVO_STATS_PIPE).at(0).state);
    slot.Closed();
    seen = OwnStats().Slots(TARVO_STATS_PIPE).at(0);
    EXPECT_EQ(static_cast<uint32_t>(TARVO_STATS_CLOSED), seen.state);
    EXPECT_GE(seen.closedAt, seen.openedAt);
    slot.Opening();
    slot.Opened();
    EXPECT_EQ(0U, OwnStats().Slots(TARVO_STATS_PIPE).at(0).closedAt);
}

TEST(StatsPlaces, ANameThatIsTooLongIsCutOff) {
    TARVO_STATS_OR_SKIP();
    const StatsSlot slot(PipeNamed(std::string(200, 'x')));
    EXPECT_EQ(std::string(TARVO_STATS_NAME_SIZE - 1, 'x'), Names().at(0));
}

TEST(StatsPlaces, TheNumbersOfAClosedPipeStayUntilThePlaceIsNeeded) {
    TARVO_STATS_OR_SKIP();
    for (const char *const name : {"a", "b", "c", "d", "e", "f", "g"}) {
        const StatsSlot slot(PipeNamed(name));
        Stats::Count(slot.Pipe()->calls.begun, 10);
        Stats::AtMost(slot.Pipe()->calls.outstanding.most, 3);
        Stats::Time(slot.Pipe()->wait, 1000);
    }
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "d", "e", "f", "g"}), Names());
    EXPECT_EQ(0U, OwnStats().Slots(TARVO_STATS_GONE).at(0).of.pipe.calls.begun);

    // The longest closed goes first.
    const StatsSlot next(PipeNamed("h"));
    const StatsSlot another(PipeNamed("i"));
    EXPECT_EQ((std::vector<std::string>{"h", "i", "c", "d", "e", "f", "g"}), Names());
    const StatsSnapshot file = OwnStats();
    EXPECT_EQ(TARVO_STATS_SLOTS_PER_CHUNK, file.Header().slots);
    EXPECT_EQ(0U, file.Header().folding % 2);
    const TarvoStatsPipe gone = file.Slots(TARVO_STATS_GONE).at(0).of.pipe;
    EXPECT_EQ(20U, gone.calls.begun);
    EXPECT_EQ(3U, gone.calls.outstanding.most);
    EXPECT_EQ(2000U, gone.wait.sum);
    EXPECT_EQ(1000U, gone.wait.longest);
    EXPECT_EQ(2U, gone.wait.buckets[Stats::BucketOf(1000)]);
    const TarvoStatsSlot taken = file.Slots(TARVO_STATS_PIPE).at(0);
    EXPECT_EQ(4U, taken.sequence);
    EXPECT_EQ(0U, taken.of.pipe.calls.begun);
    EXPECT_EQ(0U, taken.closedAt);
}

TEST(StatsPlaces, ServersAndPoolsAreNotAmongThePipesThatAreGone) {
    TARVO_STATS_OR_SKIP();
    {
        const StatsSlot server({TARVO_STATS_SERVER, TARVO_STATS_THREADS, 0, "server", ""});
        Stats::Count(server.Server()->packets, 5);
        const StatsSlot pool({TARVO_STATS_POOL, TARVO_STATS_THREADS, 0, "", ""});
        Stats::Count(pool.Pool()->waited, 5);
    }
    EXPECT_EQ(5U, OwnStats().Slots(TARVO_STATS_SERVER).at(0).of.server.packets);
    std::vector<StatsSlot> slots;
    for (int i = 0; i < 7; ++i) {
        slots.emplace_back(PipeNamed("pipe"));
    }
    EXPECT_TRUE(OwnStats().Slots(TARVO_STATS_SERVER).empty());
    EXPECT_TRUE(OwnStats().Slots(TARVO_STATS_POOL).empty());
    const TarvoStatsSlot none{};
    EXPECT_EQ(0, std::memcmp(&none.of, &OwnStats().Slots(TARVO_STATS_GONE).at(0).of, sizeof(none.of)));
}

TEST(StatsPlaces, ThereIsRoomFor1024Pipes) {
    TARVO_STATS_OR_SKIP();
    std::vector<StatsSlot> slots;
    for (int i = 0; i < 1024; ++i) {
        slots.emplace_back(PipeNamed("pipe" + std::to_string(i), i));
        ASSERT_NE(nullptr, slots.back().Pipe());
        Stats::Count(slots.back().Pipe()->sent.lost, static_cast<uint64_t>(i));
    }
    const StatsSnapshot file = OwnStats();
    ASSERT_TRUE(file.IsWhole());
    const auto pipes = file.Slots(TARVO_STATS_PIPE);
    ASSERT_EQ(1024U, pipes.size());
    for (std::size_t i = 0; i < pipes.size(); ++i) {
        EXPECT_EQ(i, pipes[i].of.pipe.sent.lost);
        EXPECT_EQ("pipe" + std::to_string(i), pipes[i].name);
    }
    EXPECT_EQ(std::filesystem::file_size(StatsFileOf(getpid())),
              TARVO_STATS_HEADER_SIZE + std::size_t{file.Header().slots} * TARVO_STATS_SLOT_SIZE);
}

// What a reader sees of a slot, by the words of the layout: false while it changes.
bool ReadSlot(const TarvoStatsSlot &shared, std::string &name, uint64_t &begun, uint64_t &ended) {
    const uint32_t before = __atomic_load_n(&shared.sequence, __ATOMIC_ACQUIRE);
    char text[TARVO_STATS_NAME_SIZE] = {};
    for (std::size_t i = 0; i < sizeof(text); i += sizeof(uint64_t)) {
        using Word = uint64_t __attribute__((may_alias));
        const Word word = __atomic_load_n(reinterpret_cast<const Word *>(shared.name + i), __ATOMIC_ACQUIRE);
        std::memcpy(text + i, &word, sizeof(word));
    }
    ended = __atomic_load_n(&shared.of.pipe.calls.ended[0], __ATOMIC_ACQUIRE);
    begun = __atomic_load_n(&shared.of.pipe.calls.begun, __ATOMIC_ACQUIRE);
    name = text;
    return before % 2 == 0 && before != 0 && __atomic_load_n(&shared.sequence, __ATOMIC_RELAXED) == before;
}

TEST(StatsPlaces, NothingThatAReaderSeesBelongsToTwoPipes) {
    TARVO_STATS_OR_SKIP();
    StatsFile &file = *StatsFile::Get();
    // In the same memory, where a sanitizer sees both sides.
    const auto *const slots = reinterpret_cast<const TarvoStatsSlot *>(reinterpret_cast<const char *>(&file.Header()) +
                                                                       TARVO_STATS_HEADER_SIZE);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (uint64_t i = 1; !stop; ++i) {
            const StatsSlot slot(PipeNamed(std::string(TARVO_STATS_NAME_SIZE - 1, static_cast<char>('a' + i % 26))));
            // Each name has a number of its own.
            Stats::Count(slot.Pipe()->calls.begun, 'a' + i % 26);
            Stats::Count(slot.Pipe()->calls.ended[0], 'a' + i % 26);
        }
    });
    const int wanted = Rounds(20000, 2000);
    for (int read = 0; read < wanted;) {
        std::string name;
        uint64_t begun = 0;
        uint64_t ended = 0;
        if (!ReadSlot(slots[1 + read % 7], name, begun, ended) && read > 0) {
            continue;
        }
        ++read;
        if (name.empty()) {
            continue;
        }
        ASSERT_EQ(std::string(TARVO_STATS_NAME_SIZE - 1, name[0]), name);
        ASSERT_TRUE(begun == 0 || begun == static_cast<uint64_t>(name[0])) << name << begun;
        ASSERT_LE(ended, begun);
    }
    stop = true;
    writer.join();
}

TEST(StatsPlaces, SumsAreWholeWhilePipesComeAndGo) {
    TARVO_STATS_OR_SKIP();
    constexpr int THREADS = 3;
    const int each = Rounds(3000, 300);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < each; ++n) {
                const StatsSlot slot(PipeNamed("pipe"));
                Stats::Count(slot.Pipe()->requests.begun);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    uint64_t sum = OwnStats().Slots(TARVO_STATS_GONE).at(0).of.pipe.requests.begun;
    for (const TarvoStatsSlot &slot : OwnStats().Slots(TARVO_STATS_PIPE)) {
        sum += slot.of.pipe.requests.begun;
    }
    EXPECT_EQ(static_cast<uint64_t>(THREADS * each), sum);
    EXPECT_EQ(TARVO_STATS_SLOTS_PER_CHUNK, OwnStats().Header().slots);
}

TEST(StatsPlaces, RoomThatIsMadeAheadIsThereForTheNextPipe) {
    TARVO_STATS_OR_SKIP();
    std::vector<StatsSlot> first;
    for (unsigned i = 0; i < TARVO_STATS_SLOTS_PER_CHUNK - 1; ++i) {
        StatsFile::Get()->MakeRoom();
        EXPECT_EQ(TARVO_STATS_SLOTS_PER_CHUNK, OwnStats().Header().slots) << "there was some";
        first.emplace_back(PipeNamed("first"));
    }
    StatsFile::Get()->MakeRoom();
    StatsFile::Get()->MakeRoom();
    EXPECT_EQ(2U * TARVO_STATS_SLOTS_PER_CHUNK, OwnStats().Header().slots);
    const FileFault fault(FileCall::Mmap, ENOMEM); // nothing more is needed
    EXPECT_NE(nullptr, StatsSlot(PipeNamed("next")).Pipe());
}

TEST(StatsPlaces, ASequenceThatEndsBeginsAgainWithoutTheNumberThatSaysNever) {
    TARVO_STATS_OR_SKIP();
    auto *const slots = reinterpret_cast<TarvoStatsSlot *>(reinterpret_cast<char *>(&StatsFile::Get()->Header()) +
                                                           TARVO_STATS_HEADER_SIZE);
    __atomic_store_n(&slots[1].sequence, UINT32_MAX - 1, __ATOMIC_RELAXED);
    const StatsSlot slot(PipeNamed("pipe"));
    EXPECT_EQ(2U, __atomic_load_n(&slots[1].sequence, __ATOMIC_RELAXED));
}

TEST(StatsPlaces, APlaceThatIsNoneTakesEveryStepAndTellsNothing) {
    TARVO_STATS_OR_SKIP(0);
    StatsSlot none(PipeNamed("none"));
    none.Opening();
    none.Opened();
    none.RemoteClosed();
    none.Closed();
    TarvoStatsPipe numbers{};
    EXPECT_FALSE(none.Read(numbers));
    EXPECT_EQ(nullptr, none.Pipe());
}

TEST(StatsPlaces, APipeThatIsClosedStaysClosedWhateverTheRemoteDoes) {
    TARVO_STATS_OR_SKIP();
    StatsSlot slot(PipeNamed("pipe"));
    slot.Opened();
    slot.Closed();
    slot.RemoteClosed();
    EXPECT_EQ(uint32_t{TARVO_STATS_CLOSED}, OwnStats().Slots(TARVO_STATS_PIPE).at(0).state);
}

} // namespace
