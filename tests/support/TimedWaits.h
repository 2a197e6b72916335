// The part of the movable clock that the interposed functions see.
#ifndef TARVO_SUPPORT_TIMEDWAITS_H
#define TARVO_SUPPORT_TIMEDWAITS_H

#include <pthread.h>

#include <cstdint>
#include <ctime>
#include <functional>

namespace tarvo_test::detail {

constexpr int64_t NANOSECONDS_PER_SECOND = 1000000000;

inline int64_t ToNanoseconds(const timespec &time) {
    return static_cast<int64_t>(time.tv_sec) * NANOSECONDS_PER_SECOND + time.tv_nsec;
}

timespec ToTimespec(int64_t nanoseconds);

// The unmoved clock.
int64_t RealNow(clockid_t clock);

// Whether this thread sees `clock` moved.
bool ClockIsMoved(clockid_t clock);
int64_t MovedNow(clockid_t clock);

// Moves both clocks by a sleep's length; false when sleeps are real.
bool SleepThroughClock(int64_t nanoseconds);

// A condition wait until `deadline` on the moved `clock`; `wait` waits on the real one.
int MovedCondWait(pthread_cond_t *cond, clockid_t clock, int64_t deadline,
                  const std::function<int(const timespec *)> &wait);

// The same for things that lose nothing when they are tried for a short while at a time: semaphores and mutexes.
// `wait` returns whether it timed out.
void MovedSlicedWait(clockid_t clock, int64_t deadline, const std::function<bool(const timespec *)> &wait);

} // namespace tarvo_test::detail

#endif // TARVO_SUPPORT_TIMEDWAITS_H
