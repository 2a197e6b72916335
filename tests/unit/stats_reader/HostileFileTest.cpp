// Files that no process of ours writes.
#include <functional>
#include <ostream>

#include "ReaderKit.h"
#include "support/Unprivileged.h"

namespace tarvo_test {
namespace {

using HostileFileTest = ReaderTest;

int OpenResult(const std::string &path) { return Reader(path).Opened(); }

TEST_F(HostileFileTest, WhatIsNoRegularFileIsNotOpenedAndNotWaitedFor) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711");
    ASSERT_EQ(symlink("4711", directory.File("link").c_str()), 0);
    ASSERT_EQ(mkfifo(directory.File("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(directory.File("folder").c_str(), 0700), 0);
    EXPECT_EQ(OpenResult(directory.File("link")), -ELOOP);
    EXPECT_EQ(OpenResult(directory.File("fifo")), -EBADMSG);
    EXPECT_EQ(OpenResult(directory.File("folder")), -EBADMSG);
    EXPECT_EQ(OpenResult(directory.File("none")), -ENOENT);
    EXPECT_EQ(OpenResult("/dev/zero"), -EBADMSG);
}

TEST_F(HostileFileTest, NameLeadsOutOfNoDirectory) {
    const StatsDirectory directory;
    const StatsFile outside(directory, "4711");
    ASSERT_EQ(mkdir(directory.File("folder").c_str(), 0700), 0);
    const int fd = open(directory.File("folder").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    TarvoStatsFile *file = nullptr;
    EXPECT_EQ(TarvoStatsOpenAt(fd, "../4711", &file), -EINVAL);
    EXPECT_EQ(TarvoStatsOpenAt(fd, outside.Path().c_str(), &file), -EINVAL);
    EXPECT_EQ(TarvoStatsOpenAt(fd, "", &file), -EINVAL);
    EXPECT_EQ(TarvoStatsOpenAt(fd, "..", &file), -EBADMSG);
    close(fd);
}

TEST_F(HostileFileTest, AnotherUsersFileIsRefusedWithoutTheRightToIt) {
    TARVO_SKIP_UNLESS_ROOT();
    const StatsDirectory directory(0755);
    const StatsFile file(directory, "4711");
    EXPECT_EQ(RunAs(65534, 65534, [&] { return OpenResult(file.Path()) == -EACCES ? 0 : 1; }), 0);
}

struct WrongHeader {
    const char *name;
    int result;
    std::function<void(TarvoStatsHeader &)> make;
};

void PrintTo(const WrongHeader &wrong, std::ostream *out) { *out << wrong.name; }

class WrongHeaderTest : public ReaderTest, public testing::WithParamInterface<WrongHeader> {};

TEST_P(WrongHeaderTest, IsRefusedAtTheOpenAndLaterOn) {
    const StatsDirectory directory;
    TarvoStatsHeader header = StatsHeader(2);
    GetParam().make(header);
    const StatsFile wrong(directory, "wrong");
    wrong.Cut(TARVO_STATS_HEADER_SIZE + 2 * TARVO_STATS_SLOT_SIZE);
    wrong.Write(header, 0);
    EXPECT_EQ(OpenResult(wrong.Path()), GetParam().result);

    const StatsFile file(directory, "later", StatsHeader(2));
    Reader reader(file.Path());
    ASSERT_EQ(reader.Read(), 0);
    file.Write(header, 0);
    EXPECT_EQ(reader.Read(), GetParam().result);
    TarvoStatsSlot slot{};
    EXPECT_EQ(TarvoStatsReadSlot(reader.File(), 0, &slot), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Hostile, WrongHeaderTest,
    testing::Values(
        WrongHeader{"magic", -EBADMSG, [](TarvoStatsHeader &header) { header.magic = 0; }},
        WrongHeader{"version", -EPROTONOSUPPORT, [](TarvoStatsHeader &header) { header.version = 1; }},
        WrongHeader{"versionNone", -EPROTONOSUPPORT, [](TarvoStatsHeader &header) { header.version = 0; }},
        WrongHeader{"headerSize", -EBADMSG, [](TarvoStatsHeader &header) { header.headerSize = 0; }},
        WrongHeader{"headerSizeLargest", -EBADMSG, [](TarvoStatsHeader &header) { header.headerSize = UINT32_MAX; }},
        WrongHeader{"slotSize", -EBADMSG, [](TarvoStatsHeader &header) { header.slotSize = 4607; }},
        WrongHeader{"slotSizeNone", -EBADMSG, [](TarvoStatsHeader &header) { header.slotSize = 0; }},
        WrongHeader{"slotsBeyondTheFile", -EBADMSG, [](TarvoStatsHeader &header) { header.slots = 3; }},
        WrongHeader{"slotsLargest", -EBADMSG, [](TarvoStatsHeader &header) { header.slots = UINT32_MAX; }},
        WrongHeader{"clock", -EBADMSG, [](TarvoStatsHeader &header) { header.clock = CLOCK_REALTIME; }},
        WrongHeader{"process", -EBADMSG,
                    [](TarvoStatsHeader &header) { std::memset(header.process, 'x', sizeof(header.process)); }}),
    [](const auto &tried) { return std::string(tried.param.name); });

TEST_F(HostileFileTest, MoreSlotsThanAreAllowedAreRefusedAlthoughTheFileHasThem) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711");
    file.Cut(TARVO_STATS_HEADER_SIZE + uint64_t{TARVO_STATS_MAX_SLOTS + 1} * TARVO_STATS_SLOT_SIZE); // holes
    file.Write(StatsHeader(TARVO_STATS_MAX_SLOTS + 1), 0);
    EXPECT_EQ(OpenResult(file.Path()), -EBADMSG);
}

TEST_F(HostileFileTest, FileThatIsCutOffWhileItIsReadRaisesNoSignal) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(8));
    Reader reader(file.Path());
    ASSERT_EQ(reader.Read(), 0);
    for (const uint64_t size : {uint64_t{TARVO_STATS_HEADER_SIZE + 100}, uint64_t{10}, uint64_t{0}}) {
        file.Cut(size);
        EXPECT_EQ(reader.Read(), -EBADMSG);
        EXPECT_EQ(OpenResult(file.Path()), -EBADMSG);
    }
}

TEST_F(HostileFileTest, SlotThatIsChangedForEverIsLeftOut) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(2));
    TarvoStatsSlot odd = StatsSlot(TARVO_STATS_PIPE, "a", "b");
    odd.sequence = 3;
    file.Set(0, odd);
    file.Set(1, StatsSlot(TARVO_STATS_PIPE, "a", "c"));
    Reader reader(file.Path());
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_EQ(reader.Last().unreadable, 1U);
    EXPECT_EQ(reader.Last().slot[0].kind, uint32_t{TARVO_STATS_FREE});
    EXPECT_STREQ(reader.Last().slot[1].remote, "c");
    TarvoStatsSlot slot{};
    EXPECT_EQ(TarvoStatsReadSlot(reader.File(), 0, &slot), -EAGAIN);
}

TEST_F(HostileFileTest, NumbersThatMoveForEverAreTold) {
    const StatsDirectory directory;
    TarvoStatsHeader header = StatsHeader(1);
    header.folding = 1;
    StatsFile file(directory, "4711", header);
    file.Set(0, StatsSlot(TARVO_STATS_PIPE, "a", "b"));
    Reader reader(file.Path());
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_EQ(reader.Last().inexact, 1U);
    file.Die();
    ASSERT_EQ(reader.Read(), 0) << "killed in the middle";
    EXPECT_EQ(reader.Last().inexact, 1U);
    EXPECT_STREQ(reader.Last().slot[0].remote, "b");
}

TEST_F(HostileFileTest, SlotsThatHoldNonsenseAreLeftOut) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(6));
    std::vector<TarvoStatsSlot> slots(6, StatsSlot(TARVO_STATS_PIPE, "a", "b"));
    slots[0].kind = 77;
    slots[1].engine = 2;
    slots[2].state = UINT32_MAX;
    std::memset(slots[3].name, 'n', sizeof(slots[3].name));
    std::memset(slots[4].remote, 'r', sizeof(slots[4].remote));
    for (uint32_t index = 0; index < slots.size(); ++index) {
        file.Set(index, slots[index]);
    }
    Reader reader(file.Path());
    ASSERT_EQ(reader.Read(), 0);
    EXPECT_EQ(reader.Last().unreadable, 5U);
    for (uint32_t index = 0; index < 5; ++index) {
        EXPECT_EQ(reader.Last().slot[index].kind, uint32_t{TARVO_STATS_FREE});
        EXPECT_STREQ(reader.Last().slot[index].name, "");
    }
    EXPECT_STREQ(reader.Last().slot[5].name, "a");
}

} // namespace
} // namespace tarvo_test
