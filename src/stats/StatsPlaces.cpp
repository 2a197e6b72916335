// The places of a statistics file: who has which, and how one changes hands.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <new>

#include "diag/velm_syslog.h"
#include "stats/Stats.h"
#include "stats/StatsFile.h"

namespace {

// One component with the file, one source tag.
constexpr char LOG_TAG[] = "StatsFile";
constexpr std::size_t CHUNK = std::size_t{TARVO_STATS_SLOTS_PER_CHUNK} * TARVO_STATS_SLOT_SIZE;

// Whether the last quarter of the file system stays free.
bool HasRoom(int fd, std::size_t more) {
    constexpr uint64_t SHARE = 4;
    struct statvfs system {};
    return fstatvfs(fd, &system) != 0 || system.f_blocks == 0 || // without a limit
           uint64_t{system.f_bavail} * system.f_frsize >= uint64_t{system.f_blocks} * system.f_frsize / SHARE + more;
}

// 0 or a negated errno.
int Reserve(int fd, std::size_t from, std::size_t to) {
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && to > limit.rlim_cur) {
        return -EFBIG; // to try would be a fatal signal
    }
    if (!HasRoom(fd, to - from)) {
        return -ENOSPC;
    }
    int ret = 0;
    do {
        ret = posix_fallocate(fd, static_cast<off_t>(from), static_cast<off_t>(to - from));
    } while (ret == EINTR);
    return -ret;
}

// What readers must not take for another identity's is stored after the odd sequence, whatever the processor does.
template <typename Field, typename Value>
void StoreAfter(Field &field, Value value) {
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

// Odd while it lives. Owns: nothing. Threads: one at a time. Locks: the file's. Ends: with the change.
class Change {
public:
    explicit Change(uint32_t &changing) : sequence(changing), before(__atomic_load_n(&changing, __ATOMIC_RELAXED)) {
        __atomic_store_n(&sequence, before + 1, __ATOMIC_RELAXED);
    }
    // Not 0, which says that there never was anything.
    ~Change() { StoreAfter(sequence, before + 2 == 0 ? 2 : before + 2); }
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;

private:
    uint32_t &sequence;
    const uint32_t before;
};

// Any part of the file.
using Word = uint64_t __attribute__((may_alias));

Word *Words(void *numbers) { return static_cast<Word *>(numbers); }

void StoreText(char *field, std::string_view text) { text.copy(field, TARVO_STATS_NAME_SIZE - 1); }

// Those of a pipe's numbers that are the highest of something, and not the sum.
bool IsHighest(std::size_t word) {
    constexpr std::size_t HIGHEST[] = {
        offsetof(TarvoStatsPipe, requests.queued.most),   offsetof(TarvoStatsPipe, requests.running.most),
        offsetof(TarvoStatsPipe, calls.outstanding.most), offsetof(TarvoStatsPipe, roundTrip.longest),
        offsetof(TarvoStatsPipe, inFifo.longest),         offsetof(TarvoStatsPipe, wait.longest),
        offsetof(TarvoStatsPipe, callback.longest)};
    return std::find(std::begin(HIGHEST), std::end(HIGHEST), word * sizeof(uint64_t)) != std::end(HIGHEST);
}

} // namespace

StatsSlot StatsFile::Take(const StatsIdentity &identity) {
    MutexLock lock(mutex);
    int ret = -EMFILE;
    uint32_t index = FindPlace();
    if (index == NONE && places.size() < TARVO_STATS_MAX_SLOTS) {
        ret = Grow();
        index = FindPlace();
    }
    if (index == NONE) {
        ReportFull(ret, identity);
        return {};
    }
    TarvoStatsSlot &slot = *places[index].slot;
    {
        const Change folds(header->folding);
        Name(slot, identity);
    }
    return {*this, index, slot};
}

void StatsFile::MakeRoom() {
    MutexLock lock(mutex);
    if (used == places.size() && firstReleased == NONE && places.size() < TARVO_STATS_MAX_SLOTS) {
        static_cast<void>(Grow()); // Take() reports it
    }
}

void StatsFile::ReportFull(int result, const StatsIdentity &identity) {
    if (identity.kind == TARVO_STATS_PIPE) {
        Stats::Count(header->uncounted);
    }
    if (!reported) {
        reported = true;
        TARVO_LOG(LOG_WARNING, "No room in the statistics file, err = %d, %.*s=>%.*s is not counted.", result,
                  static_cast<int>(identity.name.size()), identity.name.data(),
                  static_cast<int>(identity.remote.size()), identity.remote.data());
    }
}

uint32_t StatsFile::FindPlace() {
    if (used < places.size()) {
        return used++;
    }
    return TakeReleased();
}

uint32_t StatsFile::TakeReleased() {
    const uint32_t index = firstReleased;
    if (index != NONE) {
        firstReleased = places[index].nextReleased;
        lastReleased = firstReleased == NONE ? NONE : lastReleased;
    }
    return index;
}

void StatsFile::Release(uint32_t index) {
    MutexLock lock(mutex);
    if (abandoned) {
        return;
    }
    StatsSlot::Close(*places[index].slot);
    places[index].nextReleased = NONE;
    (lastReleased == NONE ? firstReleased : places[lastReleased].nextReleased) = index;
    lastReleased = index;
}

int StatsFile::Grow() {
    const std::size_t existing = places.size();
    const std::size_t from = existing == 0 ? 0 : TARVO_STATS_HEADER_SIZE + existing * TARVO_STATS_SLOT_SIZE;
    const std::size_t to = TARVO_STATS_HEADER_SIZE + existing * TARVO_STATS_SLOT_SIZE + CHUNK;
    int ret = Reserve(file.Get(), from, to);
    char *start = nullptr;
    if (ret == 0) {
        ret = Map(from, to, start);
    }
    if (ret != 0) {
        return ret;
    }
    if (existing == 0) {
        header = reinterpret_cast<TarvoStatsHeader *>(start);
        start += TARVO_STATS_HEADER_SIZE;
    }
    for (std::size_t i = 0; i < TARVO_STATS_SLOTS_PER_CHUNK; ++i) {
        places.push_back({reinterpret_cast<TarvoStatsSlot *>(start + i * TARVO_STATS_SLOT_SIZE), NONE});
    }
    StoreAfter(header->slots, static_cast<uint32_t>(places.size()));
    return 0;
}

int StatsFile::Map(std::size_t from, std::size_t to, char *&start) {
    try {
        // So that nothing can fail once it is mapped.
        places.reserve(places.size() + TARVO_STATS_SLOTS_PER_CHUNK);
        mappings.reserve(mappings.size() + 1);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t begin = from / page * page;
    void *const mapped = mmap(nullptr, to - begin, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file.Get(),
                              static_cast<off_t>(begin));
    if (mapped == MAP_FAILED) {
        return -errno;
    }
    mappings.push_back({mapped, to - begin});
    start = static_cast<char *>(mapped) + (from - begin);
    return 0;
}

void StatsFile::Name(TarvoStatsSlot &slot, const StatsIdentity &identity) {
    const Change change(slot.sequence);
    if (slot.kind == TARVO_STATS_PIPE) {
        Fold(slot);
    }
    TarvoStatsSlot fresh{};
    fresh.kind = identity.kind;
    fresh.engine = identity.engine;
    fresh.state = TARVO_STATS_OPENING;
    fresh.handle = identity.handle;
    StoreText(fresh.name, identity.name);
    StoreText(fresh.remote, identity.remote);
    constexpr std::size_t FIRST = offsetof(TarvoStatsSlot, kind) / sizeof(uint32_t);
    static_assert(sizeof(fresh) % sizeof(uint64_t) == 0 && FIRST == 1, "all but the sequence is words of 64 bits");
    StoreAfter(slot.kind, fresh.kind);
    for (std::size_t word = 1; word < sizeof(fresh) / sizeof(uint64_t); ++word) {
        StoreAfter(Words(&slot)[word], Words(&fresh)[word]);
    }
}

void StatsFile::Fold(TarvoStatsSlot &slot) {
    Word *const sums = Words(&places.front().slot->of.pipe);
    const Word *const numbers = Words(&slot.of.pipe);
    for (std::size_t word = 0; word < sizeof(TarvoStatsPipe) / sizeof(uint64_t); ++word) {
        const uint64_t sum = __atomic_load_n(&sums[word], __ATOMIC_RELAXED);
        const uint64_t number = __atomic_load_n(&numbers[word], __ATOMIC_RELAXED);
        StoreAfter(sums[word], IsHighest(word) ? std::max(sum, number) : sum + number);
    }
}
