// small: -DCLIENTS=2 -DCUT=0 -DOWN_CLOSE=0 -DNO_MEMORY=0 -DFLOOD=0
// small: -DCLIENTS=1 -DCUT=1 -DOWN_CLOSE=1 -DNO_MEMORY=1 -DFLOOD=0
// small: -DCLIENTS=0 -DCUT=1 -DOWN_CLOSE=0 -DNO_MEMORY=0 -DFLOOD=1
// large: -DCLIENTS=3 -DCUT=2 -DOWN_CLOSE=1 -DNO_MEMORY=1 -DFLOOD=0
// large: -DCLIENTS=2 -DCUT=1 -DOWN_CLOSE=1 -DNO_MEMORY=0 -DFLOOD=1
// mutant NO_WAKE -DCLIENTS=1 -DCUT=1 -DOWN_CLOSE=0 -DNO_MEMORY=1 -DFLOOD=0: the close that could not write its packet leaves the thread asleep
// mutant NO_ROOM -DCLIENTS=3 -DCUT=0 -DOWN_CLOSE=1 -DNO_MEMORY=0 -DFLOOD=0: a thread that ends by itself leaves the FIFO full
// mutant STOP_AT_ONCE: a close ends the thread before the clients that have announced themselves are served
// mutant NO_LIMIT -DCLIENTS=0 -DCUT=1 -DOWN_CLOSE=0 -DNO_MEMORY=0 -DFLOOD=1: a terminate packet that another has swallowed is not looked for, and nobody counts what is read since (found in the code)
#include "threads.inc"

// The FIFO, in fields: a connect packet is MAGIC CONNECT NAME, a terminate packet MAGIC TERMINATE OWN.
#define CAPACITY 7
#define PACKET 3
mtype = { MAGIC, CONNECT, NAME, TERMINATE, OWN };
chan fifo = [CAPACITY] of { mtype };
#define ROOM (CAPACITY - len(fifo))

bool running = true, stopping, closing, armed, nonBlocking, roomMade;
bool threadEnded, closed;
byte announced, served; // clients before the close; clients in all
byte readSince;

// The thread's.
bool ended, seenAll, seenBegin;
byte seen; // how much of the terminate packet the last fields are
short leftToRead = -1;

inline Note(field) {
    d_step {
        if
        :: field == MAGIC -> seen = 1
        :: field == TERMINATE && seen == 1 -> seen = 2
        :: field == OWN && seen == 2 -> seen = 3
        :: else -> seen = 0
        fi;
        seenAll = seenAll || seen == 3;
        seenBegin = seen == 1 || seen == 2;
        if
        :: leftToRead < 0 -> leftToRead = CAPACITY + PACKET
        :: else
        fi;
        ended = seenAll || leftToRead == 0;
        if
        :: leftToRead > 0 -> leftToRead--
        :: else
        fi
    }
}

// PipeServer::Recv of one field; `got` is false when there is nothing more to come.
inline Recv() {
    got = true;
    if
    :: ended -> got = false
    :: else ->
        if
        :: nempty(fifo) -> woken = false
        :: armed && ROOM > 0 && (stopping || closing) -> woken = true
        fi;
        if
        :: woken && stopping -> ended = true; got = false
        :: else ->
            atomic {
                if
                :: nempty(fifo) -> fifo ? field; roomMade = true; readSince = readSince + (closing -> 1 : 0)
                :: empty(fifo) -> ended = true; got = false // EAGAIN
                fi
            };
            assert(readSince <= CAPACITY + 2 * PACKET);
            if
#ifndef NO_LIMIT
            :: got && closing -> Note(field)
#endif
            :: else
            fi
        fi
    fi
}

inline ServeConnectPacket() {
    Recv();
    if
    :: got && closing && (ended || seenBegin) -> ended = true
    :: got && !(closing && (ended || seenBegin)) ->
        served++;
        if
#if OWN_CLOSE
        :: stopping = true // in the open callback
#endif
        :: skip
        fi
    :: else
    fi
}

inline ServePacket() {
    Recv();
    if
    :: !got -> more = false
    :: got && field == MAGIC ->
        Recv();
        if
        :: got && field == TERMINATE -> more = false
        :: got && field == CONNECT -> ServeConnectPacket()
        :: else
        fi
    :: got && field != MAGIC
    fi
}

proctype Thread() {
    mtype field;
    bool got, woken, more = true;
    do
    :: stopping || ended || !more -> break
    :: !stopping && !ended && more -> ServePacket()
    od;
    nonBlocking = true;
#ifndef NO_ROOM
    do
    :: atomic { nempty(fifo) -> fifo ? field; roomMade = true }
    :: empty(fifo) -> break
    od;
#endif
    running = false;
    threadEnded = true
}

proctype Closer() {
    bool written;
    if
    :: running ->
        closing = true;
#ifdef STOP_AT_ONCE
        stopping = true;
#endif
#if NO_MEMORY
        if
        :: skip
        :: goto unwritten
        fi;
#endif
        do // write(2): sleeps only where it may, and looks again once somebody has read
        :: atomic { ROOM >= PACKET -> fifo ! MAGIC; fifo ! TERMINATE; fifo ! OWN; written = true; break }
        :: atomic { ROOM < PACKET && nonBlocking -> break }
        :: atomic { ROOM < PACKET && !nonBlocking -> roomMade = false };
            (roomMade)
        od;
unwritten:
        if
        :: !written -> stopping = true
        :: else
        fi;
#ifndef NO_WAKE
        armed = true;
#endif
        (threadEnded)
    :: !running
    fi;
    closed = true
}

#if CLIENTS
proctype Client() {
    atomic {
        if
        :: ROOM >= PACKET && !threadEnded ->
            fifo ! MAGIC; fifo ! CONNECT; fifo ! NAME;
            announced = announced + (closing -> 0 : 1)
        :: else // EAGAIN
        fi
    }
}
#endif

#if CUT
proctype CutOff() {
    atomic {
        if
        :: ROOM >= 2 -> fifo ! MAGIC; fifo ! CONNECT
        :: ROOM >= 1 -> fifo ! NAME
        :: ROOM == 0
        fi
    }
}
#endif

#if FLOOD
proctype Flood() {
    do
    :: atomic { ROOM > 0 && !threadEnded -> fifo ! NAME }
    :: threadEnded -> break
    od
}
#endif

init {
    byte i;
    atomic {
        run Thread();
        run Closer();
#if CLIENTS
        for (i : 1 .. CLIENTS) { run Client() }
#endif
#if CUT
        for (i : 1 .. CUT) { run CutOff() }
#endif
#if FLOOD
        run Flood();
#endif
    }
    (closed);
    (threadEnded || !closing);
    // A close serves whoever has announced himself before it, unless a packet that was cut off swallows him.
    assert(!threadEnded || CUT || OWN_CLOSE || NO_MEMORY || served >= announced)
}
