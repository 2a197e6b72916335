// One end of an opening: its FIFO created or waited for, and opened, again and again until the remote is there.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "base/Cancellation.h"
#include "base/UniqueFd.h"
#include "diag/run_time_record.h"
#include "diag/velm_syslog.h"
#include "fifo/velm_fifo.h"
#include "pipe/TarvoPipeImpl.h"

namespace {

// One component with the opening, one source tag.
constexpr char LOG_TAG[] = "TarvoPipeImplOpen";
constexpr uint64_t CREATE_BUDGET_MS = 50;
constexpr int64_t MICROSECONDS_PER_MILLISECOND = 1000;
constexpr int64_t FIRST_SLEEP_US = 40;
constexpr int64_t LONGEST_SLEEP_US = 20000;
// Asks RetryOpenWriteFifo for growing intervals.
constexpr unsigned GROWING_INTERVAL = 1;
constexpr unsigned ATTEMPTS_PER_LOG_LINE = 1000;

// Milliseconds that `timeoutMs`, counted from `start`, has left: 0 when it is used up, -1 without a limit (below 1 ms).
int TimeLeft(int timeoutMs, uint64_t start) {
    const auto elapsed = static_cast<int64_t>(Tarvo::GetCurrentTime() - start) / MICROSECONDS_PER_MILLISECOND;
    return timeoutMs < 1 ? -1 : static_cast<int>(std::max<int64_t>(timeoutMs - elapsed, 0));
}

bool FileExists(const std::string &name) { return access(name.c_str(), F_OK) == 0; }

// How often an opener gives up the processor and looks again before its first sleep: what it waits for is mostly a few
// steps of a process that runs or is about to.
constexpr unsigned YIELDS = 10;

// There, giving up the processor would only let threads of the same priority run.
bool IsRealTimeThread() {
    const int policy = sched_getscheduler(0);
    return policy == SCHED_FIFO || policy == SCHED_RR;
}

// Sleeps between attempts, each time twice as long up to a limit, until a time budget is used up.
// Owns: nothing. Threads: the one that attempts. Locks: none. Ends: any time.
class Backoff {
public:
    // Below 1 ms the budget has no limit.
    Backoff(int64_t budgetMs, int64_t firstUs, int64_t longestUs, unsigned yieldsFirst)
        : unlimited(budgetMs < 1), left(budgetMs * MICROSECONDS_PER_MILLISECOND), sleep(firstUs), longest(longestUs),
          yields(yieldsFirst) {}

    // How long to sleep now. Once, after each attempt.
    std::chrono::microseconds Next() {
        const bool enough = unlimited || left >= sleep;
        const int64_t next = enough ? sleep : left;
        left -= next;
        sleep = std::min(sleep * 2, longest);
        isLast = !unlimited && (!enough || left <= 0);
        return std::chrono::microseconds(next);
    }

    // Whether the budget is used up after that sleep: one last attempt is left then.
    bool IsLast() const { return isLast; }

    // Sleeps, or yields as long as there are yields left; false after the last sleep.
    bool Sleep() {
        if (yields > 0 && !IsRealTimeThread()) {
            --yields;
            sched_yield();
            return true;
        }
        const Cancellable wait;
        std::this_thread::sleep_for(Next());
        return !IsLast();
    }

private:
    bool unlimited;
    int64_t left;
    int64_t sleep;
    int64_t longest;
    bool isLast = false;
    unsigned yields;
};

} // namespace

int TarvoPipeImpl::PrepareWriteFifo(int timeoutMs) {
    if (myName.empty()) {
        TARVO_LOG(LOG_ERR, "env variables error, myName = %s", myName.c_str());
        return -EINVAL;
    }
    if (writeFifoName.empty()) {
        writeFifoName = AssembleFifoName(myName, remoteName, domain);
    }
    if (writeFifoName.empty()) {
        TARVO_LOG(LOG_ERR, "set go name fail");
        return -EINVAL;
    }
    if (mode == TARVO_MODE_SERVER) {
        // The write end follows in HandleServerOpen: opening it now would fail for want of a reader.
        return CreateOwnFifo(writeFifoName, "CreateWriteFifo ");
    }
    int ret = AppWaitForPipeReady(writeFifoName, timeoutMs);
    if (ret < 0) {
        TARVO_LOG_RESTRAINED(LOG_WARNING, "Wait write FIFO (%s) timeout. ret = %d.", writeFifoName.c_str(), ret);
        return ret;
    }
    ret = RetryOpenWriteFifo(GROWING_INTERVAL);
    if (ret < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "OpenWriteFifo (%s) failed. ret = %d.", writeFifoName.c_str(), ret);
    }
    return ret;
}

int TarvoPipeImpl::OpenReadFd() {
    if (readFd >= 0) {
        return readFd;
    }
    if (readFifoName.empty()) {
        readFifoName = AssembleFifoName(remoteName, myName, domain);
    }
    if (readFifoName.empty()) {
        TARVO_LOG(LOG_ERR, "set read name fail");
        return -EINVAL;
    }
    UniqueFd readEnd(CreateAndOpenFifo(readFifoName, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (readEnd.Get() < 0) {
        return readEnd.Get();
    }
    MutexLock lock(writeFdMutex);
    if (IsClosing()) {
        // Closed while it was being opened: nobody would close this descriptor or remove the files any more.
        readEnd.Reset();
        if (mode == TARVO_MODE_SERVER) {
            UnlinkFd(readFifoName);
            UnlinkFd(writeFifoName);
        }
        return -ECANCELED;
    }
    const int fd = readEnd.Release();
    readFd = fd;
    return fd;
}

int TarvoPipeImpl::CreateOwnFifo(const std::string &name, const char *slowText) const {
    Tarvo::RunTimeRecord record(CREATE_BUDGET_MS);
    record.RecordCurrentTime();
    const int ret = CreateFifo(name, gid, targetPid, domain, targetCon);
    if (record.WhetherTotalTimeHasTimeout()) {
        record.RunTimePrint(slowText + name + " takes more than " + std::to_string(CREATE_BUDGET_MS) + "ms");
    }
    if (ret < 0) {
        TARVO_LOG(LOG_ERR, "Create FIFO (%s) failed.", name.c_str());
    }
    return ret;
}

int TarvoPipeImpl::CreateAndOpenFifo(const std::string &name, int flags) const {
    const uint64_t start = Tarvo::GetCurrentTime();
    int ret = 0;
    if (mode == TARVO_MODE_SERVER) {
        ret = CreateOwnFifo(name, "CreateReadFifo ");
    } else {
        ret = AppWaitForPipeReady(name, timeout);
        if (ret < 0) {
            TARVO_LOG(LOG_ERR, "Wait FIFO (%s) failed.", name.c_str());
        }
    }
    if (ret < 0) {
        return ret;
    }
    int fd = OpenPublishedFifo(name, flags);
    while (fd == -ENOENT && mode == TARVO_MODE_CLIENT && !IsClosing()) {
        // Replaced or gone again: the remote's file is still to come.
        const int left = TimeLeft(timeout, start);
        ret = left == 0 ? -ETIMEDOUT : AppWaitForPipeReady(name, left);
        fd = ret < 0 ? ret : OpenPublishedFifo(name, flags);
    }
    if (fd < 0) {
        TARVO_LOG(LOG_ERR, "Open fifoFd with flag(%d) of fifo(%s) failed, err = %d, remote is %s", flags, name.c_str(),
                  fd, remoteName.c_str());
        if (mode == TARVO_MODE_SERVER) {
            // A close removes the file of an open read end only; the next open makes it anew.
            UnlinkFd(name);
        }
        return fd;
    }
    TARVO_LOG(LOG_INFO, "open fifoFd(%d) with flag(%d) of file(%s) success for remote(%s)", fd, flags, name.c_str(),
              remoteName.c_str());
    return fd;
}

int TarvoPipeImpl::AppWaitForPipeReady(const std::string &name, int timeoutMs) const {
    Backoff backoff(timeoutMs, FIRST_SLEEP_US, LONGEST_SLEEP_US, YIELDS);
    unsigned attempts = 0;
    do {
        if (FileExists(name)) {
            return 0;
        }
        if (IsClosing()) {
            return -ECANCELED;
        }
        if (++attempts % ATTEMPTS_PER_LOG_LINE == 0) {
            TARVO_LOG_RESTRAINED(LOG_WARNING, "AppWaitForPipeReady fifoName(%s) not exist, remote(%s)", name.c_str(),
                                 remoteName.c_str());
        }
    } while (backoff.Sleep());
    return FileExists(name) ? 0 : -ETIMEDOUT;
}

int TarvoPipeImpl::OpenWriteFifo() {
    MutexLock lock(writeFdMutex);
    if (writeFd > 0) {
        return writeFd;
    }
    if (IsClosing()) {
        TARVO_LOG(LOG_INFO, "entering closeFdAction");
        return -1;
    }
    const int fd = OpenPublishedFifo(writeFifoName, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    writeFd = fd;
    if (fd >= 0) {
        openingChanged.notify_all();
        TARVO_LOG(LOG_INFO, "open writeFdNB(%d) of file(%s) success for remote(%s)", fd, writeFifoName.c_str(),
                  remoteName.c_str());
    }
    return fd;
}

int TarvoPipeImpl::RetryOpenWriteFifo(unsigned int interval) {
    const bool growing = interval == GROWING_INTERVAL;
    Backoff backoff(timeout, growing ? FIRST_SLEEP_US : interval, growing ? LONGEST_SLEEP_US : interval,
                    growing ? YIELDS : 0);
    const uint32_t mine = opening;
    int ret = 0;
    bool more = true;
    do {
        ret = OpenWriteFifo();
        if (ret != -ENOENT && ret != -ENXIO && ret != -EMFILE) {
            return ret;
        }
        // Short sleeps are slept: a wait for news costs more than they last.
        if (growing) {
            more = backoff.Sleep();
        } else if (AwaitNextAttempt(backoff.Next(), mine)) {
            more = !backoff.IsLast();
        } else {
            return mine == opening ? OpenWriteFifo() : -1;
        }
    } while (more);
    ret = OpenWriteFifo();
    return ret == -ENXIO ? -ETIMEDOUT : ret;
}

bool TarvoPipeImpl::AwaitNextAttempt(std::chrono::microseconds time, uint32_t ofOpening) {
    MutexLock lock(writeFdMutex);
    return !openingChanged.wait_for(lock.Native(), time,
                                    [&] { return writeFd > 0 || IsClosing() || opening != ofOpening; });
}
