// small: -DREADERS=2 -DWRITERS=2 -DROUNDS=1 -DSPURIOUS=1
// large: -DREADERS=3 -DWRITERS=1 -DROUNDS=1 -DSPURIOUS=2
// large: -DREADERS=2 -DWRITERS=1 -DROUNDS=2 -DSPURIOUS=2
// mutant NOTIFY_UNLOCKED: WakeWriter notifies without idleMutex, between the writer's look and its sleep
// mutant LEAVE_SILENTLY: a reader that gives way to a writer leaves without waking him
// mutant STAY: a reader that comes to a writer waits for him with its place in the count
// mutant CANCELLED: the writer's sleep is a cancellation point
#include "threads.inc"

#define WRITER 16 // 2^30 in the code: more than there are readers

short users = 0;
bool writers, idleMutex;
// The condition variable: whether somebody sleeps on it, and whether he has been notified.
bool sleeps, notified;
byte spurious = SPURIOUS;
bool cancelled; // the first writer has been cancelled

byte readersInside, writersInside;

// fetch_add(delta), with what it returns in `old`.
#define FETCH_ADD(delta) d_step { old = users; users = users + (delta) }

inline WakeWriter() {
#ifndef NOTIFY_UNLOCKED
    LOCK(idleMutex);
#endif
    notified = sleeps;
#ifndef NOTIFY_UNLOCKED
    UNLOCK(idleMutex);
#endif
}

inline UnlockShared() {
    FETCH_ADD(-1);
    if
    :: old == 1 - WRITER -> WakeWriter()
    :: else
    fi
}

inline AwaitWriter() {
    do
    ::
#ifdef LEAVE_SILENTLY
        FETCH_ADD(-1);
#elif !defined(STAY)
        UnlockShared();
#endif
        LOCK(writers);
        UNLOCK(writers);
#ifdef STAY
        break
#else
        FETCH_ADD(1);
        if
        :: old >= 0 -> break
        :: else
        fi
#endif
    od
}

inline LockShared() {
    FETCH_ADD(1);
    if
    :: old < 0 -> AwaitWriter()
    :: else
    fi
}

proctype Reader() {
    short old;
    byte round;
    for (round : 1 .. ROUNDS) {
        LockShared();
        readersInside++;
        assert(writersInside == 0);
        readersInside--;
        UnlockShared()
    }
}

// std::condition_variable::wait: lets go of the mutex and sleeps in one step, and wakes for a notification or for none.
inline Sleep() {
    d_step { idleMutex = false; sleeps = true; notified = false }
    if
    :: notified
    :: spurious > 0 -> spurious--
#ifdef CANCELLED
    :: cancelled && me == 0 -> gone = true
#endif
    fi
    sleeps = false;
    LOCK(idleMutex)
}

inline AwaitReaders() {
    LOCK(idleMutex);
    do
    :: users == -WRITER || gone -> break
    :: else -> Sleep()
    od
    UNLOCK(idleMutex)
}

proctype Writer(byte me) {
    short old;
    byte round;
    bool gone;
    for (round : 1 .. ROUNDS) {
        LOCK(writers);
        FETCH_ADD(-WRITER);
        if
        :: old != 0 -> AwaitReaders()
        :: else
        fi
        if
        :: gone -> goto end // its stack is unwound: what stood in it gives back idleMutex, and nothing else
        :: else
        fi
        writersInside++;
        assert(writersInside == 1 && readersInside == 0);
        writersInside--;
        FETCH_ADD(WRITER);
        UNLOCK(writers);
        if
        :: cancelled && me == 0 -> break // where the lock's owner has given it back
        :: !cancelled || me != 0
        fi
    }
end:
    skip
}

init {
    byte i;
    atomic {
        for (i : 1 .. READERS) { run Reader() }
        for (i : 1 .. WRITERS) { run Writer(i - 1) }
    }
    cancelled = true;
    (_nr_pr == 1);
    assert(users == 0 && !writers && !idleMutex)
}
