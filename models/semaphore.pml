// small: -DPOSTERS=2 -DPOSTS=2 -DTIMEOUTS=2 -DSIGNALS=1
// large: -DPOSTERS=3 -DPOSTS=2 -DTIMEOUTS=3 -DSIGNALS=2
// mutant IN_TWO_STEPS: a poster looks at the count first and adds then
// mutant TIMEOUT_BLIND: a time-out takes itself out of the count without a look whether a post has come
// mutant WAKE_LEFT: a post of the last moment is taken, its wake-up is not
#include "threads.inc"

#define TO_TAKE (POSTERS * POSTS)

short count = 0;
byte sleeper = 0; // the kernel's semaphore
byte timeouts = TIMEOUTS;
byte signals = SIGNALS;

byte begun, taken;

proctype Poster() {
    short old;
    byte i;
    for (i : 1 .. POSTS) {
        begun++;
#ifdef IN_TWO_STEPS
        old = count;
        count++;
#else
        d_step { old = count; count++ }
#endif
        if
        :: old < 0 -> sleeper++ // Wake()
        :: else
        fi
    }
}

inline TakeWake() {
    atomic { sleeper > 0 -> sleeper-- }
}

// What a wait with a limit does when that is over.
inline GiveUp() {
#ifdef TIMEOUT_BLIND
    count++;
    got = false
#else
    d_step { expected = (count == -1); if :: expected -> count = 0 :: else fi }
    if
    :: expected -> got = false
    :: else ->
#ifndef WAKE_LEFT
        TakeWake();
#endif
        got = true
    fi
#endif
}

inline WaitFor() {
    d_step { old = count; count-- }
    got = true;
    if
    :: old <= 0 ->
        do
        :: atomic { sleeper > 0 -> sleeper-- }; break
        :: signals > 0 -> signals-- // EINTR
        // The kernel may tell of a time-out also when a post has come already.
        :: timeouts > 0 -> timeouts--; GiveUp(); break
        od
    :: else
    fi
}

proctype Waiter() {
    short old;
    bool got, expected;
    do
    :: taken == TO_TAKE -> break
    :: else ->
        assert(count >= 0); // it does not count as waiting any more
        WaitFor();
        if
        :: got -> taken++; assert(taken <= begun)
        :: else
        fi
    od
}

init {
    byte i;
    atomic {
        run Waiter();
        for (i : 1 .. POSTERS) { run Poster() }
    }
    (_nr_pr == 1);
    // Neither a post nor a wake-up is left for a later wait.
    assert(taken == TO_TAKE && count == 0 && sleeper == 0)
}
