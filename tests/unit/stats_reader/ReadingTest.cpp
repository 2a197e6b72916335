// Files as processes write them.
#include <set>

#include "ReaderKit.h"

namespace tarvo_test {
namespace {

using ReadingTest = ReaderTest;

TEST_F(ReadingTest, WhatIsInTheFileIsRead) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(3, "telemetry"));
    TarvoStatsSlot pipe = StatsSlot(TARVO_STATS_PIPE, "telemetry", "client");
    pipe.of.pipe.sent.messages[TARVO_STATS_RESPONSE] = 42;
    file.Set(1, pipe);
    Reader reader(file.Path());
    ASSERT_EQ(reader.Opened(), 0);
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_STREQ(reader.Last().header.process, "telemetry");
    EXPECT_EQ(reader.Last().owner, geteuid());
    ASSERT_EQ(reader.Last().slots, 3U);
    EXPECT_EQ(reader.Last().slot[0].kind, uint32_t{TARVO_STATS_FREE}) << "never used";
    EXPECT_STREQ(reader.Last().slot[1].remote, "client");
    EXPECT_EQ(reader.Last().slot[1].of.pipe.sent.messages[TARVO_STATS_RESPONSE], 42U);
    EXPECT_EQ(reader.Last().inexact, 0U);
    EXPECT_EQ(reader.Last().unreadable, 0U);
    EXPECT_NE(reader.Last().readAt, 0U);
}

TEST_F(ReadingTest, PlaceThatIsNoLongerUsedIsEmptyInTheNextReading) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(1));
    file.Set(0, StatsSlot(TARVO_STATS_PIPE, "telemetry", "client"));
    Reader reader(file.Path());
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_STREQ(reader.Last().slot[0].name, "telemetry");
    file.Set(0, TarvoStatsSlot{});
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_EQ(reader.Last().slot[0].kind, uint32_t{TARVO_STATS_FREE});
    EXPECT_STREQ(reader.Last().slot[0].name, "");
}

TEST_F(ReadingTest, LevelsAreWorkedOutOfTheCounters) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(1));
    TarvoStatsSlot slot = StatsSlot(TARVO_STATS_PIPE, "a", "b");
    slot.of.pipe.received.messages[TARVO_STATS_ONE_WAY] = 10;
    slot.of.pipe.received.messages[TARVO_STATS_CALL] = 20;
    slot.of.pipe.requests.begun = 15;
    slot.of.pipe.requests.dropped[TARVO_STATS_DROP_QUEUE] = 4;
    slot.of.pipe.requests.dropped[TARVO_STATS_DROP_MEMORY] = 1;
    slot.of.pipe.requests.finished = 12;
    slot.of.pipe.requests.running.most = 5;
    slot.of.pipe.calls.begun = 7;
    slot.of.pipe.calls.ended[TARVO_STATS_END_ANSWERED] = 5;
    slot.of.pipe.calls.ended[TARVO_STATS_END_OTHER] = 3;
    file.Set(0, slot);
    Reader reader(file.Path());
    ASSERT_EQ(reader.Read(), 0);
    const TarvoStatsPipe &pipe = reader.Last().slot[0].of.pipe;
    EXPECT_EQ(pipe.requests.queued.now, 10U);
    EXPECT_EQ(pipe.requests.queued.most, 10U) << "never below what is there";
    EXPECT_EQ(pipe.requests.running.now, 3U);
    EXPECT_EQ(pipe.requests.running.most, 5U);
    EXPECT_EQ(pipe.calls.outstanding.now, 0U) << "an end was counted before its begin was";
}

TEST_F(ReadingTest, LockTellsTheLivingFromTheDead) {
    const StatsDirectory directory;
    StatsFile file(directory, "4711", StatsHeader(0, "writer", getpid()));
    Reader reader(file.Path());
    EXPECT_EQ(TarvoStatsAlive(reader.File()), 1);
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_EQ(reader.Last().alive, 1U);
    file.Die();
    EXPECT_EQ(TarvoStatsAlive(reader.File()), 0) << "whatever its process number says";
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_EQ(reader.Last().alive, 0U);
}

TEST_F(ReadingTest, WhoMayOnlyReadMakesNoDeadProcessLookAlive) {
    const StatsDirectory directory;
    StatsFile file(directory, "4711");
    file.Die();
    const int fd = open(file.Path().c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &lock), 0);
    const Reader reader(file.Path());
    EXPECT_EQ(TarvoStatsAlive(reader.File()), 0);
    close(fd);
}

TEST_F(ReadingTest, FileThatGrowsIsReadWhole) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(TARVO_STATS_SLOTS_PER_CHUNK));
    Reader reader(file.Path());
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_EQ(reader.Last().slots, TARVO_STATS_SLOTS_PER_CHUNK);
    constexpr uint32_t MORE = 1024;
    file.Cut(TARVO_STATS_HEADER_SIZE + uint64_t{MORE} * TARVO_STATS_SLOT_SIZE);
    file.Write(StatsHeader(MORE), 0);
    for (uint32_t index = 0; index < MORE; ++index) {
        TarvoStatsSlot slot = StatsSlot(TARVO_STATS_PIPE, "a", "b" + std::to_string(index));
        slot.of.pipe.sent.messages[TARVO_STATS_ONE_WAY] = index;
        file.Set(index, slot);
    }
    ASSERT_EQ(reader.Read(), 0);
    ASSERT_EQ(reader.Last().slots, MORE);
    TarvoStatsPipe sum{};
    TarvoStatsSum(&reader.Last(), &sum);
    EXPECT_EQ(sum.sent.messages[TARVO_STATS_ONE_WAY], MORE * (MORE - 1) / 2);
    EXPECT_STREQ(reader.Last().slot[1023].remote, "b1023");
}

TEST_F(ReadingTest, OneSlotIsReadByItsPlace) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(2));
    file.Set(1, StatsSlot(TARVO_STATS_SERVER, "telemetry"));
    const Reader reader(file.Path());
    TarvoStatsSlot slot{};
    EXPECT_EQ(TarvoStatsReadSlot(reader.File(), 1, &slot), 0);
    EXPECT_STREQ(slot.name, "telemetry");
    EXPECT_EQ(TarvoStatsReadSlot(reader.File(), 2, &slot), -EBADMSG);
    EXPECT_STREQ(slot.name, "telemetry") << "left alone";
}

TEST_F(ReadingTest, SameTellsWhetherASlotWasTakenAgain) {
    const TarvoStatsSlot slot = StatsSlot(TARVO_STATS_PIPE, "a", "b");
    TarvoStatsSlot next = slot;
    EXPECT_TRUE(TarvoStatsSame(&slot, &next));
    next.sequence += 2;
    EXPECT_FALSE(TarvoStatsSame(&slot, &next));
    const TarvoStatsSlot unused{};
    EXPECT_FALSE(TarvoStatsSame(&unused, &unused));
}

TEST_F(ReadingTest, DirectoryIsListedWithoutHiddenNames) {
    const StatsDirectory directory;
    const StatsFile one(directory, "1");
    const StatsFile two(directory, "2");
    const StatsFile hidden(directory, ".new");
    std::set<std::string> names;
    const auto each = [](void *context, int descriptor, const char *name) {
        TarvoStatsFile *file = nullptr;
        EXPECT_EQ(TarvoStatsOpenAt(descriptor, name, &file), 0);
        TarvoStatsClose(file);
        static_cast<std::set<std::string> *>(context)->insert(name);
        return 0;
    };
    EXPECT_EQ(TarvoStatsEach(directory.Path().c_str(), each, &names), 0);
    EXPECT_THAT(names, testing::ElementsAre("1", "2"));
    const auto stop = [](void *, int, const char *) { return 7; };
    EXPECT_EQ(TarvoStatsEach(directory.Path().c_str(), stop, nullptr), 7);
    EXPECT_EQ(TarvoStatsEach("/no/such/directory", stop, nullptr), -ENOENT);
    EXPECT_EQ(TarvoStatsEach(one.Path().c_str(), stop, nullptr), -ENOTDIR);
}

} // namespace
} // namespace tarvo_test
