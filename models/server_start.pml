// small: -DSTARTS=3 -DLEFTOVER=1
// large: -DSTARTS=5 -DLEFTOVER=1
// mutant NO_LOOK: a start keeps the two ends that it has opened without a look whether they are of one file (found in the code)
// mutant NO_FLOCK: two servers that have come to one file both keep it
// mutant BLOCKING_OPEN: the open of the write end waits for a reader, who may be another's and never come (found in the code)
#include "threads.inc"

// Two processes, each of which starts and stops a server of one name. A file is a number.
#define FILES (STARTS * 4 + 2)
#define NOFILE 0
byte named;           // the file that has the name
byte files;           // how many there were
byte readers[FILES + 1];
byte lockedBy[FILES + 1];

byte starts = STARTS;
byte serving[3]; // the file of process 1 and of process 2, while its server runs

// CreateFifo: replaces what is there, and adopts what has come meanwhile.
inline CreateFifo() {
    if
    :: named != NOFILE -> named = NOFILE // unlink; by then it may be another file, or none
    :: else
    fi;
    d_step { files++; made = files } // mkfifo under a name of its own
    d_step { // link
        if
        :: named == NOFILE -> named = made
        :: else
        fi
    }
}

inline CloseBoth() {
    d_step {
        if
        :: readEnd != NOFILE ->
            readers[readEnd]--;
            if // the lock goes with its descriptor
            :: lockedBy[readEnd] == me -> lockedBy[readEnd] = 0
            :: else
            fi
        :: else
        fi;
        readEnd = NOFILE;
        writeEnd = NOFILE
    }
}

// PublishFifo: the read end, then the write end, whose open finds a file without a reader or none.
inline PublishFifo() {
    CreateFifo();
    d_step {
        readEnd = named;
        if
        :: readEnd != NOFILE -> readers[readEnd]++
        :: else
        fi
    }
    if
    :: readEnd == NOFILE -> failed = true
    :: else ->
#ifdef BLOCKING_OPEN
        writeEnd = named;
        if
        :: writeEnd != NOFILE -> (readers[writeEnd] > 0)
        :: else
        fi
#else
        d_step {
            writeEnd = named;
            if
            :: writeEnd != NOFILE && readers[writeEnd] == 0 -> writeEnd = NOFILE // ENXIO
            :: else
            fi
        }
#endif
    fi
}

inline HoldsBothEnds() {
#ifdef NO_LOOK
    holds = true
#else
    holds = readEnd == writeEnd;
    holds = holds && readEnd == named
#endif
}

proctype Server(byte me) {
    byte made, readEnd, writeEnd, again;
    bool failed, holds;
    do
    :: atomic { starts > 0 -> starts-- };
        failed = false;
        again = 0;
        do
        ::
            PublishFifo();
            if
            :: failed -> break
            :: else
            fi;
            HoldsBothEnds();
            if
            :: holds -> break
            :: !holds && again == 3 -> failed = true; break
            :: !holds && again < 3 -> again++; CloseBoth()
            fi
        od;
#ifndef NO_FLOCK
        atomic {
            if
            :: !failed && lockedBy[readEnd] != 0 -> failed = true
            :: !failed && lockedBy[readEnd] == 0 -> lockedBy[readEnd] = me
            :: else
            fi
        }
#endif
        if
        :: !failed ->
            assert(readEnd != NOFILE && readEnd == writeEnd); // it hears what it tells itself, its end for one
            atomic {
                serving[me] = readEnd;
                assert(serving[1] != serving[2]) // nobody reads what is another's
            };
            serving[me] = NOFILE
        :: else
        fi;
        CloseBoth()
    :: starts == 0 -> break
    od
}

init {
    atomic {
        serving[2] = NOFILE;
#if LEFTOVER
        files = 1;
        named = 1;
#endif
        run Server(1);
        run Server(2)
    }
    (_nr_pr == 1);
    byte i;
    for (i : 0 .. FILES) { assert(readers[i] == 0 && lockedBy[i] == 0) }
}
