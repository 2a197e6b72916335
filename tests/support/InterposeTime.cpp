// Clocks, timed waits and sleeps.
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <ctime>

#include "support/Interpose.h"
#include "support/TimedWaits.h"

using tarvo_test::Call;
using tarvo_test::CallInfo;
using namespace tarvo_test::detail;

namespace {

CallInfo TimeCall(Call call, clockid_t clock, const void *data) {
    CallInfo info{call};
    info.number = clock;
    info.data = const_cast<void *>(data);
    return info;
}

bool IsValid(const timespec *time) {
    return time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < NANOSECONDS_PER_SECOND;
}

// `wait` makes the real wait until its argument. On the moved clock, in short pieces.
template <typename Wait>
int Sliced(clockid_t clock, const timespec *until, int timedOutResult, Wait wait) {
    if (!ClockIsMoved(clock) || !IsValid(until)) {
        return wait(until);
    }
    int result = 0;
    MovedSlicedWait(clock, ToNanoseconds(*until), [&](const timespec *slice) {
        result = wait(slice);
        return result == timedOutResult && (result != -1 || errno == ETIMEDOUT);
    });
    return result;
}

template <typename Wait>
int CondWait(pthread_cond_t *cond, clockid_t clock, const timespec *until, Wait wait) {
    CallInfo info = TimeCall(Call::CondTimedwait, clock, cond);
    info.until = until;
    return Forward<int>(info, [&] {
        return ClockIsMoved(clock) && IsValid(until) ? MovedCondWait(cond, clock, ToNanoseconds(*until), wait)
                                                     : wait(until);
    });
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, struct timespec *now) noexcept {
    return Forward<int>(TimeCall(Call::ClockGettime, clock, now), [&] {
        if (!ClockIsMoved(clock)) {
            return TARVO_NEXT(clock_gettime)(clock, now);
        }
        *now = ToTimespec(MovedNow(clock));
        return 0;
    });
}

int pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *until) {
    return CondWait(cond, CLOCK_REALTIME, until,
                    [&](const timespec *time) { return TARVO_NEXT(pthread_cond_timedwait)(cond, mutex, time); });
}

int pthread_cond_clockwait(pthread_cond_t *cond, pthread_mutex_t *mutex, clockid_t clock,
                           const struct timespec *until) {
    return CondWait(cond, clock, until,
                    [&](const timespec *time) { return TARVO_NEXT(pthread_cond_clockwait)(cond, mutex, clock, time); });
}

int sem_timedwait(sem_t *semaphore, const struct timespec *until) {
    return Forward<int>(TimeCall(Call::SemTimedwait, CLOCK_REALTIME, semaphore), [&] {
        return Sliced(CLOCK_REALTIME, until, -1,
                      [&](const timespec *time) { return TARVO_NEXT(sem_timedwait)(semaphore, time); });
    });
}

int sem_clockwait(sem_t *semaphore, clockid_t clock, const struct timespec *until) {
    return Forward<int>(TimeCall(Call::SemTimedwait, clock, semaphore), [&] {
        return Sliced(clock, until, -1,
                      [&](const timespec *time) { return TARVO_NEXT(sem_clockwait)(semaphore, clock, time); });
    });
}

int pthread_mutex_timedlock(pthread_mutex_t *mutex, const struct timespec *until) noexcept {
    return Sliced(CLOCK_REALTIME, until, ETIMEDOUT,
                  [&](const timespec *time) { return TARVO_NEXT(pthread_mutex_timedlock)(mutex, time); });
}

int pthread_mutex_clocklock(pthread_mutex_t *mutex, clockid_t clock, const struct timespec *until) noexcept {
    return Sliced(clock, until, ETIMEDOUT,
                  [&](const timespec *time) { return TARVO_NEXT(pthread_mutex_clocklock)(mutex, clock, time); });
}

int nanosleep(const struct timespec *length, struct timespec *rest) {
    return Forward<int>(TimeCall(Call::Sleep, CLOCK_MONOTONIC, length), [&] {
        return SleepThroughClock(ToNanoseconds(*length)) ? 0 : TARVO_NEXT(nanosleep)(length, rest);
    });
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec *request, struct timespec *rest) {
    return Forward<int>(TimeCall(Call::Sleep, clock, request), [&] {
        if (!ClockIsMoved(clock)) {
            return TARVO_NEXT(clock_nanosleep)(clock, flags, request, rest);
        }
        const bool absolute = (flags & TIMER_ABSTIME) != 0;
        const int64_t remaining = ToNanoseconds(*request) - (absolute ? MovedNow(clock) : 0);
        if (remaining <= 0 || SleepThroughClock(remaining)) {
            return 0;
        }
        const timespec length = ToTimespec(remaining);
        return TARVO_NEXT(clock_nanosleep)(clock, 0, &length, absolute ? nullptr : rest);
    });
}

int usleep(useconds_t microseconds) {
    const timespec length = ToTimespec(static_cast<int64_t>(microseconds) * 1000);
    return nanosleep(&length, nullptr);
}

} // extern "C"
