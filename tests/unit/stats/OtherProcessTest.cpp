// A file whose writer is another process, as a reader's nearly always is: whatever the moment, and when it is killed.
#include <algorithm>

#include "stats/Stats.h"
#include "stats/StatsFile.h"
#include "support/Process.h"
#include "support/Sanitized.h"
#include "support/StatsDirectory.h"

namespace {

using namespace tarvo_test;

StatsIdentity PipeOf(std::string_view name, int64_t handle) {
    return {TARVO_STATS_PIPE, TARVO_STATS_THREADS, handle, name, name};
}

// The file of a child, open for reading, and the last reading of it.
class ChildsFile {
public:
    explicit ChildsFile(pid_t pid) { EXPECT_EQ(0, TarvoStatsOpen(StatsFileOf(pid).c_str(), &file)); }
    ~ChildsFile() {
        TarvoStatsFree(&reading);
        TarvoStatsClose(file);
    }
    ChildsFile(const ChildsFile &) = delete;
    ChildsFile &operator=(const ChildsFile &) = delete;

    const TarvoStatsReading &Read() {
        EXPECT_EQ(0, TarvoStatsRead(file, &reading));
        return reading;
    }
    TarvoStatsPipe Sum() const {
        TarvoStatsPipe sum{};
        TarvoStatsSum(&reading, &sum);
        return sum;
    }

private:
    TarvoStatsFile *file = nullptr;
    TarvoStatsReading reading{};
};

// Opens and closes one pipe after the other, each with a name of one letter and with numbers of its own, for ever. The
// words of the first thread and those of the others are both used.
int ComeAndGo(Channel &parent) {
    for (uint64_t i = 0;; ++i) {
        const uint64_t letter = 'a' + i % 26;
        const std::string name(TARVO_STATS_NAME_SIZE - 1, static_cast<char>(letter));
        const StatsSlot slot(PipeOf(name, static_cast<int64_t>(letter)));
        TarvoStatsPipe &pipe = *slot.Pipe();
        Stats::CountAlone(pipe.calls.firstBegun, letter);
        Stats::CountAlone(pipe.calls.firstAnswered, letter);
        Stats::Count(pipe.sent.messages[TARVO_STATS_CALL], 1);
        Stats::CountAlone(pipe.sent.firstMessages[TARVO_STATS_CALL], 2);
        Stats::Count(pipe.callback.buckets[TARVO_STATS_BUCKETS - 1], letter);
        if (i == 0 && !parent.Signal()) {
            return 1;
        }
    }
}

void ExpectOfOnePipe(const TarvoStatsSlot &slot) {
    const auto letter = static_cast<uint64_t>(slot.handle);
    const std::string name(TARVO_STATS_NAME_SIZE - 1, static_cast<char>(letter));
    const TarvoStatsPipe &pipe = slot.of.pipe;
    ASSERT_EQ(name, slot.name);
    ASSERT_EQ(name, slot.remote);
    ASSERT_TRUE(pipe.calls.begun == 0 || pipe.calls.begun == letter) << name[0] << pipe.calls.begun;
    ASSERT_LE(pipe.calls.ended[TARVO_STATS_END_ANSWERED], letter);
    ASSERT_LE(pipe.sent.messages[TARVO_STATS_CALL], 3U);
    const uint64_t last = pipe.callback.buckets[TARVO_STATS_BUCKETS - 1];
    ASSERT_TRUE(last == 0 || last == letter) << name[0] << last;
    ASSERT_EQ(0U, pipe.calls.firstBegun + pipe.calls.firstAnswered + pipe.sent.firstMessages[TARVO_STATS_CALL]);
}

// Reads until it has been told the truth so many times. The sum of the last exact reading.
uint64_t ReadOften(ChildsFile &file, int readings) {
    uint64_t sent = 0;
    for (int exact = 0; exact < readings;) {
        const TarvoStatsReading &reading = file.Read();
        EXPECT_EQ(1U, reading.alive);
        for (uint32_t index = 0; index < reading.slots; ++index) {
            if (reading.slot[index].kind == TARVO_STATS_PIPE) {
                ExpectOfOnePipe(reading.slot[index]);
            }
        }
        if (testing::Test::HasFailure()) {
            return sent;
        }
        if (reading.inexact == 0 && reading.unreadable == 0) {
            ++exact;
            const uint64_t now = file.Sum().sent.messages[TARVO_STATS_CALL];
            EXPECT_GE(now, sent) << "no sum runs backwards";
            sent = now;
        }
    }
    return sent;
}

TEST(StatsOtherProcess, NothingThatAReaderSeesBelongsToTwoPipes) {
    TARVO_STATS_OR_SKIP();
    ChildProcess writer(ComeAndGo);
    ASSERT_TRUE(writer.Await());
    ChildsFile file(writer.Pid());
    EXPECT_GT(ReadOften(file, Rounds(500, 50)), 0U);
}

// Whatever it was in the middle of: what can be read is of one pipe, and stays as it is.
TEST(StatsOtherProcess, WhatAKilledWriterLeavesIsWholeWheneverItIsKilled) {
    TARVO_STATS_OR_SKIP();
    for (int kill = 0; kill < Rounds(20, 5); ++kill) {
        ChildProcess writer(ComeAndGo);
        ASSERT_TRUE(writer.Await());
        ChildsFile file(writer.Pid());
        const uint64_t seen = ReadOften(file, 1 + kill % 3);
        writer.Kill();
        writer.Wait();
        const TarvoStatsReading &left = file.Read();
        EXPECT_EQ(0U, left.alive);
        EXPECT_LE(left.unreadable, 1U) << "the one that it was changing";
        for (uint32_t index = 0; index < left.slots; ++index) {
            if (left.slot[index].kind == TARVO_STATS_PIPE) {
                ASSERT_NO_FATAL_FAILURE(ExpectOfOnePipe(left.slot[index]));
            }
        }
        const uint64_t sent = file.Sum().sent.messages[TARVO_STATS_CALL];
        if (left.inexact == 0 && left.unreadable == 0) {
            EXPECT_GE(sent, seen);
        }
        file.Read();
        EXPECT_EQ(sent, file.Sum().sent.messages[TARVO_STATS_CALL]) << "nothing moves any more";
        std::filesystem::remove(StatsFileOf(writer.Pid()));
    }
}

// Of 1024 at once, and of the sums of as many that have made way for them.
TEST(StatsOtherProcess, AThousandAndTwentyFourPipesAreReadAtOnce) {
    TARVO_STATS_OR_SKIP();
    constexpr uint64_t PIPES = 1024;
    ChildProcess writer([](Channel &parent) {
        for (uint64_t round = 0; round < 2; ++round) {
            std::vector<StatsSlot> slots;
            for (uint64_t i = 0; i < PIPES; ++i) {
                slots.emplace_back(PipeOf("pipe" + std::to_string(i), static_cast<int64_t>(i)));
                Stats::CountAlone(slots.back().Pipe()->sent.firstBytes[0], i);
            }
            if (round == 1) {
                parent.Signal();
                return parent.Await() ? 0 : 1;
            }
        }
        return 1;
    });
    ASSERT_TRUE(writer.Await());
    ChildsFile file(writer.Pid());
    const TarvoStatsReading &reading = file.Read();
    uint64_t pipes = 0;
    for (uint32_t index = 0; index < reading.slots; ++index) {
        const TarvoStatsSlot &slot = reading.slot[index];
        if (slot.kind == TARVO_STATS_PIPE) {
            pipes += slot.state == TARVO_STATS_CLOSED ? 0 : 1;
            EXPECT_EQ("pipe" + std::to_string(slot.handle), slot.name);
            EXPECT_EQ(static_cast<uint64_t>(slot.handle), slot.of.pipe.sent.bytes[0]);
        }
    }
    EXPECT_EQ(PIPES, pipes);
    EXPECT_LE(reading.slots, PIPES + TARVO_STATS_SLOTS_PER_CHUNK) << "the first ones have made way";
    EXPECT_EQ(PIPES * (PIPES - 1), file.Sum().sent.bytes[0]);
    EXPECT_EQ(0U, reading.header.uncounted);
    writer.Signal();
    EXPECT_EQ(0, writer.Wait());
}

} // namespace
