#ifndef TARVO_BASE_FORKLOCK_H
#define TARVO_BASE_FORKLOCK_H

#include <pthread.h>

#include <ctime>

#include "base/Mutex.h"

// How long a fork waits for what another thread is doing, whose locks nobody would give back in the child.
constexpr int LONGEST_FORK_WAIT_SECONDS = 5;

// Takes `mutex` for the length of a fork; false when it could not be had, and is to be made anew in the child.
inline bool LockForFork(Mutex &mutex) {
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += LONGEST_FORK_WAIT_SECONDS;
    return pthread_mutex_clocklock(mutex.native_handle(), CLOCK_MONOTONIC, &until) == 0;
}

#endif // TARVO_BASE_FORKLOCK_H
