// tarvo on the program's own thread: servers, pipes and asynchronous calls for programs that have an event loop.
//
// A loop runs all its callbacks on the thread that created it, inside TarvoLoopDispatch or TarvoLoopRun; the library
// starts no thread. Its pipes are called links. Processes that use this header and processes that use tarvo.h reach
// each other: files, connect packets and frames are the same.
//
//     TarvoLoop *loop;
//     TarvoLoopCreate(&loop);
//     TarvoLinkCallbacks callbacks = {.size = sizeof callbacks, .opened = Opened};
//     TarvoLinkOptions options = {.size = sizeof options, .target = "camera", .gid = TARVO_LOOP_ANY_GROUP,
//                                 .timeoutMs = 1000, .callbacks = &callbacks};
//     TarvoLink *link;
//     TarvoLinkOpen(loop, &options, &link);
//     TarvoLoopRun(loop, -1);
//
// Common to all functions:
//  - Those that return int return 0 or what is said there on success, and a negated errno value on failure. On failure
//    out-parameters are untouched. -ENOMEM: an allocation failed. -EINVAL: a null handle or argument, or a value
//    against the rules. The values listed at a function are those it raises itself; others are passed on from the
//    system calls below it.
//  - A loop, its services and its links belong to the thread that created the loop. On another thread every function
//    but TarvoLoopPost and TarvoLoopStop is refused with -EDEADLK, without a lock. Two loops share nothing.
//  - No function calls a callback but TarvoLoopDispatch, TarvoLoopRun and TarvoLinkCallSync.
//  - Callbacks may call every function of this header but the three above, which are refused with -EDEADLK inside one.
//    They may close the link or service that they were called for, and destroy the loop. They must not throw.
//  - Bytes handed to a callback are valid until it returns.
//  - In a child that was forked after its parent had created a loop every function is refused with -ENOENT; the child
//    may only exec or exit. All descriptors are close-on-exec.
//  - The program must ignore SIGPIPE: sending to a process that is gone then fails with -EPIPE.
//  - Diagnostics go to the system log, as those of tarvo.h do.
#ifndef TARVO_LOOP_H
#define TARVO_LOOP_H

// NOLINTBEGIN(modernize-deprecated-headers,modernize-use-using): plain C
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TARVO_LOOP_API __attribute__((visibility("default")))
#else
#define TARVO_LOOP_API
#endif

// Limits: bytes of a payload, calls outstanding on a link, and requests of a link that may wait for their reply.
#define TARVO_LOOP_MAX_PAYLOAD 4000
#define TARVO_LOOP_MAX_CALLS 65536
#define TARVO_LOOP_MAX_REQUESTS 65536

// Group that leaves the files of a link or service in the group that they are created with.
#define TARVO_LOOP_ANY_GROUP 0xFFFFFFFFU

typedef struct TarvoLoop TarvoLoop;
typedef struct TarvoService TarvoService;
typedef struct TarvoLink TarvoLink;

// A view of bytes that somebody else owns.
typedef struct TarvoBytes {
    const char *data;
    uint32_t size;
} TarvoBytes;

// ---------------------------------------------------------------------------------------------------------- the loop

// Creates a loop of the calling thread. A process may have any number, a thread too. Returns 0 or a negated errno.
TARVO_LOOP_API int TarvoLoopCreate(TarvoLoop **loop);

// Closes the services and links of a loop, drops what was posted and frees everything. No callback runs any more.
// Inside a callback of the loop it takes effect when that returns: the TarvoLoopDispatch or TarvoLoopRun that called it
// then returns -ECANCELED. Null is ignored. Returns 0.
TARVO_LOOP_API int TarvoLoopDestroy(TarvoLoop *loop);

// The descriptor of the loop, the same for its life: an epoll set, to be watched by another loop for reading. It is
// readable as long as a dispatch has something to do (level-triggered), whatever the reason: frames, deadlines, posts,
// or what an earlier dispatch has left over. It is the loop's own: do not read from, change or close it.
TARVO_LOOP_API int TarvoLoopFd(const TarvoLoop *loop);

// Runs what is due: at most `max` (at least 1) callbacks, shared fairly between the links; more only where there is no
// memory to keep what was read for the next dispatch. Never blocks. Returns the number of callbacks that it has run,
// -EDEADLK inside a callback, -ECANCELED when one of them has destroyed the loop.
TARVO_LOOP_API int TarvoLoopDispatch(TarvoLoop *loop, int max);

// Dispatches and sleeps until TarvoLoopStop is called or `timeoutMs` have passed (negative: no limit). Returns 0 when
// it was stopped, -ETIMEDOUT, -EDEADLK inside a callback, -ECANCELED when a callback has destroyed the loop.
TARVO_LOOP_API int TarvoLoopRun(TarvoLoop *loop, int timeoutMs);

// Makes TarvoLoopRun return after the callback that runs, or the next one return at once. Any thread, and signal
// handlers; the loop's thread may destroy it as soon as its run has returned. Returns 0.
TARVO_LOOP_API int TarvoLoopStop(TarvoLoop *loop);

// Has the loop call `function` with `context`, once, after what was posted before. Any thread; the loop must not be
// destroyed meanwhile. Returns 0.
TARVO_LOOP_API int TarvoLoopPost(TarvoLoop *loop, void (*function)(void *context), void *context);

// --------------------------------------------------------------------------------------------------- links: callbacks

// What a link calls. Each may be null. `context` is that of the options, or what TarvoLinkSetContext has set.
typedef struct TarvoLinkCallbacks {
    uint32_t size; // sizeof(TarvoLinkCallbacks)
    // Once: the link is open (0), or its open has failed for good: -ETIMEDOUT, -ENXIO (no such server), or the errno of
    // what failed. A link that has failed must still be closed. Not called for the links of a service.
    void (*opened)(void *context, TarvoLink *link, int result);
    // A request of the remote. `request` is its number for TarvoLinkReply.
    void (*request)(void *context, TarvoLink *link, uint32_t request, TarvoBytes payload);
    // Once, when the remote of an open link has closed or died: after all that it had sent, and after the ends of all
    // calls. The link must still be closed; one of a service is closed by the library when this has returned.
    void (*closed)(void *context, TarvoLink *link);
    // Once after each TarvoLinkSend, TarvoLinkCall or TarvoLinkReply that was refused with -EAGAIN, when there is room
    // again. Refusals before it count as one.
    void (*writable)(void *context, TarvoLink *link);
} TarvoLinkCallbacks;

// The end of a call: 0 with the bytes of the answer; or, with none, -ETIMEDOUT, -EPIPE (the remote is gone), -ECANCELED
// (TarvoLinkCancel or TarvoLinkClose).
typedef void (*TarvoDone)(void *context, int result, TarvoBytes answer);

// ---------------------------------------------------------------------------------------------------------- services

typedef struct TarvoServiceOptions {
    uint32_t size;    // sizeof(TarvoServiceOptions)
    const char *name; // 1 to 100 characters, none of | ; > < ` & ( ) $ and no two dots in a row; null: the process name
    uint32_t gid;     // group of the files, as in tarvo.h; TARVO_LOOP_ANY_GROUP: leave it
    int replace;      // not 0: take the name away from a living server
    void *context;
    // A client's link is open. `name` is the client's, valid until the link is closed. No request of it comes before
    // this returns. The link may be given a context of its own here.
    void (*client)(void *context, TarvoService *service, TarvoLink *link, const char *name);
    const TarvoLinkCallbacks *callbacks; // of each client's link; copied; null: none
} TarvoServiceOptions;

// Serves a name. Takes over the file that a server has left which is not living any more. `options` is copied. Returns
// 0, -EINVAL, -EADDRINUSE (a living server has the name, also one of this process), -ENOENT (the FIFO directory is
// missing).
TARVO_LOOP_API int TarvoServiceOpen(TarvoLoop *loop, const TarvoServiceOptions *options, TarvoService **service);

// Stops serving: removes the file, unless another server has taken the name since. Clients whose links are open keep
// them; those that are being opened are dropped. No `client` callback comes any more. Returns 0.
TARVO_LOOP_API int TarvoServiceClose(TarvoService *service);

// ------------------------------------------------------------------------------------------------------------- links

typedef enum TarvoLinkKind {
    TARVO_LINK_TO_SERVER = 0,       // announces itself to the server of the target's name (TarvoCreateClient)
    TARVO_LINK_ARRANGED_CLIENT = 1, // TarvoOpen with TARVO_MODE_CLIENT: waits for the files of the remote
    TARVO_LINK_ARRANGED_SERVER = 2, // TarvoOpen with TARVO_MODE_SERVER: creates the files
} TarvoLinkKind;

typedef struct TarvoLinkOptions {
    uint32_t size; // sizeof(TarvoLinkOptions)
    TarvoLinkKind kind;
    const char *target; // name of the remote, with the rules of TarvoServiceOptions::name
    const char *self;   // name under which the remote knows this process; null: the process name
    uint32_t gid;       // group of the files where this side creates them; TARVO_LOOP_ANY_GROUP: leave it
    int32_t timeoutMs;  // for the whole open; negative: no limit
    void *context;
    const TarvoLinkCallbacks *callbacks; // copied; null: none
} TarvoLinkOptions;

// Begins to open a link; `opened` tells the end, and is not called before this returns. `options` is copied. Like with
// tarvo.h, the name of a link to a server is extended by "_" and the process id. Returns 0, -EINVAL, -EEXIST (this loop
// has a link of the same two names).
TARVO_LOOP_API int TarvoLinkOpen(TarvoLoop *loop, const TarvoLinkOptions *options, TarvoLink **link);

// Sends a one-way request of 1 to TARVO_LOOP_MAX_PAYLOAD bytes, which stay the caller's. Returns 0 when the bytes are
// on their way: in the FIFO, or in the link's batch of at most 4096 bytes, which goes out in one piece at the end of
// the dispatch, or as soon as there is room. It does not mean that the remote reads them. -EINVAL, -ENOTCONN (not open
// yet, or failed), -EAGAIN (full: nothing is taken until `writable`), -EPIPE (the remote is gone).
TARVO_LOOP_API int TarvoLinkSend(TarvoLink *link, TarvoBytes payload);

// Sends a request and has `done` called once, in a later dispatch, with its answer or with why there is none, after
// `timeoutMs` at the latest (negative: no limit). Returns the number of the call, above 0, or what TarvoLinkSend
// returns and -ENOBUFS (TARVO_LOOP_MAX_CALLS are outstanding); then `done` is not called.
TARVO_LOOP_API int64_t TarvoLinkCall(TarvoLink *link, TarvoBytes payload, int timeoutMs, TarvoDone done, void *context);

// Ends a call with -ECANCELED in the next dispatch. The remote is told nothing; its answer is dropped. Returns 0 or
// -ENOENT (the call has ended).
TARVO_LOOP_API int TarvoLinkCancel(TarvoLink *link, int64_t call);

// TarvoLinkCall that waits for its answer. No other callback runs meanwhile: what comes waits for the next dispatch. On
// entry *size is the room at `answer`, on success the bytes written there. Works on a link that is still opening too,
// as part of `timeoutMs`. Returns 0, -EMSGSIZE (no room: the answer is lost), -EDEADLK inside a callback, -ETIMEDOUT,
// or what TarvoLinkCall returns.
TARVO_LOOP_API int TarvoLinkCallSync(TarvoLink *link, TarvoBytes payload, int timeoutMs, char *answer, uint32_t *size);

// Answers a request, once, in its callback or later. Returns what TarvoLinkSend returns, after -EAGAIN the request
// still waits; -ENOENT: there is no such request, it has been answered, or TARVO_LOOP_MAX_REQUESTS have come after it.
TARVO_LOOP_API int TarvoLinkReply(TarvoLink *link, uint32_t request, TarvoBytes payload);

// From now on what is sent outside of a dispatch gathers in the link's batch, too, until TarvoLinkFlush, or until it is
// full. Returns 0.
TARVO_LOOP_API int TarvoLinkHold(TarvoLink *link);

// Sends the batch and ends the hold. Returns 0, -EAGAIN (it goes out when there is room), -EPIPE.
TARVO_LOOP_API int TarvoLinkFlush(TarvoLink *link);

// The name of the remote, valid until the link is closed; null where other functions refuse the link.
TARVO_LOOP_API const char *TarvoLinkPeer(const TarvoLink *link);

// Replaces the context of the link's callbacks. Returns 0.
TARVO_LOOP_API int TarvoLinkSetContext(TarvoLink *link, void *context);

// Closes a link at any moment, also while it opens. What its batch holds is written if there is room. Its calls whose
// end has not been told yet end with -ECANCELED in the next dispatch; no other callback of it comes, nor may it be used
// any more. The side that created the files removes them. Null is ignored. Returns 0.
TARVO_LOOP_API int TarvoLinkClose(TarvoLink *link);

#ifdef __cplusplus
} // extern "C"
#endif

// NOLINTEND(modernize-deprecated-headers,modernize-use-using)

#endif // TARVO_LOOP_H
