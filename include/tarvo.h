// tarvo: messaging between the processes of one Linux machine.
//
// A process has a name (by default its own process name) and may serve under that name. It opens pipes to other named
// processes, and sends one-way requests or makes synchronous calls over them. The library runs its callbacks on threads
// of its own. There is no initialisation call: the library starts on first use and ends at process exit.
//
// Common to all functions:
//  - A pipe is named by its handle, a positive int. A handle is never reused within a process and is not an
//    operating-system file descriptor.
//  - Functions that return int return 0, or a handle for the opens, on success and a negated errno value on failure.
//    Test for "less than zero". The values listed at a function are those it raises itself; others are passed on from
//    the system calls below it. -ENOMEM also means that an allocation failed.
//  - All functions may be called from any thread, also from inside a callback, unless stated otherwise. None throws.
//  - A thread that is cancelled (pthreads(7)) inside a function ends only where the function waits: in an open, for the
//    remote or for a free worker, and in a synchronous call, for its response; elsewhere the function first returns.
//  - At process exit the library waits about half a second for calls that are inside it, and then closes the pipes
//  under them (-EPIPE). Once process exit has destroyed the library's state, every function fails softly, with -ENOENT
//  where it returns int. So does every function in a child that was forked after its parent had opened a pipe or
//  started a server; what belongs to the parent is left alone.
//  - All descriptors that the library opens are close-on-exec. Its threads inherit the signal mask of the thread that
//  opens the first pipe or starts the server.
//  - A process has 1024 threads for callbacks. When more callbacks than that block, no pipe of their priority receives
//  anything until one of them returns.
//  - The program must ignore SIGPIPE: sending to a process that is gone then fails with -EPIPE.
//  - Diagnostics go to the system log, at levels 0 to 5.
#ifndef TARVO_H
#define TARVO_H

#include <cstdint>
#include <functional>

// How a pipe is made; an argument of TarvoPipeTypeOpen.
enum TarvoPipeType : int32_t {
    TARVO_NORMAL_PIPE = 0, // both sides open the pipe by arrangement (TarvoOpen)
    TARVO_CLIENT_PIPE = 1, // announces itself to the target's server first (TarvoCreateClient)
    TARVO_SERVER_PIPE = 2, // opened by the server for a client that announced itself
};

// Which side creates the two FIFO files of a pipe. The two ends of one pipe use opposite modes.
enum TarvoMode : int32_t {
    TARVO_MODE_CLIENT = 0, // waits for the files of the remote, then opens both ends
    TARVO_MODE_SERVER = 1, // creates the files and removes them on close; the write end follows once the remote reads
};

// Scheduling of the threads that receive from a pipe and run its callbacks.
enum TarvoPriority : int32_t {
    TARVO_PRIORITY_NONE = 0,   // names no scheduling class: an open or server of this priority fails with -EINVAL
    TARVO_PRIORITY_NORMAL = 1, // time-sharing (SCHED_OTHER)
    TARVO_PRIORITY_URGENT = 2, // real-time first in, first out at priority 50 (SCHED_FIFO, see sched(7))
};

// The operating-system domain in which the remote process lives.
enum TarvoDomain : int32_t {
    TARVO_DOMAIN_LOCAL = 0, // the domain of the caller
    TARVO_DOMAIN_DP = 1,    // the "dp" domain
    TARVO_DOMAIN_ORLA = 2,  // the "orla" domain
};

// One request. In a callback, `data` belongs to the library and is valid until the callback returns.
struct TarvoRequest {
    uint32_t id;   // TarvoSendRequest sends it unchanged; TarvoTimedRPCSync writes a fresh one
    char *data;    // payload; must not be null when sent
    uint32_t size; // payload length in bytes, 1 to 4000
};

// One response; carries the `id` of the request that it answers.
struct TarvoResponse {
    uint32_t id;
    char *data;    // sent: the caller's. Filled by a synchronous call: release with DestroyResponse
    uint32_t size; // payload length in bytes, 1 to 4000
};

// How one pipe is to be opened. The strings need to live only until the opening call returns.
struct TarvoAttr {
    // Name of the remote process: 1 to 100 characters, none of | ; > < ` & ( ) $ and no two dots in a row.
    const char *targetName = nullptr;
    // Receives each request of the pipe, on a thread of the library, with the pipe handle and the request. A null
    // request means that the remote has closed; the library closes the pipe when that callback returns. Until then an
    // open to the same remote finds the dead pipe: to open a new one, call TarvoClosePipe first. May be empty: requests
    // are then kept (up to 1000) and a remote close closes the pipe silently.
    std::function<void(int, TarvoRequest *)> callback;
    // Milliseconds that each step of the open may wait. In client mode there are three: for the FIFO that this side
    // writes, for its reader, and for the FIFO that it reads; and a fourth before them while another thread opens the
    // same pipe. Below 1 means without limit in client mode, except that a concurrent open of the same pipe is not
    // waited for at 0.
    int32_t timeout = 0;
    TarvoMode mode = TARVO_MODE_CLIENT;
    // Group that owns the FIFO files (mode 0660): processes that talk to each other share it. 0xFFFFFFFF leaves the
    // group as it is.
    uint32_t gid = 0xFFFFFFFFU;
    TarvoPriority priority = TARVO_PRIORITY_NORMAL;
    // Name under which the remote knows this process, with the rules of `targetName`. Null: the process name.
    const char *selfName = nullptr;
    // Process id of the remote, for security labels; -1: unknown.
    int32_t targetPid = -1;
    // False: callbacks of the pipe run one after another in order of arrival. True: up to 200 at the same time; each
    // request for which no thread can be started costs the pipe one of these places for its life.
    bool isConcur = false;
    TarvoDomain domain = TARVO_DOMAIN_LOCAL;
    // Security context for labels across domains; null is taken as "".
    const char *targetCon = nullptr;
};

// How a process serves under its name (TarvoCreateServer).
struct TarvoServerAttr {
    // Called once for each pipe that the server has opened for a client, on the server's thread, with the new handle
    // and the client's name (`nameLength` bytes, not NUL-terminated). A slow callback delays further clients. May be
    // null.
    void (*openCallback)(int fd, const char *peerName, uint32_t nameLength) = nullptr;
    // Request callback of every pipe that the server opens (TarvoAttr::callback). May be null.
    void (*callback)(int fd, TarvoRequest *request) = nullptr;
    // Group that owns the server's FIFO file; 0xFFFFFFFF leaves the group as it is.
    uint32_t gid = 0xFFFFFFFFU;
    TarvoPriority priority = TARVO_PRIORITY_NORMAL;
    // Name to serve under, with the rules of TarvoAttr::targetName. Null: the process name. Must live as long as the
    // server, which opens every pipe under it.
    const char *selfName = nullptr;
};

extern "C" {

// Opens a pipe by arrangement with the remote, which opens its own end in the opposite mode. A pipe between the same
// two names that exists already is opened again if needed and its handle returned. A pipe whose open failed keeps its
// handle: the next open to the same remote tries again under it, with the attributes, also the callback, that it had.
// Blocks in client mode for up to three times attr->timeout ms, or four times while another thread opens the same pipe;
// hardly at all in server mode, where the write end is opened in the background. A callback may call it, but blocks its
// worker meanwhile.
// Returns the handle, or -EINVAL (an attribute was refused), -ENOENT (process exit), -ENOMEM (1024 pipes are open),
// -ETIMEDOUT (the remote did not come in time), -ECANCELED. On failure `attr` is untouched.
int TarvoOpen(TarvoAttr *attr);

// Opens a pipe to the server that runs under attr->targetName: announces this process to it under the name
// selfName + "_" + process id, then opens the pipe as TarvoOpen does. Use TARVO_MODE_CLIENT, since servers create the
// files. The extended name, too, may have 100 characters at most: with a longer one the server does not open its end.
// Files that an earlier pipe under that name has left are waited for before this process announces itself, until the
// server has removed them: at most 100 ms, and never longer than attr->timeout.
// Returns what TarvoOpen returns, and -ENXIO when no server of that name runs.
int TarvoCreateClient(TarvoAttr *attr);

// The open with an explicit type, which the two functions above and the server use.
int TarvoPipeTypeOpen(TarvoAttr *attr, TarvoPipeType type);

// Starts this process's server: from now on clients of TarvoCreateClient reach it under its name. A process has at
// most one. A server started later under the same name by another process replaces it for new clients. Succeeds also
// after TarvoCfgFinishServer, but no request is ever answered then.
// Returns 0, -EINVAL (an attribute was refused), -EEXIST (already running), -ENOSPC (the thread could not be started),
// -ENOENT (process exit, or the FIFO directory is missing), or another negated errno of the set-up. `attr` is copied,
// but its selfName must outlive the server.
int TarvoCreateServer(TarvoServerAttr *attr);

// Sends a one-way request: one frame, one write, no waiting. `req` stays the caller's and is not changed.
// Returns 0, -EINVAL (null or empty request, or more than 4000 bytes), -ENOENT (no such pipe), -EAGAIN (the FIFO is
// full: the remote does not keep up), -ENXIO (the remote has not opened its end yet, or is a client that has gone
// before this side could open its own), -EPIPE (the remote is gone), -1 (the pipe is closing), -EBADF (another thread
// has closed the pipe during the call).
int TarvoSendRequest(int fd, TarvoRequest *req);

// Answers a request: resp->id must be the id of that request. Usually called from the callback that received it, but
// works from any thread, also later. `resp` stays the caller's. After -EAGAIN try again: the remote is told nothing and
// waits for its whole time-out. Results as TarvoSendRequest; -ENXIO tells here that the client has gone.
int TarvoSendResponse(int fd, TarvoResponse *resp);

// Sends a request and waits for its response, at most `timeout` ms (negative: until the response comes or the pipe
// closes). Writes a fresh id into `req`. Clears `resp`, unless the call is refused at once (-EINVAL, -ENOENT), and
// fills it on success; its data then belongs to the caller, who releases it with DestroyResponse. A null `resp` makes
// it a TarvoSendRequest. `resp` must stay valid until the call returns, and not longer. A callback may call it, but
// blocks its worker, and waits in vain for an answer that another callback of the same serial pipe would have to send.
// A call inside a callback of the same serial pipe is not woken when the remote closes, since that notice waits behind
// the callback: it ends with its time-out, and without one never. With the environment variable KELDOR_RUN_MODE at 1
// every time-out is five hours.
// Returns 0, -ETIMEDOUT, -EPIPE (the pipe closed meanwhile, or is not open), -ENOMEM (1000 calls are outstanding on
// the pipe), or what TarvoSendRequest returns. A pipe closed by another thread between the sending and the waiting
// yields 0 with a null resp->data.
int TarvoTimedRPCSync(int fd, TarvoRequest *req, TarvoResponse *resp, int timeout);

// TarvoTimedRPCSync without a time limit.
int TarvoRPCSync(int fd, TarvoRequest *req, TarvoResponse *resp);

// Releases the data of a response that a synchronous call has filled and sets `data` to null. Null arguments and
// responses without data are ignored.
void DestroyResponse(TarvoResponse *resp);

// Closes a pipe: requests that wait for its callback are dropped, callers that wait on it return -EPIPE, and the side
// that created the FIFO files removes them. Callbacks that already run are not waited for, and those of a concurrent
// pipe that were already on their way may still start. Returns 0, also for a handle that names no pipe, or -ENOENT at
// process exit.
int TarvoClosePipe(int fd);

// Removes the two FIFO files of a TARVO_MODE_CLIENT pipe and leaves the pipe open. Refused, with a log line, for a
// pipe of the other mode. Returns as TarvoClosePipe.
int TarvoCleanPipe(int fd);

// Writes the name of the remote at the other end of a pipe to `name`, which has room for `size` bytes, with a
// terminating zero; 101 bytes are always enough. For a pipe that this process's server has opened, that is the client's
// name. The name of a pipe never changes. Does not block; `name` stays the caller's. Returns 0, -EINVAL (null `name`,
// or no room for the whole name), -ENOENT (no such pipe, or process exit). On failure `name` is untouched.
int TarvoGetRemoteName(int fd, char *name, uint32_t size);

// Orderly end of all communication of this process: stops the server, closes every pipe, ends all threads of the
// library, and waits for the callbacks that run. There is no way back: opens and TarvoCreateServer succeed afterwards,
// but no callback runs any more, so that nothing is ever answered. Must not be called from a callback.
void TarvoCfgFinishServer(void);

// Emergency clean-up for the program's handler of a fatal signal: removes the FIFO files of all pipes and of the
// server. Frees nothing and closes nothing. `signo` is only logged.
void TarvoExceptionHandler(int signo);

// 1 while the library can be used; 0 after TarvoCfgFinishServer and once process exit has destroyed its state.
int TarvoServiceIsExist(void);

// The domain of this process; TARVO_DOMAIN_LOCAL only when it is unknown.
TarvoDomain GetCurrDomain(void);

// True when the FIFO files of a pipe to `domain` live in the orla directory.
bool IsOrlaDomainPipe(const TarvoDomain &domain);

// True when `domain` is neither TARVO_DOMAIN_LOCAL nor the domain of this process.
bool IsCrossDomainPipe(const TarvoDomain &domain);

// Does nothing. Every thread of the library calls it when it starts; a program may define its own to pin threads.
void NuroCoreSetaffinity(void);

} // extern "C"

// TarvoOpen with the defaults of TarvoAttr: priority normal, serial callbacks, no group, own process name. A null
// `callback` means none.
int TarvoOpen(const char *targetName, void (*callback)(int, TarvoRequest *), int timeout, TarvoMode mode);

#endif // TARVO_H
