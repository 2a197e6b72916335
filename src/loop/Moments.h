// Moments on the monotonic clock, in microseconds, and how long it is until them.
#ifndef TARVO_LOOP_MOMENTS_H
#define TARVO_LOOP_MOMENTS_H

#include <cstdint>
#include <ctime>

#include "diag/run_time_record.h"

constexpr int64_t MICROSECONDS_PER_MILLISECOND = 1000;
constexpr int64_t NO_DEADLINE = -1;

inline int64_t Now() { return static_cast<int64_t>(Tarvo::GetCurrentTime()); }

// Negative: without a limit.
inline int64_t DeadlineIn(int timeoutMs) {
    return timeoutMs < 0 ? NO_DEADLINE : Now() + timeoutMs * MICROSECONDS_PER_MILLISECOND;
}
inline int64_t DeadlineAfter(int64_t momentUs, int timeoutMs) {
    return timeoutMs < 0 ? NO_DEADLINE : momentUs + timeoutMs * MICROSECONDS_PER_MILLISECOND;
}

// As `poll` takes them: milliseconds, rounded up; -1 without a limit.
inline int LeftMs(int64_t deadlineUs) {
    if (deadlineUs == NO_DEADLINE) {
        return -1;
    }
    const int64_t left = deadlineUs - Now();
    return left <= 0 ? 0 : static_cast<int>((left + MICROSECONDS_PER_MILLISECOND - 1) / MICROSECONDS_PER_MILLISECOND);
}

// As the kernel takes moments and spans: seconds and nanoseconds.
inline timespec ToTimespec(int64_t us) {
    constexpr int64_t MICROSECONDS_PER_SECOND = 1000000;
    constexpr int64_t NANOSECONDS_PER_MICROSECOND = 1000;
    return {us / MICROSECONDS_PER_SECOND, us % MICROSECONDS_PER_SECOND * NANOSECONDS_PER_MICROSECOND};
}

#endif // TARVO_LOOP_MOMENTS_H
