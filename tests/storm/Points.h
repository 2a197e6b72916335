// The moments at which a process kills itself.
#ifndef TARVO_STORM_POINTS_H
#define TARVO_STORM_POINTS_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "support/Faults.h"

namespace storm {

enum class Role { Server, Client };

// Where in its life a process is killed. The first group is met in system calls, the second in the roles' own code.
enum class Moment {
    Never,
    MonitorFifoMade,      // server: its FIFO exists under the temporary name only
    MonitorFifoPublished, // server: the same file has both names
    MonitorFifoNotOpen,   // server: published, without a reader
    PacketRead,           // server: it knows of the client and has made no file
    OneFifoMade,          // server: the first FIFO of a client exists, under the temporary name only
    OneFifoPublished,     // server: the second one is still missing
    RemovingFile,         // server: about to remove a FIFO or a temporary name
    NotWatched,           // both: a descriptor is about to enter an epoll set
    Writing,              // both: about to write a packet, a request or an answer
    PacketWritten,        // client: announced, has opened nothing
    HalfOpen,             // client: has the write end and no read end
    Closing,              // client: about to close a descriptor of its pipe
    Waiting,              // client: its caller waits for an answer; the server kills it
    InCallback,           // both: a request is being handled
    InOpenCallback,       // server: it is told of a new client
    InCloseCallback,      // both: it is told that the remote is gone
    Count,
};

const char *NameOf(Moment moment);
const std::vector<Moment> &MomentsOf(Role role);

// Kills this process the `nth` time that it comes to `moment`, while it lives.
// Owns: the armed hook. Threads: one makes it, any is killed. Locks: none. Ends: with the process.
class Trap {
public:
    Trap(Moment moment, unsigned nth, const std::string &server);

private:
    std::unique_ptr<tarvo_test::ScopedHook> hook;
};

// Ends this process at once, as a SIGKILL from outside.
[[noreturn]] void Die();

// A moment that the roles meet in their own code: dies when the process is to die there now.
void Meet(Moment moment);
// The client's next request asks the server to kill it.
bool WantsToDieWaiting();

} // namespace storm

#endif // TARVO_STORM_POINTS_H
