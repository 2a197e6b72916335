#include "pipe/TimedLock.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

TimedLock::TimedLock(std::timed_mutex &toLock, int timeoutMs)
    : mutex(toLock), timeout(timeoutMs), remaining(timeoutMs) {}

TimedLock::~TimedLock() {
    if (locked) {
        mutex.unlock();
    }
}

int TimedLock::Lock() {
    if (timeout < 0) {
        mutex.lock();
        locked = true;
        return 0;
    }
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    locked = mutex.try_lock_until(start + std::chrono::milliseconds(timeout));
    if (!locked) {
        return -ETIMEDOUT;
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    remaining = static_cast<int32_t>(std::max<int64_t>(timeout - elapsed, 0));
    return 0;
}

int TimedLock::GetRemainingTime() const { return timeout < 0 ? timeout : remaining; }
