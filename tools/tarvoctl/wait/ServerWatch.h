#ifndef TARVO_TARVOCTL_SERVERWATCH_H
#define TARVO_TARVOCTL_SERVERWATCH_H

#include <chrono>
#include <optional>
#include <string>

#include "base/UniqueFd.h"

namespace tarvoctl {

// What is known of a server.
enum class Presence {
    NO_FILE,
    NO_READER, // its file is there, and nobody reads it: a server that died, or is just starting
    NO_RIGHT,  // this user may not enter the directory, or write to the file
    SERVING,
};

// Looks for the server of one name, as a client would before it connects, and waits for a change. Calls nothing of the
// library, which would write a line for each attempt.
// Owns: an inotify instance. Threads: one. Locks: none. Ends: any time.
class ServerWatch {
public:
    explicit ServerWatch(const std::string &name);

    Presence Look();
    // Returns when it is worth to look again, after `limit` at the latest. True when `interruptFd` is readable.
    bool Wait(int interruptFd, std::optional<std::chrono::microseconds> limit) const;

private:
    const std::string path;
    const std::string directory;
    UniqueFd events;
    bool watched = false;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_SERVERWATCH_H
