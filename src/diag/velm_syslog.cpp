#include "diag/velm_syslog.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <functional>
#include <new>
#include <string>
#include <type_traits>

#include "api/EnvManager.h"
#include "base/ForkLock.h"
#include "base/LockOrder.h"
#include "base/ProcessObject.h"
#include "base/bounded.h"
#include "diag/WrittenSites.h"

namespace {

constexpr int LAST_WRITTEN_LEVEL = LOG_NOTICE;
constexpr int LAST_UNRESTRAINED_TYPE = LOG_TYPE_HEARTBEAT;
constexpr int LAST_TYPE = LOG_TYPE_HEARTBEAT_RESTRAINED;
constexpr int64_t RESTRAINED_SECONDS = 600;
constexpr std::size_t LINE_SIZE = 256;
constexpr std::size_t STAMP_SIZE = 32;
constexpr char UNFORMATTABLE[] = "F";

using LineBuffer = std::array<char, LINE_SIZE>;
using StampBuffer = std::array<char, STAMP_SIZE>;

constexpr std::array<const char *, 8> LABELS = {"VELM", "TARVO", "FAULTEVENT", "HEARTBEAT",
                                                "VELM", "TARVO", "FAULTEVENT", "HEARTBEAT"};

// There before any code runs, for a first line that is written when memory has run out, and never destroyed, since
// threads log while statics die.
Mutex logMutex ACQUIRED_AFTER(lock_order::logging);
static_assert(std::is_trivially_destructible_v<Mutex>);

// A fork waits for the line that is being written, since its child could wait for ever for what the writing thread
// held: this mutex and those that the C library's syslog and time zone have. Not for long, as the forking thread itself
// may be writing, in a signal handler.
//
// Held during a fork, which is announced, so that threads which write line after line let it through: whoever gives a
// mutex back and wants it again at once mostly has it before the thread that was woken for it.
Mutex forkMutex ACQUIRED_AFTER(lock_order::logging);
std::atomic<bool> forkComing{false};
__thread ForkLock forkLock;
__thread ForkLock logLock;

void LetForkPass() {
    if (forkComing.load(std::memory_order_relaxed)) {
        const MutexLock passed(forkMutex);
    }
}

void HoldForFork() {
    forkLock.Take(forkMutex);
    forkComing = true;
    logLock.Take(logMutex);
}

void ReleaseInParent() {
    logLock.ReleaseInParent(logMutex);
    forkComing = false;
    forkLock.ReleaseInParent(forkMutex);
}

void ReleaseInChild() {
    WrittenSites::ForgetParents();
    logLock.ReleaseInChild(logMutex);
    forkComing = false;
    forkLock.ReleaseInChild(forkMutex);
}

__attribute__((constructor)) void WatchForks() { pthread_atfork(HoldForFork, ReleaseInParent, ReleaseInChild); }

// Appends the decimal digits of `number`, least significant first and without the most significant one. The loss is
// intended: it decides which lines of a file share a limit (1 to 9 do, and so do 123 and 223).
bool AppendDigits(LineBuffer &text, uint64_t number) {
    std::size_t used = strnlen(text.data(), text.size());
    for (; number > 9; number /= 10) {
        if (used + 1 >= text.size()) {
            return false;
        }
        text[used++] = static_cast<char>('0' + number % 10);
        text[used] = '\0';
    }
    return true;
}

// Whether the call site (thread, line digits, file) may write a restrained line now.
bool MayWriteRestrained(int line, const char *file) {
    if (file == nullptr) {
        return false;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (WrittenSites::WroteSince(line, file, now.tv_sec - RESTRAINED_SECONDS)) {
        return false;
    }
    LineBuffer key{};
    const bool built = AppendDigits(key, static_cast<uint64_t>(pthread_self())) &&
                       AppendDigits(key, static_cast<uint64_t>(static_cast<int64_t>(line))) &&
                       strcat_s(key.data(), key.size(), file) == 0;
    if (!built) {
        return false;
    }
    try {
        const std::size_t hash = std::hash<std::string>{}(key.data());
        const std::shared_ptr<ZoVelm::VelmRestrainedLog> limiter = ZoVelm::VelmRestrainedLog::GetInstance(true);
        if (!limiter || limiter->PrintTableInsert(hash) != 0) {
            return false;
        }
        WrittenSites::Remember(line, file, now.tv_sec);
        return true;
    } catch (const std::bad_alloc &) {
        // A line that the limiter cannot remember could flood the log.
        return false;
    }
}

StampBuffer TimeStamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto seconds = static_cast<time_t>(static_cast<int32_t>(now.tv_sec));
    tm local{};
    localtime_r(&seconds, &local);
    StampBuffer clock{};
    StampBuffer stamp{};
    if (std::strftime(clock.data(), clock.size(), "%T", &local) == 0 ||
        snprintf_s(stamp.data(), stamp.size(), stamp.size() - 1, "%s.%06d", clock.data(),
                   static_cast<int>(now.tv_nsec / 1000)) < 0) {
        strcpy_s(stamp.data(), stamp.size(), UNFORMATTABLE);
    }
    return stamp;
}

// Writes the header into the empty `text` and returns its length; 0 when there is none.
std::size_t BuildHeader(LineBuffer &text, VELMLogType type, const char *process, int line, const char *file) {
    if (type > LAST_TYPE || type < 0) {
        return 0;
    }
    const int length = snprintf_s(text.data(), text.size(), text.size() - 1, "[%s][%s][%s][%d][%lu][%s:%d] ",
                                  LABELS.at(static_cast<std::size_t>(type)), process, TimeStamp().data(), getpid(),
                                  pthread_self(), file != nullptr ? file : "UnknowFile", line);
    return length < 0 ? 0 : static_cast<std::size_t>(length);
}

// VelmSyslog for a line that is written. Apart from it, so that a line which is discarded, as most are, saves no
// register and takes no memory for this; cold, since only these lines come here.
__attribute__((cold, noinline)) void WriteLine(VELMLogType type, int level, int line, const char *file,
                                               const char *format, std::va_list args) {
    const int savedErrno = errno;
    if (type > LAST_UNRESTRAINED_TYPE && !MayWriteRestrained(line, file)) {
        errno = savedErrno;
        return;
    }

    // Before the mutex, so that it and the environment's are never held together.
    const char *const process = EnvManager::ProcName();
    LetForkPass();
    MutexLock lock(logMutex);
    LineBuffer message{};
    const int formatted = vsnprintf_s(message.data(), message.size(), message.size() - 1, format, args);
    if (formatted < 0) {
        strcpy_s(message.data(), message.size(), UNFORMATTABLE);
    }

    LineBuffer text{};
    const std::size_t header = BuildHeader(text, type, process, line, file);
    // One byte less than there is room for: a line never fills the last place before the terminator.
    const std::size_t room = text.size() - 1 - header;
    if (room > 0) {
        message[room - 1] = '\0';
        strcpy_s(text.data() + header, text.size() - header, message.data());
    }
    text.back() = '\0';
    syslog(level, "%s", text.data());
    errno = savedErrno;
}

} // namespace

void VelmSyslog(VELMLogType type, int level, int line, const char *file, const char *format, ...) {
    if (level > LAST_WRITTEN_LEVEL) {
        return;
    }
    std::va_list args;
    va_start(args, format);
    WriteLine(type, level, line, file, format, args);
    va_end(args);
}

void VelmLogGetInstance(bool enable) {
    try {
        ZoVelm::VelmRestrainedLog::GetInstance(enable);
    } catch (const std::bad_alloc &) {
        // Nothing of ours throws into the host process. The limiter is then made by its next use.
    }
}

namespace ZoVelm {

namespace {

struct ProcessLimiter {
    using Object = VelmRestrainedLog;

    static std::shared_ptr<VelmRestrainedLog> Make() { return std::make_shared<VelmRestrainedLog>(); }
    static void End(std::shared_ptr<VelmRestrainedLog> &limiter) { limiter.reset(); }
};

// Also for children, whose limiter is another one.
std::atomic<bool> switchedOff{false};

} // namespace

VelmRestrainedLog::~VelmRestrainedLog() { destroyed = true; }

std::shared_ptr<VelmRestrainedLog> VelmRestrainedLog::GetInstance(bool enable) {
    std::shared_ptr<VelmRestrainedLog> limiter = ProcessObject<ProcessLimiter>::Get();
    if (!enable) {
        switchedOff = true;
        ProcessObject<ProcessLimiter>::Disable();
    }
    return switchedOff ? nullptr : limiter;
}

int VelmRestrainedLog::PrintTableInsert(unsigned long key) {
    if (destroyed) {
        return -1;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    MutexLock lock(tableMutex);
    const auto found = printTable.find(key);
    if (found != printTable.end() && found->second >= 0 && now.tv_sec - found->second < RESTRAINED_SECONDS) {
        return -1;
    }
    printTable[key] = now.tv_sec;
    return 0;
}

} // namespace ZoVelm
