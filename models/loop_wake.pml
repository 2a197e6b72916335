// small: -DPOSTERS=2 -DPOSTS=1 -DSTOPS=1 -DINSIDE=1
// large: -DPOSTERS=3 -DPOSTS=2 -DSTOPS=1 -DINSIDE=1
// large: -DPOSTERS=2 -DPOSTS=2 -DSTOPS=2 -DINSIDE=1
// mutant CLEAR_LAST: the loop takes what was posted first and clears the descriptor then
// mutant FLAG_FIRST: the loop says that the descriptor is clear before it has read it
// mutant SLEEP_LAST: a run looks at the stop before it says that it sleeps
// mutant QUEUE_SILENTLY: a round that leaves work behind leaves the descriptor as it is
#include "threads.inc"

#define TO_RUN (POSTERS * POSTS + INSIDE)

// Posts: the functions that wait, and those that the loop has taken.
bool mutex, signalled;
byte incoming, taken, eventfd;
bool queued; // in the queue of the next round

bool stop, sleeping;
byte ran, stopsSeen;

inline Wake() {
    d_step { before = signalled; signalled = true };
    if
    :: !before -> eventfd++
    :: else
    fi
}

proctype Poster() {
    byte i;
    bool before;
    for (i : 1 .. POSTS) {
        LOCK(mutex);
        incoming++;
        Wake();
        UNLOCK(mutex)
    }
}

proctype Stopper() {
    byte i;
    bool before;
    for (i : 1 .. STOPS) {
        stop = true;
        if
        :: sleeping -> Wake()
        :: else
        fi;
        (stopsSeen >= i) // each is to be heard, however late
    }
}

// Posts::Clear, and what OnEvents does then.
inline OnEvents() {
#ifdef CLEAR_LAST
    LOCK(mutex);
    queued = queued || incoming + taken > 0;
    UNLOCK(mutex);
#endif
#ifdef FLAG_FIRST
    signalled = false;
    eventfd = 0;
#else
    eventfd = 0;
    signalled = false;
#endif
#ifndef CLEAR_LAST
    LOCK(mutex);
    queued = queued || incoming + taken > 0;
    UNLOCK(mutex)
#endif
}

// Poller::Poll: `patient` when there may be a sleep in it.
inline Poll(patient) {
    if
    :: eventfd > 0 -> OnEvents()
    :: !patient && eventfd == 0
    fi
}

// Posts::Serve, one function at most: the loop's other members want their share.
inline Serve() {
    if
    :: queued ->
        queued = false;
        if
        :: taken == 0 ->
            LOCK(mutex);
            taken = incoming;
            incoming = 0;
            UNLOCK(mutex)
        :: else
        fi;
        if
        :: taken > 0 ->
            taken--;
            ran++;
#if INSIDE
            if // it posts another, in the round: nobody has to be woken
            :: ran == 1 ->
                LOCK(mutex);
                incoming++;
                UNLOCK(mutex);
                queued = true
            :: else
            fi
#endif
        :: else
        fi;
        LOCK(mutex);
        queued = queued || incoming + taken > 0;
        UNLOCK(mutex)
    :: else
    fi
}

inline TakeStop() {
    stopped = false;
    if
    :: stop -> stop = false; stopped = true; OnEvents()
    :: else
    fi
}

// The end of a round: RoundScope.
inline EndRound() {
    sleeping = false;
#ifndef QUEUE_SILENTLY
    if
    :: queued -> Wake()
    :: else
    fi
#endif
}

// TarvoLoop::Run without a limit, until it is stopped.
inline Run() {
    TakeStop();
    do
    :: stopped -> break
    :: else ->
        if
        :: queued -> Poll(false)
        :: else ->
#ifdef SLEEP_LAST
            calm = !stop;
            sleeping = true;
#else
            sleeping = true;
            calm = !stop;
#endif
            Poll(calm);
            sleeping = false
        fi;
        Serve();
        TakeStop()
    od;
    stopsSeen++;
    EndRound()
}

// TarvoLoop::Dispatch of a program that waits for the descriptor itself.
inline Dispatch() {
    (eventfd > 0);
    Poll(false);
    Serve();
    EndRound()
}

proctype Loop() {
    bool before, stopped, calm;
    do
    :: stopsSeen < STOPS -> Run()
    :: stopsSeen == STOPS && ran < TO_RUN -> Dispatch()
    :: stopsSeen == STOPS && ran == TO_RUN -> break
    od
}

init {
    byte i;
    atomic {
        run Loop();
        run Stopper();
        for (i : 1 .. POSTERS) { run Poster() }
    }
    (_nr_pr == 1);
    assert(ran == TO_RUN && incoming + taken == 0)
}
