#ifndef TARVO_BASE_FORKLOCK_H
#define TARVO_BASE_FORKLOCK_H

#include <pthread.h>

#include <ctime>
#include <new>

#include "base/Mutex.h"

// A fork's hold of one mutex, taken before and given back after it (pthread_atfork(3)): the child, which has the
// forking thread only, must not find the mutex held by another one, nor what that one was in the middle of. Owns: the
// locked state of the mutex, during a fork. Threads: each has one of its own (__thread), as several may fork. Locks:
// the given mutex. Ends: never.
class ForkLock {
public:
    // Waits for the thread that holds it, but not for ever: that may be the forking one, in a signal handler.
    void Take(Mutex &mutex) NO_THREAD_SAFETY_ANALYSIS {
        timespec until{};
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_sec += LONGEST_WAIT_SECONDS;
        holds = pthread_mutex_clocklock(mutex.native_handle(), CLOCK_MONOTONIC, &until) == 0;
    }

    void ReleaseInParent(Mutex &mutex) NO_THREAD_SAFETY_ANALYSIS {
        if (holds) {
            mutex.unlock();
        }
    }

    // A mutex that was not had is held by a thread that the child does not have, and made anew.
    void ReleaseInChild(Mutex &mutex) {
        if (holds) {
            ReleaseInParent(mutex);
        } else {
            new (&mutex) Mutex;
        }
    }

private:
    static constexpr int LONGEST_WAIT_SECONDS = 5;

    bool holds = false;
};

#endif // TARVO_BASE_FORKLOCK_H
