// small: -DSERIAL=1 -DREQUESTS=2 -DCLOSES=1 -DBACKGROUND=0 -DDISABLE=0 -DFULL=0
// small: -DSERIAL=1 -DREQUESTS=1 -DCLOSES=0 -DBACKGROUND=1 -DDISABLE=0 -DFULL=1
// small: -DSERIAL=0 -DREQUESTS=1 -DCLOSES=1 -DBACKGROUND=1 -DDISABLE=0 -DFULL=0
// small: -DSERIAL=1 -DREQUESTS=1 -DCLOSES=0 -DBACKGROUND=0 -DDISABLE=1 -DFULL=1
// large: -DSERIAL=1 -DREQUESTS=3 -DCLOSES=1 -DBACKGROUND=1 -DDISABLE=0 -DFULL=1
// large: -DSERIAL=1 -DREQUESTS=2 -DCLOSES=1 -DBACKGROUND=0 -DDISABLE=1 -DFULL=0
// large: -DSERIAL=0 -DREQUESTS=2 -DCLOSES=1 -DBACKGROUND=1 -DDISABLE=0 -DFULL=0
// large: -DSERIAL=0 -DREQUESTS=1 -DCLOSES=0 -DBACKGROUND=0 -DDISABLE=1 -DFULL=0
// mutant AFTER_CLOSE: a callback that was on its way when its pipe closed starts all the same (found by this model)
// mutant NOTICE_TWICE -DSERIAL=0 -DREQUESTS=1 -DCLOSES=0 -DBACKGROUND=1 -DDISABLE=0 -DFULL=0: the monitor and the search for the remote's reader both tell of the remote's end (found by this model)
// mutant LEFT_WORKER: a submission that meets a close leaves the worker that it has allocated
// mutant WAIT_FOR_SELF: the close waits for the pipe's callback, also in that callback
// mutant JOIN_LOCKED -DSERIAL=1 -DREQUESTS=1 -DCLOSES=0 -DBACKGROUND=0 -DDISABLE=1 -DFULL=1: receive threads are joined with monitorMutex held
#include "threads.inc"

#define REQUEST 1
#define NOTICE 2

// The pipe, which was opened once.
bool retired, isClosing, isOpen = true, noticed, closedByNotice;
bool inTable = true, present = true, monitorGone;
byte toRead = REQUESTS;
bool remoteGone;
byte noRoom = FULL; // submissions that find no room

bool openingMutex, writeFdMutex, closeMutex, remoteCloseMutex, tableLock, monitorMutex;

// The workers: the pipe's, if it is serial and has one, and what waits for each. A worker that was freed may still run a
// task, and the next one is another.
chan queue[2] = [4] of { byte };
bool allocated;
byte own;
bool runs[2];
bool refuses, destroyed, exitEvent, monitorEnded;
byte inside; // submissions to any worker
byte busy;   // processes that may still submit

bool nullTold, closeReturned;

inline ClearQueue(q) {
    d_step {
        do
        :: nempty(queue[q]) -> queue[q] ? _
        :: empty(queue[q]) -> break
        od
    }
}

inline FreeWorker() {
    atomic {
        if
        :: allocated -> allocated = false; ClearQueue(own); own = 1 - own
        :: else
        fi
    }
}

// OnTaskIn or OnAsyncTaskIn: whether it was taken.
inline OnTaskIn(task) {
    if
    :: refuses -> taken = false
    :: else ->
#if SERIAL
        atomic { // FindWorker: the lowest free slot is one where nothing runs, if there is one
            if
            :: !allocated ->
                allocated = true;
                if
                :: runs[own] && !runs[1 - own] -> own = 1 - own
                :: else
                fi
            :: else
            fi;
            target = own
        };
#else
        inside++;
        atomic {
            if
            :: refuses -> target = 2
            :: else ->
                if
                :: empty(queue[0]) && !runs[0] -> target = 0
                :: empty(queue[1]) && !runs[1] -> target = 1
                fi
            fi;
            // One step with its choice: nobody else gets that worker.
            if
            :: target < 2 -> queue[target] ! task
            :: else
            fi
        };
        inside--;
        taken = target < 2
#endif
    fi
}

// HandleRequest and HandleNotice.
inline Handle(task) {
    taken = false;
    if
    :: isClosing // refused
    :: !isClosing ->
        if
        :: noRoom > 0 && task == NOTICE -> noRoom--
        :: skip ->
            OnTaskIn(task);
#if SERIAL
            if
            :: !refuses -> // Assign
                atomic { queue[target] ! task; taken = true }
            :: else
            fi;
#ifndef LEFT_WORKER
            if
            :: isClosing -> FreeWorker()
            :: else
            fi
#endif
#endif
        fi
    fi
}

// Under writeFdMutex.
inline DeInitPipe() {
    LOCK(writeFdMutex);
    isClosing = true;
    isOpen = false;
    UNLOCK(writeFdMutex)
}

inline Retire() {
    LOCK(writeFdMutex);
    retired = true;
    UNLOCK(writeFdMutex)
}

inline RemoveDataMonitor() {
    LOCK(monitorMutex);
    present = false;
    UNLOCK(monitorMutex)
}

inline CloseTarvoPipe(byCallback, closing) {
    LOCK(closeMutex);
    Retire();
    LOCK(tableLock);
    closing = inTable;
    if
    :: inTable -> RemoveDataMonitor(); inTable = false
    :: else
    fi
    UNLOCK(tableLock);
    if
    :: closing -> DeInitPipe()
    :: else
    fi
    UNLOCK(closeMutex);
#ifdef WAIT_FOR_SELF
    if
    :: closing -> (!runs[own])
    :: else
    fi
#endif
    if
    :: closing && !closedByNotice -> FreeWorker()
    :: else
    fi
}

inline HandleRemoteClosed() {
    LOCK(remoteCloseMutex);
    taken = false;
    if
#ifndef NOTICE_TWICE
    :: noticed -> taken = true
    :: !noticed ->
#else
    :: true ->
#endif
        Handle(NOTICE);
        noticed = taken
    fi
    if
    :: !taken && !isClosing ->
        LOCK(openingMutex);
        LOCK(tableLock);
        if
        :: inTable -> RemoveDataMonitor()
        :: else
        fi
        UNLOCK(tableLock);
        DeInitPipe();
        UNLOCK(openingMutex)
    :: else
    fi
    UNLOCK(remoteCloseMutex)
}

proctype Monitor() {
    bool taken, stop;
    byte target;
    do
    ::
        if
        :: present && isOpen && toRead > 0 -> toRead--; Handle(REQUEST)
        :: present && isOpen && toRead == 0 && remoteGone -> HandleRemoteClosed(); present = false
        :: exitEvent -> break
        :: !present && !DISABLE -> break
        fi
    od
    monitorEnded = true;
    busy--
}

proctype Remote() {
    if
    :: remoteGone = true
    :: !isOpen
    fi
}

#if BACKGROUND
proctype Background() {
    bool taken;
    byte target;
    if
    :: !isClosing -> HandleRemoteClosed()
    :: skip
    fi
    busy--
}
#endif

proctype Worker(byte me) {
    byte task;
    bool closing;
    do
    :: atomic { nempty(queue[me]) -> queue[me] ? task; runs[me] = true }
        if
#if SERIAL && !defined(AFTER_CLOSE)
        :: retired
        // From this look on the callback runs.
        :: atomic { !retired ->
#else
        :: atomic { true ->
#endif
                assert(!SERIAL || !closeReturned);
                assert(!SERIAL || !nullTold); // the notice is the last
                assert(task != NOTICE || !nullTold);
                nullTold = nullTold || task == NOTICE
            };
            if
            :: task == NOTICE ->
                closedByNotice = true;
                closedByNotice = false;
                CloseTarvoPipe(true, closing);
                FreeWorker()
            :: else
            fi
        fi
        runs[me] = false
    :: destroyed || (!DISABLE && busy == 0 && empty(queue[me])) -> break
    od
}

#if CLOSES
proctype Closer() {
    bool closing;
    CloseTarvoPipe(false, closing);
    closeReturned = true;
    busy--
}
#endif

inline DropPipes() {
    LOCK(tableLock);
    if
    :: inTable ->
        Retire();
        RemoveDataMonitor();
        DeInitPipe();
        inTable = false
    :: else
    fi
    UNLOCK(tableLock);
    FreeWorker()
}

#if DISABLE
// A close of another pipe.
proctype OtherCloser() {
    LOCK(tableLock);
    LOCK(monitorMutex);
    UNLOCK(monitorMutex);
    UNLOCK(tableLock)
}

proctype Disabler() {
    DropPipes();
    LOCK(monitorMutex);
    refuses = true;
    monitorGone = true;
#ifndef JOIN_LOCKED
    UNLOCK(monitorMutex);
#endif
    exitEvent = true;
    (monitorEnded);
#ifdef JOIN_LOCKED
    UNLOCK(monitorMutex);
#endif
    DropPipes();
    (inside == 0);
    ClearQueue(0);
    ClearQueue(1);
    (!runs[0] && !runs[1]);
    destroyed = true
}
#endif

init {
    atomic {
        busy = 1 + CLOSES + BACKGROUND;
        run Monitor();
        run Remote();
        run Worker(0);
        run Worker(1);
#if BACKGROUND
        run Background();
#endif
#if CLOSES
        run Closer();
#endif
#if DISABLE
        run OtherCloser();
        run Disabler()
#endif
    }
    (_nr_pr == 1);
    assert(!closeReturned || (!isOpen && !inTable));
    assert(!allocated || inTable)
}
