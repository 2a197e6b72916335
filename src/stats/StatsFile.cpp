#include "stats/StatsFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

#include "diag/velm_syslog.h"
#include "stats/Stats.h"

namespace {

constexpr char LOG_TAG[] = "StatsFile";
constexpr mode_t MODE = 0640;

// What the kernel says of this process.
struct Process {
    std::string name;
    uint64_t startTicks;
};

// Line of /proc/PID/stat: the name is in parentheses and may hold some, the start is the 22nd field (proc(5)).
bool ParseProcess(const std::string &line, Process &process) {
    constexpr int FIELDS_AFTER_NAME = 20;
    const std::size_t open = line.find('(');
    const std::size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return false;
    }
    process.name = line.substr(open + 1, close - open - 1);
    std::size_t at = close;
    for (int field = 0; field < FIELDS_AFTER_NAME && at != std::string::npos; ++field) {
        at = line.find(' ', at + 1);
    }
    if (at == std::string::npos) {
        return false;
    }
    process.startTicks = std::strtoull(line.c_str() + at, nullptr, 10);
    return process.startTicks != 0;
}

int AskKernel(Process &process) {
    const UniqueFd fd(openat(AT_FDCWD, "/proc/self/stat", O_RDONLY | O_CLOEXEC));
    char line[1024];
    const ssize_t size = fd.Get() < 0 ? -1 : read(fd.Get(), line, sizeof(line));
    if (size < 0) {
        return -errno;
    }
    return ParseProcess(std::string(line, static_cast<std::size_t>(size)), process) ? 0 : -ENOENT;
}

// A lock of the open file and not of the process: a process that reads its own file, and closes it, keeps it.
int Lock(int fd, int command, short &type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    const int ret = fcntl(fd, command, &lock) == 0 ? 0 : -errno;
    type = lock.l_type;
    return ret;
}

// Removes what stands under the name of this process's file, if that is its own: a process has the same name again
// after an exec.
bool RemoveFormer(int directory, const std::string &name) {
    const UniqueFd former(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat about {};
    if (former.Get() < 0 || fstat(former.Get(), &about) != 0 || !S_ISREG(about.st_mode) || about.st_uid != geteuid()) {
        return false;
    }
    short lock = F_WRLCK;
    return Lock(former.Get(), F_OFD_GETLK, lock) == 0 && lock == F_UNLCK && unlinkat(directory, name.c_str(), 0) == 0;
}

UniqueFd Create(int directory, const std::string &name) {
    return UniqueFd(openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, MODE));
}

// The directory's group, and the same mode whatever the umask is.
void SetAttributes(int directory, int fd) {
    struct stat of {};
    struct stat about {};
    if (fstat(directory, &of) == 0 && fstat(fd, &about) == 0 && of.st_gid != about.st_gid) {
        // Who may not give it away keeps it readable by the group that it has.
        static_cast<void>(fchown(fd, static_cast<uid_t>(-1), of.st_gid) == 0);
    }
    fchmod(fd, MODE);
}

// Nobody has asked for statistics, or not this process's.
bool IsNoTrouble(int result) {
    constexpr int EXPECTED[] = {-ENOENT, -EACCES, -EPERM, -EROFS};
    return std::find(std::begin(EXPECTED), std::end(EXPECTED), result) != std::end(EXPECTED);
}

} // namespace

std::atomic<bool> StatsFile::decided{false};
std::atomic<StatsFile *> StatsFile::current{nullptr};
Mutex StatsFile::mutex;
__thread ForkLock StatsFile::forkLock;

StatsFile *StatsFile::Decide() {
    MutexLock lock(mutex);
    if (decided.load(std::memory_order_relaxed)) {
        return current.load(std::memory_order_relaxed);
    }
    StatsFile *made = nullptr;
    int ret = -ENOMEM;
    try {
        ret = Make(made);
    } catch (const std::bad_alloc &) {
        ret = -ENOMEM;
    }
    if (ret != 0 && !IsNoTrouble(ret)) {
        TARVO_LOG(LOG_WARNING, "No statistics file in %s, err = %d, nothing is counted.", TARVO_STATS_DIRECTORY, ret);
    }
    current.store(made, std::memory_order_relaxed);
    decided.store(true, std::memory_order_release);
    return made;
}

int StatsFile::Make(StatsFile *&made) {
    const UniqueFd directory(openat(AT_FDCWD, TARVO_STATS_DIRECTORY, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (directory.Get() < 0) {
        // For want of descriptors or memory it is not even known whether anybody has asked for statistics.
        return errno == ELOOP || errno == ENOTDIR ? -errno : -ENOENT;
    }
    Process process{};
    int ret = AskKernel(process);
    if (ret != 0) {
        return ret;
    }
    const std::string name = std::to_string(getpid()) + "." + std::to_string(process.startTicks);
    auto *const fresh = new StatsFile;
    ret = fresh->Open(directory, name);
    if (ret == 0) {
        ret = fresh->Fill(process.startTicks, process.name);
        if (ret != 0) {
            unlinkat(directory.Get(), name.c_str(), 0);
        }
    }
    if (ret != 0) {
        delete fresh;
        return ret;
    }
    made = fresh;
    return 0;
}

int StatsFile::Open(const UniqueFd &directory, const std::string &name) {
    UniqueFd fd = Create(directory.Get(), name);
    if (fd.Get() < 0 && errno == EEXIST && RemoveFormer(directory.Get(), name)) {
        fd = Create(directory.Get(), name);
    }
    if (fd.Get() < 0) {
        return -errno;
    }
    SetAttributes(directory.Get(), fd.Get());
    short lock = F_WRLCK;
    const int ret = Lock(fd.Get(), F_OFD_SETLK, lock);
    if (ret != 0) {
        unlinkat(directory.Get(), name.c_str(), 0);
        return ret;
    }
    file = std::move(fd);
    return 0;
}

int StatsFile::Fill(uint64_t startTicks, const std::string &process) {
    const int ret = Grow();
    if (ret != 0) {
        return ret;
    }
    header->version = TARVO_STATS_VERSION;
    header->headerSize = TARVO_STATS_HEADER_SIZE;
    header->slotSize = TARVO_STATS_SLOT_SIZE;
    header->clock = CLOCK_MONOTONIC;
    header->pid = getpid();
    header->oneWaysPerTime = Stats::ONE_WAYS_PER_TIME;
    header->callsPerTime = Stats::CALLS_PER_TIME;
    header->startedAt = startTicks;
    header->createdAt = Stats::Now();
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    header->createdWall = Stats::ToNs(wall);
    process.copy(header->process, sizeof(header->process) - 1);
    Name(*places[used++].slot, {TARVO_STATS_GONE, TARVO_STATS_THREADS, 0, {}, {}});
    __atomic_store_n(&header->magic, TARVO_STATS_MAGIC, __ATOMIC_RELEASE);
    return 0;
}

void StatsFile::WatchForks() { pthread_atfork(HoldForFork, ReleaseInParent, LeaveToParent); }

void StatsFile::HoldForFork() { forkLock.Take(mutex); }

void StatsFile::ReleaseInParent() { forkLock.ReleaseInParent(mutex); }

// The only thread of the child, which may make a file of its own.
void StatsFile::LeaveToParent() {
    forkLock.ReleaseInChild(mutex);
    if (StatsFile *const parents = current.exchange(nullptr)) {
        parents->Abandon();
    }
    decided = false;
}

void StatsFile::Abandon() {
    MutexLock lock(mutex);
    abandoned = true;
    file.Reset();
    for (const Mapping &mapping : mappings) {
        static_cast<void>(mmap(mapping.start, mapping.size, PROT_READ | PROT_WRITE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0));
    }
}
