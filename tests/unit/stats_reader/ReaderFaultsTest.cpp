// System calls that fail under the reader, or do less than they were asked for.
#include <algorithm>
#include <optional>

#include "ReaderKit.h"
#include "support/Faults.h"
#include "support/FileFaults.h"

namespace tarvo_test {
namespace {

using ReaderFaultsTest = ReaderTest;

int Ignore(void *, int, const char *) { return 0; }

// A file with something in each kind of place.
class Written {
public:
    Written() : file_(directory_, "4711", StatsHeader(4)) {
        file_.Set(0, StatsSlot(TARVO_STATS_GONE, ""));
        TarvoStatsSlot pipe = StatsSlot(TARVO_STATS_PIPE, "writer", "client");
        pipe.of.pipe.calls.begun = 7;
        file_.Set(2, pipe);
    }
    const StatsFile &File() const { return file_; }
    const StatsDirectory &Directory() const { return directory_; }

private:
    const StatsDirectory directory_;
    const StatsFile file_;
};

TEST_F(ReaderFaultsTest, ReadThatFailsIsToldWhicheverItIs) {
    const Written written;
    unsigned failed = 0;
    for (bool over = false; !over; ++failed) {
        ASSERT_LT(failed, 100U);
        const ScopedFault fault(Call::Read, EIO, Where().Nth(failed + 1).ThisThread());
        Reader reader(written.File().Path());
        const int read = reader.Opened() == 0 ? reader.Read() : reader.Opened();
        over = fault.Hits() == 0;
        EXPECT_EQ(read, over ? 0 : -EIO) << failed;
    }
    EXPECT_GE(failed, 2U + 2U + 4U) << "the header twice, each place, the end";
}

TEST_F(ReaderFaultsTest, ReadOfOneSlotThatFailsIsToldWhicheverItIs) {
    const Written written;
    const Reader reader(written.File().Path());
    unsigned failed = 0;
    for (bool over = false; !over; ++failed) {
        ASSERT_LT(failed, 100U);
        const ScopedFault fault(Call::Read, EIO, Where().Nth(failed + 1).ThisThread());
        TarvoStatsSlot slot{};
        const int read = TarvoStatsReadSlot(reader.File(), 2, &slot);
        over = fault.Hits() == 0;
        EXPECT_EQ(read, over ? 0 : -EIO) << failed;
        EXPECT_EQ(slot.of.pipe.calls.begun, over ? 7U : 0U) << "half a slot is none";
    }
}

TEST_F(ReaderFaultsTest, InterruptedReadIsRepeated) {
    const Written written;
    const ScopedFault fault(Call::Read, EINTR, Where().Times(3).ThisThread());
    Reader reader(written.File().Path());
    EXPECT_EQ(reader.Read(), 0);
    EXPECT_EQ(fault.Hits(), 3U);
}

TEST_F(ReaderFaultsTest, ReadThatBringsLessGoesOnWhereItEnded) {
    const Written written;
    Reader reader(written.File().Path());
    {
        const auto less = [](const CallInfo &info) {
            return std::make_optional(
                Outcome{pread(info.fd, info.data, std::min<std::size_t>(info.size, 100), info.number)});
        };
        const ScopedHook hook(Call::Read, less, Where().Always().ThisThread());
        EXPECT_EQ(reader.Read(), 0);
    }
    EXPECT_STREQ(reader.Last().slot[2].remote, "client");
    EXPECT_EQ(reader.Last().slot[2].of.pipe.calls.begun, 7U);
}

TEST_F(ReaderFaultsTest, HeaderThatIsAnothersAtTheSecondLookIsRefused) {
    const Written written;
    Reader reader(written.File().Path());
    const auto spoil = [](const CallInfo &info) {
        const ssize_t size = pread(info.fd, info.data, info.size, info.number);
        std::memset(info.data, 0, sizeof(uint64_t));
        return std::make_optional(Outcome{size});
    };
    const ScopedHook hook(Call::Read, spoil, Where().Nth(2).ThisThread());
    EXPECT_EQ(reader.Read(), -EBADMSG);
}

TEST_F(ReaderFaultsTest, FileThatTellsNothingOfItselfIsNotRead) {
    const Written written;
    Reader reader(written.File().Path());
    for (const unsigned nth : {1U, 2U}) {
        const ScopedFault fault(Call::Fstat, EOVERFLOW, Where().Nth(nth).ThisThread());
        EXPECT_EQ(Reader(written.File().Path()).Opened(), -EOVERFLOW) << nth;
    }
    const ScopedFault fault(Call::Fstat, EOVERFLOW, Where().ThisThread());
    EXPECT_EQ(reader.Read(), -EOVERFLOW);
}

TEST_F(ReaderFaultsTest, FileWhoseLockIsUnknownIsNotRead) {
    const Written written;
    Reader reader(written.File().Path());
    const ScopedFault fault(Call::Fcntl, EINVAL, Where().Times(2).ThisThread());
    EXPECT_EQ(TarvoStatsAlive(reader.File()), -EINVAL);
    EXPECT_EQ(reader.Read(), -EINVAL);
}

TEST_F(ReaderFaultsTest, DirectoryThatCannotBeListedIsTold) {
    const Written written;
    const char *const path = written.Directory().Path().c_str();
    {
        const FileFault fault(FileCall::Fdopendir, ENOMEM);
        EXPECT_EQ(TarvoStatsEach(path, Ignore, nullptr), -ENOMEM);
    }
    {
        const FileFault fault(FileCall::Readdir, EIO, 2);
        EXPECT_EQ(TarvoStatsEach(path, Ignore, nullptr), -EIO);
    }
    EXPECT_EQ(TarvoStatsEach(path, Ignore, nullptr), 0);
    EXPECT_EQ(TarvoStatsEach((written.Directory().Path() + "/none").c_str(), Ignore, nullptr), -ENOENT);
}

TEST_F(ReaderFaultsTest, ListingEndsWhereItsReaderWantsNoMore) {
    const Written written;
    const StatsFile another(written.Directory(), "4712");
    int calls = 0;
    const auto count = [](void *context, int, const char *) { return ++*static_cast<int *>(context), 42; };
    EXPECT_EQ(TarvoStatsEach(written.Directory().Path().c_str(), count, &calls), 42);
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace tarvo_test
