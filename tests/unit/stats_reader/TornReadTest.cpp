// Reading while another thread writes.
#include <sys/mman.h>

#include <atomic>
#include <thread>

#include "ReaderKit.h"

namespace tarvo_test {
namespace {

using TornReadTest = ReaderTest;

constexpr int READINGS = 2000;

// The file as its writer has it: mapped.
class Mapping {
public:
    explicit Mapping(const StatsFile &file, std::size_t slots)
        : size_(TARVO_STATS_HEADER_SIZE + slots * TARVO_STATS_SLOT_SIZE),
          begin_(mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file.Fd(), 0)) {
        if (begin_ == MAP_FAILED) {
            throw std::runtime_error("no mapping");
        }
    }
    ~Mapping() { munmap(begin_, size_); }
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    TarvoStatsHeader &Header() const { return *static_cast<TarvoStatsHeader *>(begin_); }
    TarvoStatsSlot &Slot(std::size_t index) const {
        return *reinterpret_cast<TarvoStatsSlot *>(static_cast<char *>(begin_) + TARVO_STATS_HEADER_SIZE +
                                                   index * TARVO_STATS_SLOT_SIZE);
    }

private:
    const std::size_t size_;
    void *const begin_;
};

// A thread that writes for as long as the test reads.
class Writer {
public:
    template <typename Round>
    explicit Writer(Round round)
        : thread_([this, round] {
              for (uint64_t number = 1; !over_; ++number) {
                  round(number);
                  ++rounds_;
              }
          }) {
        while (rounds_ == 0) {
            std::this_thread::yield();
        }
    }
    ~Writer() {
        over_ = true;
        thread_.join();
    }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;
    uint64_t Rounds() const { return rounds_; }

private:
    std::atomic<bool> over_{false};
    std::atomic<uint64_t> rounds_{0};
    std::thread thread_;
};

// The reader is the kernel, at work for pread(2): ThreadSanitizer has no eye for it, and warns of every fence.
#ifdef __SANITIZE_THREAD__
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif
void Fence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
#ifdef __SANITIZE_THREAD__
#pragma GCC diagnostic pop
#endif

void Store(uint64_t &place, uint64_t value) { __atomic_store_n(&place, value, __ATOMIC_RELAXED); }

// One identity after another in one slot: its name, its remote and its numbers are all of the same one.
TEST_F(TornReadTest, SlotIsOfOneIdentityOnly) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(1));
    const Mapping mapping(file, 1);
    TarvoStatsSlot &slot = mapping.Slot(0);
    const Writer writer([&slot](uint64_t number) {
        __atomic_fetch_add(&slot.sequence, 1, __ATOMIC_SEQ_CST);
        Fence();
        slot.kind = TARVO_STATS_PIPE;
        const char letter = static_cast<char>('a' + number % 26);
        std::memset(slot.name, letter, TARVO_STATS_NAME_SIZE - 1);
        std::memset(slot.remote, letter, TARVO_STATS_NAME_SIZE - 1);
        Store(slot.of.pipe.sent.messages[0], number % 26);
        Store(slot.of.pipe.callback.buckets[TARVO_STATS_BUCKETS - 1], number % 26);
        Fence();
        __atomic_fetch_add(&slot.sequence, 1, __ATOMIC_SEQ_CST);
    });
    Reader reader(file.Path());
    int whole = 0;
    for (int i = 0; i < READINGS; ++i) {
        TarvoStatsSlot read{};
        const int result = TarvoStatsReadSlot(reader.File(), 0, &read);
        ASSERT_TRUE(result == 0 || result == -EAGAIN) << result;
        if (result == 0) {
            ++whole;
            const std::string expected(TARVO_STATS_NAME_SIZE - 1,
                                       static_cast<char>('a' + read.of.pipe.sent.messages[0]));
            ASSERT_EQ(read.name, expected);
            ASSERT_EQ(read.remote, expected);
            ASSERT_EQ(read.of.pipe.callback.buckets[TARVO_STATS_BUCKETS - 1], read.of.pipe.sent.messages[0]);
            ASSERT_EQ(read.sequence % 2, 0U);
        }
    }
    EXPECT_GT(whole, 0);
    EXPECT_GT(writer.Rounds(), 1U);
}

// A pipe's numbers move to the slot of those gone again and again, first and last of what is read: no sum has them
// twice, or not at all.
TEST_F(TornReadTest, SumsAreOfOneMomentUnlessToldOtherwise) {
    constexpr uint64_t ONES = 1000;
    constexpr uint32_t LAST = 15;
    constexpr int PAUSE = 5000;
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(LAST + 1));
    file.Set(0, StatsSlot(TARVO_STATS_GONE, ""));
    for (uint32_t index = 1; index <= LAST; ++index) {
        file.Set(index, StatsSlot(TARVO_STATS_PIPE, "a", "b"));
    }
    const Mapping mapping(file, LAST + 1);
    Store(mapping.Slot(LAST).of.pipe.sent.messages[0], ONES);
    const Writer writer([&mapping](uint64_t number) {
        const bool out = number % 2 == 1;
        __atomic_fetch_add(&mapping.Header().folding, 1, __ATOMIC_SEQ_CST);
        Fence();
        Store(mapping.Slot(0).of.pipe.sent.messages[0], out ? ONES : 0);
        Store(mapping.Slot(LAST).of.pipe.sent.messages[0], out ? 0 : ONES);
        Fence();
        __atomic_fetch_add(&mapping.Header().folding, 1, __ATOMIC_SEQ_CST);
        for (int i = 0; i < PAUSE; ++i) {
            Fence(); // about as long as a reading takes
        }
    });
    Reader reader(file.Path());
    int exact = 0;
    for (int i = 0; i < READINGS || exact == 0; ++i) {
        ASSERT_EQ(reader.Read(), 0);
        TarvoStatsPipe sum{};
        TarvoStatsSum(&reader.Last(), &sum);
        exact += reader.Last().inexact == 0 ? 1 : 0;
        ASSERT_TRUE(reader.Last().inexact == 1 || sum.sent.messages[0] == ONES) << sum.sent.messages[0];
    }
}

// A counter is never read in halves.
TEST_F(TornReadTest, CountersAreReadWhole) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(1));
    file.Set(0, StatsSlot(TARVO_STATS_PIPE, "a", "b"));
    const Mapping mapping(file, 1);
    const Writer writer([&mapping](uint64_t number) {
        Store(mapping.Slot(0).of.pipe.received.messages[1], number % 2 == 0 ? 0 : UINT64_MAX);
    });
    Reader reader(file.Path());
    for (int i = 0; i < READINGS; ++i) {
        TarvoStatsSlot slot{};
        ASSERT_EQ(TarvoStatsReadSlot(reader.File(), 0, &slot), 0);
        const uint64_t value = slot.of.pipe.received.messages[1];
        ASSERT_TRUE(value == 0 || value == UINT64_MAX) << value;
    }
}

TEST_F(TornReadTest, FileThatShrinksAndGrowsUnderTheReaderHarmsNothing) {
    const StatsDirectory directory;
    const StatsFile file(directory, "4711", StatsHeader(8));
    for (uint32_t index = 0; index < 8; ++index) {
        file.Set(index, StatsSlot(TARVO_STATS_PIPE, "a", "b"));
    }
    Reader reader(file.Path());
    ASSERT_EQ(reader.Opened(), 0);
    const Writer writer([&file](uint64_t number) {
        file.Cut(number % 2 == 0 ? TARVO_STATS_HEADER_SIZE + 8 * TARVO_STATS_SLOT_SIZE : TARVO_STATS_HEADER_SIZE + 99);
    });
    for (int i = 0; i < READINGS; ++i) {
        const int result = reader.Read();
        ASSERT_TRUE(result == 0 || result == -EBADMSG) << result;
    }
}

} // namespace
} // namespace tarvo_test
