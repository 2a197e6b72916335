// small: -DORDINARY=2 -DURGENT=1 -DNAMED=0 -DCANCEL=1
// small: -DORDINARY=1 -DURGENT=0 -DNAMED=1 -DCANCEL=0
// large: -DORDINARY=2 -DURGENT=2 -DNAMED=0 -DCANCEL=1
// large: -DORDINARY=1 -DURGENT=1 -DNAMED=1 -DCANCEL=1
// mutant ONE_SEMAPHORE -DORDINARY=2 -DURGENT=2 -DNAMED=0 -DCANCEL=0: both kinds of requests sleep on one semaphore (found in the code)
// mutant DRAIN_BOTH -DORDINARY=2 -DURGENT=2 -DNAMED=0 -DCANCEL=0: an ordinary request that finds no slot drops the wake-ups of urgent ones, too
// mutant NO_HAND_ON: a thread that is cancelled in its wait keeps its wake-up (found in the code)
// mutant DESTROY_FIRST: the pool ends before those inside a submission have got their worker
// mutant SLOT_BEFORE_JOIN -DORDINARY=1 -DURGENT=0 -DNAMED=1 -DCANCEL=0: Destroy waits for the last slot with a task dropped
#include "threads.inc"

#define NORMAL 1
#define MAX 2 // and one slot for urgent requests

mtype = { IDLE, WORKING, STOPPING };
mtype state = IDLE;
bool findMutex; // stateMutex is an atomic section: what others do meanwhile can as well come before or after it
bool allocated[MAX];
byte destroySem;

// The two semaphores: their values, how many sleep on each, and how many of them are being woken. A post wakes one sleeper,
// who then has to find the post there. Which one it was shows when he wakes.
#define FREE 0
#define RESERVE 1
byte posts[2], asleep[2], woken[2];
bool cancelled;

// The workers: their tasks in the queue, that of one that takes long, and the task that runs.
bool exists[MAX], running[MAX], retired[MAX], threadEnded[MAX], busy[MAX];
byte queue[MAX], namedTasks[MAX];
bool ended, destroyDone;

// The submissions: a turnstile, and a name with its slot.
bool shut;
byte inside;
byte urgentBack;   // urgent submissions that have returned
bool namedBack;    // and the one under a name
#define NONE 9
byte nameSlot = NONE;

inline Post(k) {
    d_step {
        posts[k]++;
        if
        :: asleep[k] > 0 -> asleep[k]--; woken[k]++
        :: else
        fi
    }
}

inline PostUpTo(k) {
    if
    :: posts[k] < MAX -> Post(k)
    :: else
    fi
}

// WaitForFreeWorker: `gone` when the thread was cancelled there.
inline Wait(k) {
    do
    :: atomic { posts[k] > 0 -> posts[k]--; break }
    :: atomic { posts[k] == 0 -> asleep[k]++ };
        if
        :: atomic { woken[k] > 0 -> woken[k]-- }
        :: CANCEL && cancelled && me == 0 ->
            atomic {
                gone = true;
                if // just woken, or not
                :: woken[k] > 0 -> woken[k]--
                :: asleep[k] > 0 -> asleep[k]--
                fi
            };
#ifndef NO_HAND_ON
            Post(k);
#endif
            break
        fi
    od
}

inline GetSlotAction(limit) {
    slot = NONE;
    d_step {
        if
        :: !allocated[0] -> slot = 0
        :: allocated[0] && limit > 1 && !allocated[1] -> slot = 1
        :: else
        fi;
        if
        :: slot != NONE -> allocated[slot] = true
        :: else
        fi
    }
}

inline GetFreeSlot(limit) {
    slot = NONE;
    if
    :: state == STOPPING
    :: state != STOPPING -> GetSlotAction(limit); state = WORKING
    fi
}

inline GetFreeSlotAgain(limit) {
    atomic {
    GetFreeSlot(limit);
#ifndef ONE_SEMAPHORE
    if
    :: slot == NONE -> posts[FREE] = 0
    :: else
    fi;
    if
#ifdef DRAIN_BOTH
    :: slot == NONE -> posts[RESERVE] = 0
#else
    :: slot == NONE && limit >= MAX -> posts[RESERVE] = 0
#endif
    :: else
    fi;
#endif
    }
}

inline FreeSlotAction(s) {
    allocated[s] = false;
#ifndef ONE_SEMAPHORE
    PostUpTo(RESERVE);
#endif
    PostUpTo(FREE)
}

inline FreeSlotEvent(s) {
    if
    :: state == IDLE
    :: state == WORKING ->
        FreeSlotAction(s);
        if
        :: !allocated[0] && !allocated[1] -> state = IDLE
        :: else
        fi
    :: state == STOPPING ->
        FreeSlotAction(s);
        if
        :: !allocated[0] && !allocated[1] -> destroySem++
        :: else
        fi
    fi
}

inline FreeWorkerSlot(s) {
    atomic { FreeSlotEvent(s) }
}

inline FillWorkersTo(last) {
    atomic {
        if
        :: !ended && !exists[0] -> exists[0] = true; running[0] = true
        :: else
        fi;
        if
        :: !ended && last == 1 && !exists[1] -> exists[1] = true; running[1] = true
        :: else
        fi
    }
}

inline SemaphoreOf(limit) {
#ifdef ONE_SEMAPHORE
    Wait(FREE)
#else
    if
    :: limit > NORMAL -> Wait(RESERVE)
    :: else -> Wait(FREE)
    fi
#endif
}

inline PickupWorker(limit) {
    atomic { GetFreeSlot(limit) };
    do
    :: slot != NONE || gone -> break
    :: else ->
        SemaphoreOf(limit);
        if
        :: gone
        :: else -> GetFreeSlotAgain(limit)
        fi
    od;
    if
    :: gone
    :: else -> FillWorkersTo(slot)
    fi
}

// DropAsyncTask, with all of GetWorker.
proctype Submitter(byte me, limit) {
    byte slot = NONE;
    bool gone;
    inside++;
    if
    :: shut -> goto leave
    :: else
    fi;
    PickupWorker(limit);
    if
    :: gone -> goto leave
    :: else
    fi;
    atomic {
        assert(exists[slot] && !retired[slot]); // the end waits for those inside
        queue[slot]++;
        assert(queue[slot] == 1) // the slot was nobody else's
    };
leave:
    inside--;
    urgentBack = urgentBack + (limit == MAX)
}

// DropTo under a name, from a receive thread: FindWorker, which waits with findMutex held.
proctype NamedSubmitter(byte me) {
    byte slot = NONE;
    bool gone;
    LOCK(findMutex);
    if
    :: nameSlot == NONE ->
        PickupWorker(NORMAL);
        nameSlot = slot
    :: else
    fi;
    UNLOCK(findMutex);
    atomic {
        if
        :: nameSlot != NONE -> namedTasks[nameSlot]++
        :: else
        fi
    };
    namedBack = true
}

// FreeWorker of the name, by a close.
inline FreeNamed() {
    atomic { slot = nameSlot; nameSlot = NONE };
    if
    :: slot != NONE ->
        namedTasks[slot] = 0;
        FreeWorkerSlot(slot)
    :: else
    fi
}

proctype Closer() {
    byte slot;
    FreeNamed()
}

proctype Worker(byte s) {
    bool oneShot;
    do
    :: exists[s] && (queue[s] + namedTasks[s] > 0 || !running[s]) ->
        do
        :: atomic { namedTasks[s] > 0 -> namedTasks[s]--; busy[s] = true; oneShot = false };
            assert(!destroyDone);
            busy[s] = false
        :: atomic { queue[s] > 0 -> queue[s]--; busy[s] = true };
            assert(!destroyDone);
            if
            // An ordinary callback lasts as long as it takes urgent ones to get their turn.
            :: s == 0 -> (urgentBack == URGENT)
            :: s != 0
            fi;
            FreeWorkerSlot(s);
            busy[s] = false
        :: atomic { queue[s] + namedTasks[s] == 0 -> break }
        od;
        if
        :: !running[s] -> break
        :: else
        fi
    :: destroyDone && !exists[s] -> break
    od;
    threadEnded[s] = true
}

inline HasBusyWorker() {
    anyBusy = false;
    i = 0;
    do
    :: i < MAX && exists[i] ->
        if
        :: busy[i] -> anyBusy = true
        :: else -> FreeWorkerSlot(i)
        fi;
        i++
    :: i == MAX || !exists[i] -> break
    od
}

inline RetireWorkers() {
    ended = true;
    i = 0;
    do
    :: i < MAX && exists[i] ->
        atomic { retired[i] = true; running[i] = false };
        (threadEnded[i]);
        atomic { queue[i] = 0; namedTasks[i] = 0; i++ }
    :: i == MAX || !exists[i] -> break
    od
}

inline StopAction() {
    atomic { stopped = nameSlot; nameSlot = NONE };
    atomic {
        for (i : 0 .. MAX - 1) {
            queue[i] = 0; // detached
            namedTasks[i] = 0;
            running[i] = false
        }
    };
    if
    :: stopped != NONE -> FreeSlotEvent(stopped)
    :: else
    fi
}

proctype Ender() {
    byte i, stopped, slot;
    bool anyBusy;
    shut = true;
#if NAMED
    FreeNamed();
    (namedBack); // the receive threads are joined
    FreeNamed();
#endif
#ifndef DESTROY_FIRST
    (inside == 0);
#endif
    atomic {
        if
        :: state == IDLE -> state = STOPPING; destroySem++
        :: state == WORKING -> state = STOPPING; StopAction()
        fi
    };
    HasBusyWorker();
    if
    :: anyBusy ->
#ifndef SLOT_BEFORE_JOIN
        RetireWorkers();
        HasBusyWorker();
#endif
        atomic { destroySem > 0 -> destroySem-- }
    :: else
    fi;
    RetireWorkers();
    assert(!busy[0] && !busy[1]);
    destroyDone = true
}

init {
    byte i;
    atomic {
        for (i : 1 .. ORDINARY) { run Submitter(i - 1, NORMAL) }
#if URGENT
        for (i : 1 .. URGENT) { run Submitter(ORDINARY + i - 1, MAX) }
#endif
#if NAMED
        run NamedSubmitter(ORDINARY + URGENT);
        run Closer();
#endif
        run Worker(0);
        run Worker(1);
        run Ender()
    }
#if CANCEL
    cancelled = true;
#endif
    (_nr_pr == 1)
}
