#ifndef TARVO_PIPE_TIMEDLOCK_H
#define TARVO_PIPE_TIMEDLOCK_H

#include <cstdint>
#include <mutex>

// Takes a std::timed_mutex within a time budget and tells what is left of it.
// Owns: the lock once taken. Threads: one. Locks: the given mutex. Ends: by unlocking.
class TimedLock {
public:
    // Negative `timeoutMs`: no limit.
    TimedLock(std::timed_mutex &toLock, int timeoutMs);
    ~TimedLock();
    TimedLock(const TimedLock &) = delete;
    TimedLock &operator=(const TimedLock &) = delete;

    // 0 or -ETIMEDOUT.
    int Lock();

    // Milliseconds left after Lock(); negative when there is no limit.
    int GetRemainingTime() const;

private:
    std::timed_mutex &mutex;
    int32_t timeout;
    int32_t remaining;
    bool locked = false;
};

#endif // TARVO_PIPE_TIMEDLOCK_H
