#ifndef TARVO_BENCH_PROCESS_TIME_H
#define TARVO_BENCH_PROCESS_TIME_H

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <vector>

namespace bench {

constexpr int64_t SECOND = 1000000000;

inline timespec ToTimespec(int64_t nanoseconds) {
    return {static_cast<time_t>(nanoseconds / SECOND), static_cast<long>(nanoseconds % SECOND)};
}

inline int64_t Nanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * SECOND + now.tv_nsec;
}

inline int64_t Now() { return Nanoseconds(CLOCK_MONOTONIC); }

// Not through the C++ library, which may add the clock's reading to each sleep.
inline void SleepUntil(int64_t moment) {
    const timespec until = ToTimespec(moment);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
    }
}

// User and system time of some processes, all threads.
inline int64_t ProcessorTime(const std::vector<pid_t> &processes) {
    int64_t sum = 0;
    for (const pid_t process : processes) {
        clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
        sum += clock_getcpuclockid(process, &clock) == 0 ? Nanoseconds(clock) : 0;
    }
    return sum;
}

} // namespace bench

#endif // TARVO_BENCH_PROCESS_TIME_H
