// small: -DCALLERS=2 -DANSWERS=1 -DCLOSES=1 -DEXIT=0
// small: -DCALLERS=1 -DANSWERS=1 -DCLOSES=0 -DEXIT=1
// large: -DCALLERS=2 -DANSWERS=2 -DCLOSES=1 -DEXIT=0
// large: -DCALLERS=2 -DANSWERS=1 -DCLOSES=0 -DEXIT=1
// mutant SHARED_ID: a call is taken off the list by the id in the request object, which two calls share (found in the code)
// mutant TIMEOUT_STAYS: a call that has timed out stays in the list
// mutant DELIVER_UNLOCKED: an answer is given to its call without outRequestMutex
// mutant DISABLE_UNLOCKED: a close ends the waits first and empties the list under another hold of its mutex
// mutant TWO_STEPS -DCALLERS=1 -DANSWERS=1 -DCLOSES=0 -DEXIT=1: the table is registered for the exit before its protector is there (found in the code)
#include "threads.inc"

#define OK 0
#define EPIPE 1
#define ETIMEDOUT 2
#define PENDING 3
#define REFUSED 4

// The pipe's list of outstanding requests; a request's id is its caller's number.
bool listed[CALLERS], accepts = true;
bool listMutex, outRequestMutex; // what is one step under the list's is one here

// The request's semaphore, as semaphore.pml shows it to be: what was counted, whether the caller sleeps, its wake-ups.
byte counted[CALLERS], wakes[CALLERS];
bool waiting[CALLERS];

// The caller's block: whether it is still there for a response, whether it has one, and the payloads on the heap.
bool block[CALLERS], data[CALLERS];
byte heap;
byte result[CALLERS];

byte sharedId; // TarvoRequest::id of an object that all callers use
byte callersBack;

// The process's object: the table.
bool making, made, published, registered, alive, destroyed;
Shared protector;
byte references;

#define FREE_DATA(c) d_step { if :: data[c] -> data[c] = false; heap-- :: else fi }

inline Count(c, needed) {
    d_step {
        needed = waiting[c];
        if
        :: waiting[c] -> waiting[c] = false
        :: else -> counted[c]++
        fi
    }
}

// RemoveRequest: by the id that the caller's request has.
inline RemoveRequest() {
    LOCK(outRequestMutex);
#ifdef SHARED_ID
    atomic { !listMutex -> listed[sharedId] = false };
#else
    atomic { !listMutex -> listed[me] = false };
#endif
    UNLOCK(outRequestMutex)
}

// OutSyncTimedRequest::Wait: -> result[me].
inline Wait() {
    d_step {
        slept = counted[me] == 0;
        if
        :: slept -> waiting[me] = true
        :: else -> counted[me]--
        fi
    }
    if
    :: !slept -> result[me] = OK
    :: else ->
        if
        :: atomic { wakes[me] > 0 -> wakes[me]-- }; result[me] = OK
        :: atomic { waiting[me] -> waiting[me] = false; result[me] = ETIMEDOUT }
        :: cancelled = true // in its sleep: the stack is unwound
        fi
    fi
    if
    :: !cancelled && result[me] == ETIMEDOUT ->
#ifndef TIMEOUT_STAYS
        RemoveRequest();
#endif
        FREE_DATA(me)
    :: !cancelled && result[me] == OK && !data[me] -> result[me] = EPIPE
    :: else
    fi
}

// TarvoTimedRPCSync.
proctype Caller(byte me) {
    bool slept, cancelled, answered, refused;
#if EXIT
    // ProcessObject::Get, with what makes it for the first.
    bool had;
    LOCK(making);
    if
    :: !published && !registered ->
        assert(!made);
        made = true;
        references++;
#ifdef TWO_STEPS
        registered = true;
        assert(!destroyed); // the protector is made from it
        alive = true;
        published = true
#else
        alive = true;
        published = true;
        registered = true
#endif
    :: else
    fi
    UNLOCK(making);
    SHARED_LOCK(protector);
    had = alive && references > 0;
    references = references + had;
    SHARED_UNLOCK(protector);
    if
    :: !had -> goto end // -ENOENT
    :: else
    fi
    assert(!destroyed);
#endif
    block[me] = true;
    sharedId = me; // MakeOutRequest writes it
    atomic { !listMutex -> refused = !accepts; listed[me] = accepts };
    if
    :: refused -> result[me] = REFUSED; goto leave
    :: else
    fi
    if
    :: skip // sent
    :: result[me] = REFUSED; goto undo // the FIFO is full, or the remote gone
    fi
    // PendingCall::Wait
    if
    :: counted[me] > 0 -> result[me] = OK; answered = true // also after a close: then without data
    :: else ->
        Wait();
        if
        :: !cancelled && result[me] == EPIPE -> RemoveRequest(); FREE_DATA(me)
        :: else
        fi
        answered = !cancelled && result[me] == OK
    fi
undo:
    if
    :: !answered ->
#ifndef TIMEOUT_STAYS
        RemoveRequest();
#endif
        FREE_DATA(me)
    :: else
    fi
leave:
    assert(!(result[me] == OK && !answered) || cancelled);
    block[me] = false; // the caller's stack: nobody may write there any more
    FREE_DATA(me);     // TarvoDestroyResponse, or delete[]
#if EXIT
    assert(!destroyed);
    atomic {
        references--;
        if
        :: references == 0 -> destroyed = true
        :: else
        fi
    }
end:
#endif
    callersBack++
}

// The receive thread: an answer to anybody, once or several times, as the remote likes.
proctype Receiver() {
    byte i, c;
    bool found, needed;
    for (i : 1 .. CALLERS * ANSWERS) {
        if
        :: c = 0
#if CALLERS > 1
        :: c = 1
#endif
#if CALLERS > 2
        :: c = 2
#endif
        fi
        needed = false;
#ifndef DELIVER_UNLOCKED
        LOCK(outRequestMutex);
#endif
        atomic { !listMutex -> found = listed[c]; listed[c] = false };
        if
        :: found ->
            assert(block[c]);
            assert(!data[c]);
            d_step { data[c] = true; heap++ }
            Count(c, needed)
        :: else // dropped with its payload
        fi
#ifndef DELIVER_UNLOCKED
        UNLOCK(outRequestMutex);
#endif
        if
        :: needed -> wakes[c]++
        :: else
        fi
    }
}

// OutRequestList::Disable.
inline Disable() {
    LOCK(listMutex);
    accepts = false;
    i = 0;
    do
    :: i < CALLERS ->
        if
        :: listed[i] ->
            Count(i, needed);
            if
            :: needed -> wakes[i]++
            :: else
            fi
        :: else
        fi
        i++
    :: else -> break
    od
#ifdef DISABLE_UNLOCKED
    UNLOCK(listMutex);
    LOCK(listMutex);
#endif
    atomic { for (i : 0 .. CALLERS - 1) { listed[i] = false } };
    UNLOCK(listMutex)
}

#if CLOSES
// The pipe is closed, by its user or because its remote has gone, and opened again.
proctype Closer() {
    byte i, closes;
    bool needed;
    for (closes : 1 .. CLOSES) {
        Disable();
        atomic { !listMutex -> accepts = true }
    }
}
#endif

#if EXIT
proctype Exit() {
    byte i;
    bool needed;
    if
    :: registered ->
        EXCLUSIVE_LOCK(protector);
        alive = false;
        EXCLUSIVE_UNLOCK(protector);
        if // AwaitCallers, and it has a limit
        :: references == 1
        :: true
        fi
        assert(!destroyed);
        Disable();
        atomic {
            references--;
            if
            :: references == 0 -> destroyed = true
            :: else
            fi
        }
    :: !registered // before there is one
    fi
}
#endif

init {
    byte i;
    atomic {
        for (i : 0 .. CALLERS - 1) { result[i] = PENDING; run Caller(i) }
        run Receiver();
#if CLOSES
        run Closer();
#endif
#if EXIT
        run Exit();
#endif
    }
    (_nr_pr == 1);
    assert(callersBack == CALLERS && heap == 0);
    for (i : 0 .. CALLERS - 1) { assert(!listed[i]) }
}
