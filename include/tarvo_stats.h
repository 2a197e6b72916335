// What tarvo counts about a process: the layout of its statistics file, and a reader.
//
// A process that uses the library, on its threads or on a loop, writes its numbers to one file in
// TARVO_STATS_DIRECTORY, mode 0640 and of the directory's group, if that directory is there when it first uses the
// library and it may write there. Otherwise nothing is counted. The file stays when its process ends or is killed, with
// the last numbers, until somebody removes it (tarvoctl(1), clean). The last quarter of the file system stays free:
// what has no room there is not counted.
//
// The file is a header of TARVO_STATS_HEADER_SIZE bytes, then slots of TARVO_STATS_SLOT_SIZE bytes each: one for each
// pipe, server and pool of callback threads, and one, TARVO_STATS_GONE, with the sums of the pipes whose slots others
// have taken since. It grows by TARVO_STATS_SLOTS_PER_CHUNK slots when all are in use. All numbers are in host byte
// order and aligned to their size.
//
// Counters are 64 bits wide, begin at 0, never run backwards and start again at 0 after 2^64 - 1. Each is written
// atomically, but not at the same moment as any other: of a process that runs, or was killed in the middle of a
// message, two counters may be apart by the messages that each of its threads had in hand.
//
// Where several threads count the same, the first one of them has words of its own, whose names begin with `first`: it
// writes those with plain stores, and the others theirs atomically. A number is the sum of both. TarvoStatsRead() and
// its like add them up, and leave 0 in the words of the first.
//
// How a slot is read while it is written: read `sequence`; odd means that its identity is being changed, try again;
// read the rest; read `sequence` again; a different value means that what was read belongs to two pipes, try again.
// `sequence` 0: never used. TarvoStatsRead() does so.
#ifndef TARVO_STATS_H
#define TARVO_STATS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TARVO_STATS_DIRECTORY "/dev/shm/velm/tarvo-stats"
// The first 8 bytes of each file: written last, so a file without it is not one, or not yet.
#define TARVO_STATS_MAGIC UINT64_C(0x5354415453565254)
#define TARVO_STATS_VERSION 2U
#define TARVO_STATS_HEADER_SIZE 4096U
#define TARVO_STATS_SLOT_SIZE 4608U
#define TARVO_STATS_SLOTS_PER_CHUNK 8U
#define TARVO_STATS_MAX_SLOTS 65536U
// A name and its terminating NUL.
#define TARVO_STATS_NAME_SIZE 104U

// A histogram of times in nanoseconds. Bucket 0 counts those below 896 ns, the last those from 120.26 s on. Between
// them each power of two has four buckets of equal width, so that none is wider than a quarter of its lower end: the
// bucket of t is 4 * (floor(log2(t)) - 9) + (the two bits of t below its highest) - 2.
//
// All counts together are the number of times measured. Of messages and calls those are samples, for a look at the
// clock takes as long as all the counting: of calls, at both of their ends, one of the header's `callsPerTime`, and of
// one-way requests, and responses in the FIFO, one of `oneWaysPerTime`; of each pipe the first of them, and then on.
// The calls are picked at changing distances, so that a program that makes its calls in turns is not seen at one of
// them only. `longest` of round trips knows of every call, up to a tick of the kernel's clock (1 to 10 ms).
#define TARVO_STATS_BUCKETS 110U

typedef struct TarvoStatsTimes {
    uint64_t sum;     // of all times, ns
    uint64_t longest; // ns; of round trips also of those that are in no bucket
    uint64_t buckets[TARVO_STATS_BUCKETS];
} TarvoStatsTimes;

// What a frame carries. Its receiver tells the two kinds of requests from each other by the time-out in the frame, and
// counts a call without a time limit as a one-way request.
enum {
    TARVO_STATS_ONE_WAY = 0, // a request whose sender does not wait
    TARVO_STATS_CALL = 1,    // a request whose sender waits for the response
    TARVO_STATS_RESPONSE = 2,
    TARVO_STATS_KINDS = 3,
};

// Why a send was refused.
enum {
    TARVO_STATS_SEND_FULL = 0,   // -EAGAIN: no room in the FIFO
    TARVO_STATS_SEND_BROKEN = 1, // -EPIPE: nobody reads
    TARVO_STATS_SEND_OTHER = 2,
    TARVO_STATS_SEND_REASONS = 3,
};

// Why a frame that came was thrown away.
enum {
    TARVO_STATS_BAD_MAGIC = 0,
    TARVO_STATS_BAD_LENGTH = 1, // of no payload, or one of more than 4000 bytes
    TARVO_STATS_BAD_CHECKSUM = 2,
    TARVO_STATS_BAD_KIND = 3,  // neither request nor response
    TARVO_STATS_BAD_SHORT = 4, // it broke off
    TARVO_STATS_BAD_REASONS = 5,
};

// Why a request that came whole did not get to a callback.
enum {
    TARVO_STATS_DROP_QUEUE = 0,     // its worker's queue is full, or there is no worker
    TARVO_STATS_DROP_CALLBACKS = 1, // 200 concurrent callbacks of the pipe run already
    TARVO_STATS_DROP_CACHE = 2,     // the pipe has no callback, and keeps 1000 requests already
    TARVO_STATS_DROP_CLOSING = 3,   // the pipe is being closed
    TARVO_STATS_DROP_MEMORY = 4,
    TARVO_STATS_DROP_REASONS = 5,
};

// How a call ended.
enum {
    TARVO_STATS_END_ANSWERED = 0,
    TARVO_STATS_END_TIMED_OUT = 1, // -ETIMEDOUT
    TARVO_STATS_END_BROKEN = 2,    // -EPIPE: the remote has closed, or the pipe was closed under it
    TARVO_STATS_END_CANCELED = 3,  // -ECANCELED
    TARVO_STATS_END_NOT_SENT = 4,  // its request was refused; counted among the refused sends too
    TARVO_STATS_END_OTHER = 5,
    TARVO_STATS_ENDS = 6,
};

// A number that goes up and down, and the highest it has been.
typedef struct TarvoStatsLevel {
    uint64_t now;  // of a pipe: 0 in the file, and worked out of the counters by TarvoStatsRead()
    uint64_t most; // of requests queued: once there have been 64, seen for certain from 8 on
} TarvoStatsLevel;

// The numbers of one pipe. Each group stands on cache lines of its own, since different threads write them.
typedef struct TarvoStatsPipe {
    // By any thread that sends. `messages` and payload `bytes` are those that are in the FIFO or in the link's batch.
    struct {
        uint64_t messages[TARVO_STATS_KINDS];
        uint64_t bytes[TARVO_STATS_KINDS];
        uint64_t refused[TARVO_STATS_SEND_REASONS];
        uint64_t lost; // accepted into a batch that could not be written any more
        uint64_t firstMessages[TARVO_STATS_KINDS];
        uint64_t firstBytes[TARVO_STATS_KINDS];
    } sent;
    // By the thread that receives. Whole and right frames, then those that were not.
    struct {
        uint64_t messages[TARVO_STATS_KINDS];
        uint64_t bytes[TARVO_STATS_KINDS];
        uint64_t bad[TARVO_STATS_BAD_REASONS];
        uint64_t late;     // responses that no call waited for any more; among the messages too
        uint64_t noMemory; // frames for which there was no memory; not among the messages
        uint64_t unread;   // bytes that were left in the FIFO when this side closed it
        uint64_t reserved[2];
    } received;
    // Requests received are begun, dropped or queued (`queued.now` is the rest), and those begun are finished or
    // running.
    struct {
        uint64_t begun;    // callbacks for requests
        uint64_t finished; // those of them that have returned
        uint64_t dropped[TARVO_STATS_DROP_REASONS];
        uint64_t reserved;
        TarvoStatsLevel queued;  // requests that wait for a worker, a callback to be installed, or the next round
        TarvoStatsLevel running; // callbacks, for requests
        uint64_t firstBegun;
        uint64_t firstFinished;
        uint64_t reserved2[2];
    } requests;
    // Calls begun are ended or outstanding (`outstanding.now` is the rest).
    struct {
        uint64_t begun;
        uint64_t ended[TARVO_STATS_ENDS];
        uint64_t reserved;
        TarvoStatsLevel outstanding;
        uint64_t firstBegun;
        uint64_t firstAnswered; // of `ended`
        uint64_t reserved2[4];
    } calls;
    TarvoStatsTimes roundTrip; // of answered calls, from the begin of the call to its end
    TarvoStatsTimes inFifo;    // from the writing of a frame to its being read
    TarvoStatsTimes wait;      // of requests, from being read to the begin of their callback
    TarvoStatsTimes callback;  // how long callbacks for requests took
} TarvoStatsPipe;

// The numbers of one server.
typedef struct TarvoStatsServer {
    uint64_t packets; // of clients that announced themselves
    uint64_t bad;     // packets that were none, or broke off
    uint64_t opened;  // clients whose pipe was opened
    uint64_t failed;  // clients whose pipe could not be opened
    uint64_t reserved[4];
    TarvoStatsTimes openTime; // from the packet to the pipe's being open
} TarvoStatsServer;

// The numbers of the pool of callback threads.
typedef struct TarvoStatsPool {
    TarvoStatsLevel threads; // that exist
    TarvoStatsLevel taken;   // given to a pipe or to a callback; the others are idle
    uint64_t refused;        // times that none was free
    uint64_t waited;         // times that somebody waited for one
    uint64_t monitors;       // epoll threads that run
    uint64_t reserved;
} TarvoStatsPool;

enum {
    TARVO_STATS_FREE = 0, // of nobody; what it held is in the slot of those gone
    TARVO_STATS_GONE = 1, // `pipe` holds the sums of pipes whose slots were taken again; always the first slot
    TARVO_STATS_PIPE = 2,
    TARVO_STATS_SERVER = 3,
    TARVO_STATS_POOL = 4,
};

enum {
    TARVO_STATS_THREADS = 0, // the engine with threads of its own
    TARVO_STATS_LOOP = 1,    // the engine on the program's thread
};

enum {
    TARVO_STATS_CLOSED = 0, // kept until somebody needs the slot
    TARVO_STATS_OPENING = 1,
    TARVO_STATS_OPEN = 2,
    TARVO_STATS_REMOTE_CLOSED = 3,
};

typedef struct TarvoStatsSlot {
    uint32_t sequence; // odd while the identity changes
    uint32_t kind;
    uint32_t engine;
    uint32_t state;                     // of a pipe; it changes without `sequence`
    int64_t handle;                     // of a pipe of the threads; otherwise 0
    uint64_t openedAt;                  // ns of the file's clock, 0 before
    uint64_t closedAt;                  // ns of the file's clock, 0 before
    char name[TARVO_STATS_NAME_SIZE];   // of this process, or that which is served
    char remote[TARVO_STATS_NAME_SIZE]; // of the remote process, or empty
    uint64_t reserved;
    union {
        TarvoStatsPipe pipe;
        TarvoStatsServer server;
        TarvoStatsPool pool;
        uint8_t bytes[TARVO_STATS_SLOT_SIZE - 256];
    } of;
} TarvoStatsSlot;

// How opens of pipes ended.
enum {
    TARVO_STATS_OPEN_OK = 0,
    TARVO_STATS_OPEN_TIMED_OUT = 1, // -ETIMEDOUT
    TARVO_STATS_OPEN_NO_SERVER = 2, // -ENXIO, -ENOENT
    TARVO_STATS_OPEN_REFUSED = 3,   // -EACCES, -EPERM
    TARVO_STATS_OPEN_OTHER = 4,
    TARVO_STATS_OPEN_RESULTS = 5,
};

typedef struct TarvoStatsHeader {
    uint64_t magic;
    uint32_t version;
    uint32_t headerSize;
    uint32_t slotSize;
    uint32_t slots;          // that the file has; grows
    uint32_t clock;          // of all times: CLOCK_MONOTONIC (clock_gettime(2))
    uint32_t folding;        // odd while a closed pipe's numbers move to the slot of those gone
    int32_t pid;             // in the process's own namespace
    uint32_t oneWaysPerTime; // of so many one-way requests or responses one is timed
    uint32_t callsPerTime;   // of so many calls one is timed
    uint32_t reserved;
    uint64_t startedAt;                  // of the process, ticks since boot: field 22 of /proc/PID/stat (proc(5))
    uint64_t createdAt;                  // of the file, ns of `clock`
    uint64_t createdWall;                // of the file, ns since 1970
    char process[TARVO_STATS_NAME_SIZE]; // the name of the process, as the kernel has it
    uint64_t uncounted;                  // pipes that found no slot
    uint64_t opens[TARVO_STATS_OPEN_RESULTS];
    TarvoStatsTimes openTime; // of opens that succeeded
} TarvoStatsHeader;

// ---- Reading ----
//
// The functions below are in libtarvo-stats.a (CMake: tarvo::stats, pkg-config: tarvo-stats), which needs the C library
// only. They block no writer, map nothing, and read nothing outside of a file, whatever is in it.
//
// Those with a result of int return 0 or more, or a negated errno value. Each object is for one thread at a time; two
// threads may use two. Times are in nanoseconds.

// A file that is open for reading.
typedef struct TarvoStatsFile TarvoStatsFile;

// Opens the file of that path; no symbolic link in its place is followed. Sets `*file` to what TarvoStatsClose() takes
// back. -ENOENT, -EACCES, -ELOOP (a link) and others: it cannot be opened; -EBADMSG: it is no such file, or not yet
// one, or a damaged one; -EPROTONOSUPPORT: it is of another version; -ENOMEM.
int TarvoStatsOpen(const char *path, TarvoStatsFile **file);
// The same for a `name` without slashes in the directory that the descriptor `directory` is of. -EINVAL: another name.
int TarvoStatsOpenAt(int directory, const char *name, TarvoStatsFile **file);
// Does nothing with a null pointer.
void TarvoStatsClose(TarvoStatsFile *file);

// Calls `each` with the name of each file in a directory, in no order, and a descriptor of the directory that is open
// until this returns. Names that begin with a dot are left out. Ends early when `each` returns other than 0, and
// returns that. -ENOENT, -EACCES, -ENOTDIR and others: it cannot be listed.
int TarvoStatsEach(const char *directory, int (*each)(void *context, int descriptor, const char *name), void *context);

// What one reading of a file found. Begins as all zeros; TarvoStatsFree() takes back what it holds.
typedef struct TarvoStatsReading {
    TarvoStatsHeader header;
    TarvoStatsSlot *slot; // `slots` of them. TARVO_STATS_FREE: of nobody, or not readable
    uint32_t slots;
    uint32_t capacity;   // for how many there is memory
    uint32_t owner;      // user id of the file's owner; what the file says of itself is the owner's word
    uint32_t alive;      // 1: its process lives, 0: these are its last numbers
    uint32_t inexact;    // 1: a pipe's numbers moved all the while, and sums may have them twice or not at all
    uint32_t unreadable; // slots that were being changed all the while, or hold what no process writes
    uint64_t readAt;     // by the file's clock
} TarvoStatsReading;

// Reads all of a file, again and again for the few times that it is being changed meanwhile. `reading` is a former one,
// whose memory is used again, or zeros. Whether the process lives is asked of a lock that the kernel takes from it at
// its end, before the numbers are read: those of one that does not live are final. On failure `reading` is to be freed
// all the same. -EBADMSG: the file has become another, or shorter; -EPROTONOSUPPORT; -ENOMEM.
int TarvoStatsRead(TarvoStatsFile *file, TarvoStatsReading *reading);
void TarvoStatsFree(TarvoStatsReading *reading);

// Reads one slot, by its place from 0 on. -EAGAIN: it is being changed all the while; -EBADMSG: it holds what no
// process writes, or there is none of that place.
int TarvoStatsReadSlot(TarvoStatsFile *file, uint32_t index, TarvoStatsSlot *slot);
// 1: the process of the file lives; 0: it does not.
int TarvoStatsAlive(TarvoStatsFile *file);

// All pipes of a process, also those gone. The highest levels are the sums of each one's, which may have been at
// different times.
void TarvoStatsSum(const TarvoStatsReading *reading, TarvoStatsPipe *sum);
// What has come since `before`, of the same pipe or sum. Levels are those of `now`, and so are the longest times: when
// they were is not known.
void TarvoStatsPipeSince(const TarvoStatsPipe *now, const TarvoStatsPipe *before, TarvoStatsPipe *since);
// Whether two readings of one place are of the same pipe, server or pool.
int TarvoStatsSame(const TarvoStatsSlot *one, const TarvoStatsSlot *other);

void TarvoStatsTimesAdd(TarvoStatsTimes *sum, const TarvoStatsTimes *more);
void TarvoStatsTimesSince(const TarvoStatsTimes *now, const TarvoStatsTimes *before, TarvoStatsTimes *since);
// How many times were measured.
uint64_t TarvoStatsTimesCount(const TarvoStatsTimes *times);
// The time that so many of a hundred do not exceed: the end of its bucket, or the longest where that is less; 0 when
// none was measured.
uint64_t TarvoStatsPercentile(const TarvoStatsTimes *times, double percent);
// The bucket of a time, and the first time behind a bucket; UINT64_MAX for the last.
uint32_t TarvoStatsBucketOf(uint64_t time);
uint64_t TarvoStatsBucketEnd(uint32_t bucket);

#ifdef __cplusplus
static_assert(sizeof(TarvoStatsSlot) == TARVO_STATS_SLOT_SIZE, "slots lie one behind the other");
static_assert(sizeof(TarvoStatsHeader) <= TARVO_STATS_HEADER_SIZE, "the first slot follows the header");
#else
_Static_assert(sizeof(TarvoStatsSlot) == TARVO_STATS_SLOT_SIZE, "slots lie one behind the other");
_Static_assert(sizeof(TarvoStatsHeader) <= TARVO_STATS_HEADER_SIZE, "the first slot follows the header");
#endif

// ---- A process's own ----

// Copies the numbers of a pipe of this process, by its handle of tarvo.h, with its levels worked out. In libtarvo. Does
// not block, and may be called from any thread, also from a callback. Returns 0, -EINVAL (null `stats`), -ENOENT (no
// such pipe, or process exit), -ENODATA (the pipe is not counted: the directory was absent when this process first used
// the library, may not be written, or is full). On failure `stats` is untouched.
int TarvoPipeStats(int pipe, TarvoStatsPipe *stats);

// The same of a link of tarvo_loop.h, with what its loop has not added to the file yet. In libtarvo-loop. On the thread
// of the loop, also from a callback. Returns 0, -EINVAL (a null argument), -EDEADLK (on another thread), -ENOENT (in a
// forked child), -ENODATA. On failure `stats` is untouched.
struct TarvoLink;
#if defined(__GNUC__)
__attribute__((visibility("default")))
#endif
int TarvoLinkStats(const struct TarvoLink *link, TarvoStatsPipe *stats);

#ifdef __cplusplus
}
#endif

#endif // TARVO_STATS_H
