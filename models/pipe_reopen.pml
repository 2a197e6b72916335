// small: -DOPENS=2 -DREMOTES=1 -DCLOSES=1 -DDISABLE=0 -DBACKGROUND=0 -DUSES=0
// small: -DOPENS=2 -DREMOTES=2 -DCLOSES=0 -DDISABLE=0 -DBACKGROUND=1 -DUSES=0
// small: -DOPENS=1 -DREMOTES=1 -DCLOSES=0 -DDISABLE=1 -DBACKGROUND=0 -DUSES=1
// large: -DOPENS=2 -DREMOTES=2 -DCLOSES=1 -DDISABLE=0 -DBACKGROUND=0 -DUSES=1
// large: -DOPENS=2 -DREMOTES=1 -DCLOSES=0 -DDISABLE=1 -DBACKGROUND=0 -DUSES=1
// large: -DOPENS=3 -DREMOTES=2 -DCLOSES=0 -DDISABLE=0 -DBACKGROUND=1 -DUSES=0
// large: -DOPENS=2 -DREMOTES=1 -DCLOSES=1 -DDISABLE=0 -DBACKGROUND=1 -DUSES=0
// mutant NO_RETIRE: an open that had found the pipe before its close opens it again (found in the code)
// mutant OLD_EVENTS -DOPENS=2 -DREMOTES=2 -DCLOSES=0 -DDISABLE=0 -DBACKGROUND=0 -DUSES=0: an event acts on whatever entry has its handle by then (found in the code)
// mutant NO_OPENING_MUTEX -DOPENS=2 -DREMOTES=1 -DCLOSES=0 -DDISABLE=0 -DBACKGROUND=1 -DUSES=0: a remote close begins in the middle of a registration
// mutant DROP_ORDER -DOPENS=1 -DREMOTES=1 -DCLOSES=0 -DDISABLE=1 -DBACKGROUND=0 -DUSES=0: the end of all pipes takes them out of their monitor before it waits for registrations (found by this model)
// mutant NO_USE -DOPENS=1 -DREMOTES=1 -DCLOSES=0 -DDISABLE=1 -DBACKGROUND=0 -DUSES=1: descriptors are closed while a system call uses them
// mutant CLOSE_WATCHED: the descriptor is closed before the monitor lets go of it
#include "threads.inc"

#define INSTANCES 4 // openings at most

// The pipe. A descriptor is the number of its opening, so that one that was closed is never taken for the next: what would
// be done to it hits whatever has its number by then.
byte readFd, opening;
bool isOpening, isClosing, retired; // closeAction 1 and -1
bool isOpen[INSTANCES + 1];
bool watched[INSTANCES + 1]; // in the epoll set
bool gone[INSTANCES + 1];    // its remote has closed
bool givenUp[INSTANCES + 1]; // by the search for the remote's reader
byte instances;

// The table, and the pipe's entry in the monitor.
bool inTable = true;
bool present, monitorGone;
byte entryFd, entryRegistration, entryOpening, changes;

bool openMutex, openingMutex, writeFdMutex, closeMutex, remoteCloseMutex, tableLock, monitorMutex, entryMutex;
Shared use;

bool exitEvent, monitorEnded;
byte busy;     // threads of the program that are not done
bool userClosed;

#define HUNG_UP(fd) (watched[fd] && gone[fd])
#define ANY_HUNG_UP HUNG_UP(1) || HUNG_UP(2) || HUNG_UP(3) || HUNG_UP(4)

inline CloseDescriptor(fd) {
    d_step {
        assert(isOpen[fd]);
        isOpen[fd] = false;
        watched[fd] = false
    }
}

inline AwaitUnused() {
#ifndef NO_USE
    EXCLUSIVE_LOCK(use);
    EXCLUSIVE_UNLOCK(use)
#else
    skip
#endif
}

// Under writeFdMutex.
inline CloseOnce() {
    if
    :: isOpening ->
        d_step { isOpening = false; isClosing = true; old = readFd; readFd = 0 }
        AwaitUnused();
        if
        :: old != 0 -> CloseDescriptor(old)
        :: else
        fi
    :: else
    fi
}

inline DeInitPipe() {
    LOCK(writeFdMutex);
    CloseOnce();
    UNLOCK(writeFdMutex)
}

inline Retire() {
#ifndef NO_RETIRE
    LOCK(writeFdMutex);
    retired = true;
    EXCLUSIVE_LOCK(use);
    EXCLUSIVE_UNLOCK(use);
    UNLOCK(writeFdMutex)
#else
    skip
#endif
}

// DataMonitorImpl::Remove, under entryMutex.
inline RemoveIt() {
    d_step {
        assert(isOpen[entryFd] && watched[entryFd]); // epoll_ctl
        watched[entryFd] = false;
        present = false;
        changes++
    }
}

inline RemoveDataMonitor() {
    LOCK(monitorMutex);
    if
    :: !monitorGone ->
        LOCK(entryMutex);
        if
        :: present -> RemoveIt()
        :: else
        fi
        UNLOCK(entryMutex)
    :: else
    fi
    UNLOCK(monitorMutex)
}

// DataMonitorImpl::Add.
inline Add(fd) {
    LOCK(entryMutex);
    if
    :: !present ->
        d_step {
            assert(isOpen[fd]);
            watched[fd] = true;
            present = true;
            entryFd = fd;
            changes++;
            entryRegistration = changes;
            entryOpening = opening
        }
    :: else
    fi
    UNLOCK(entryMutex)
}

inline CloseReadEnd() {
    LOCK(writeFdMutex);
    d_step { old = readFd; readFd = 0 }
    if
    :: old != 0 ->
        AwaitUnused();
        CloseDescriptor(old)
    :: else
    fi
    UNLOCK(writeFdMutex)
}

inline OpenReadFd() {
    d_step { instances++; fd = instances; isOpen[fd] = true }
    LOCK(writeFdMutex);
    if
    :: isClosing -> CloseDescriptor(fd); failed = true
    :: else -> readFd = fd
    fi
    UNLOCK(writeFdMutex)
}

inline RegisterReadEnd() {
#ifndef NO_OPENING_MUTEX
    LOCK(openingMutex);
#endif
    SHARED_LOCK(use);
    fd = readFd;
    if
    :: fd == 0 || retired -> failed = true
    :: else ->
        LOCK(monitorMutex);
        if
        :: monitorGone -> failed = true
        :: else -> Add(fd)
        fi
        UNLOCK(monitorMutex)
    fi
    SHARED_UNLOCK(use);
#ifndef NO_OPENING_MUTEX
    UNLOCK(openingMutex);
#endif
    if
    :: failed -> CloseReadEnd()
    :: else
    fi
}

inline BeginOpening() {
#ifndef NO_OPENING_MUTEX
    LOCK(openingMutex);
#endif
    LOCK(writeFdMutex);
    if
    :: retired -> failed = true
    :: else ->
        d_step {
            isOpening = true;
            isClosing = false;
            if
            :: readFd == 0 -> opening++
            :: else
            fi
        }
    fi
    UNLOCK(writeFdMutex);
#ifndef NO_OPENING_MUTEX
    UNLOCK(openingMutex)
#endif
}

// MakeAndAddPipe of somebody who finds the pipe, and TimedOpen.
proctype Opener() {
    byte fd, old, round;
    bool failed;
    for (round : 1 .. OPENS) {
        LOCK(tableLock);
        failed = !inTable;
        UNLOCK(tableLock);
        if
        :: failed -> break
        :: else
        fi
        LOCK(openMutex);
        BeginOpening();
        if
        :: !failed && readFd == 0 ->
            OpenReadFd();
            if
            :: !failed -> RegisterReadEnd()
            :: else
            fi
        :: else
        fi
        UNLOCK(openMutex)
    }
    busy--
}

// The remote has closed an opening at some time.
proctype Remote() {
    byte i;
    for (i : 1 .. REMOTES) {
        atomic {
            if
            :: instances > 0 && isOpen[instances] && !gone[instances] -> gone[instances] = true
            :: skip
            fi
        }
    }
    busy--
}

// A thread that reads or writes.
#if USES
proctype User() {
    byte i, fd;
    for (i : 1 .. USES) {
        SHARED_LOCK(use);
        fd = readFd;
        assert(fd == 0 || isOpen[fd]);
        SHARED_UNLOCK(use)
    }
    busy--
}
#endif

inline CloseTarvoPipe() {
    LOCK(closeMutex);
    LOCK(tableLock);
    found = inTable;
    UNLOCK(tableLock);
    if
    :: found -> Retire()
    :: else
    fi
#ifdef CLOSE_WATCHED
    DeInitPipe();
#endif
    LOCK(tableLock);
    RemoveDataMonitor();
    found = inTable;
    inTable = false;
    UNLOCK(tableLock);
    if
    :: found -> DeInitPipe()
    :: else
    fi
    UNLOCK(closeMutex)
}

proctype Closer() {
    byte old;
    bool found;
    CloseTarvoPipe();
    userClosed = true;
    busy--
}

inline DropPipes() {
    LOCK(tableLock);
    if
    :: inTable ->
#ifndef DROP_ORDER
        Retire();
        RemoveDataMonitor();
#else
        RemoveDataMonitor();
        Retire();
#endif
        DeInitPipe();
        inTable = false
    :: else
    fi
    UNLOCK(tableLock)
}

proctype Disabler() {
    byte old;
    DropPipes();
    LOCK(monitorMutex);
    monitorGone = true;
    UNLOCK(monitorMutex);
    exitEvent = true;
    (monitorEnded);
    DropPipes();
    userClosed = true;
    busy--
}

// Of one opening of a pipe without a callback.
inline HandleRemoteClosed() {
    LOCK(remoteCloseMutex);
#ifndef NO_OPENING_MUTEX
    LOCK(openingMutex);
#endif
#ifndef OLD_EVENTS
    if
    :: opening == ofOpening ->
#endif
        LOCK(tableLock);
        if
        :: inTable -> RemoveDataMonitor()
        :: else
        fi
        UNLOCK(tableLock);
        // What ends is the opening whose remote has closed.
        assert(readFd == 0 || gone[readFd] || givenUp[opening]);
        DeInitPipe();
#ifndef OLD_EVENTS
    :: else
    fi
#endif
#ifndef NO_OPENING_MUTEX
    UNLOCK(openingMutex);
#endif
    UNLOCK(remoteCloseMutex)
}

// HandleServerOpen, whose remote does not come in time.
#if BACKGROUND
proctype Background() {
    byte ofOpening, old;
    if
    :: opening > 0 ->
        ofOpening = opening;
        givenUp[ofOpening] = true;
        HandleRemoteClosed()
    :: skip
    fi
    busy--
}
#endif

inline RemoveEntry() {
    SHARED_LOCK(use);
    LOCK(entryMutex);
    if
#ifdef OLD_EVENTS
    :: present -> RemoveIt()
#else
    :: present && entryRegistration == registration -> RemoveIt()
#endif
    :: else
    fi
    UNLOCK(entryMutex);
    SHARED_UNLOCK(use)
}

inline ReadyEvents() {
    SHARED_LOCK(use);
    fd = readFd;
    assert(fd == 0 || isOpen[fd]); // poll
    hangUp = fd != 0 && gone[fd];
    SHARED_UNLOCK(use)
}


// An event is its pipe's handle and nothing else.
proctype Monitor() {
    byte known, registration, ofOpening, fd, old;
    bool hangUp, stop, event;
    do
    ::
        known = changes;
        atomic {
            if
            :: ANY_HUNG_UP -> event = true
            :: exitEvent -> event = false; stop = true
            :: busy == 0 && !(ANY_HUNG_UP) -> event = false; stop = true
            fi
        }
        if
        :: event ->
            LOCK(entryMutex);
            event = present;
            registration = entryRegistration;
            ofOpening = entryOpening;
            UNLOCK(entryMutex);
            hangUp = true;
#ifndef OLD_EVENTS
            if
            :: event && registration > known -> ReadyEvents()
            :: else
            fi
#endif
            if
            :: event && hangUp ->
                HandleRemoteClosed();
                RemoveEntry()
            :: else
            fi
        :: else
        fi
        if
        :: stop -> break
        :: else
        fi
    od
    monitorEnded = true
}

init {
    byte i;
    atomic {
        busy = 2 + BACKGROUND + CLOSES + DISABLE + USES;
        run Monitor();
        run Opener();
        run Remote();
#if USES
        run User();
#endif
#if BACKGROUND
        run Background();
#endif
#if CLOSES
        run Closer();
#endif
#if DISABLE
        run Disabler()
#endif
    }
    (_nr_pr == 1);
    // What is open is heard, and what is not is closed and watched nowhere.
    assert(!userClosed || (readFd == 0 && !inTable));
    assert(readFd == 0 || (isOpen[readFd] && present && entryFd == readFd && watched[readFd] && entryOpening == opening));
    assert(readFd != 0 || !present);
    for (i : 1 .. INSTANCES) { assert(i == readFd || !isOpen[i]) }
}
