// The servers and pipes of a FIFO directory: its files, and who holds them, put together.
#ifndef TARVO_TARVOCTL_INVENTORY_H
#define TARVO_TARVOCTL_INVENTORY_H

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "shared/FifoFiles.h"
#include "shared/Holders.h"

namespace tarvoctl {

enum class State {
    LIVE,    // held as it should be
    STOPPED, // a server whose processes are all stopped, by a signal or a debugger
    CROSSED, // a pipe that both sides opened in server mode: each reads a FIFO of its own making
    HALF,    // a pipe of which only one side is there: the other is still to come, or gone
    STALE,   // no process holds it
    UNKNOWN, // nobody seen holds it, but not every process could be looked at
};
const char *StateText(State state);

struct Server {
    std::string name;
    FifoFile file;
    std::vector<pid_t> processes; // those that read it
    std::size_t pipes = 0;        // pipes under its name that somebody holds
    State state = State::UNKNOWN;
};

// One side of a pipe.
struct Side {
    std::string name;
    std::vector<pid_t> processes;
};

// The two FIFOs between two names.
struct PipeEntry {
    Side first; // the server's, where one of the two names is a server's
    Side second;
    std::optional<FifoFile> fromFirst; // FIRST__to__SECOND
    std::optional<FifoFile> fromSecond;
    State state = State::UNKNOWN;
};

struct Inventory {
    std::string directory;
    FifoFiles files;
    Holders holders;
    std::vector<Server> servers;
    std::vector<PipeEntry> pipes;

    const Server *FindServer(const std::string &name) const;
};

// `trustNamespace`: no process outside of this pid namespace uses the directory.
Inventory TakeInventory(const std::string &directory, bool trustNamespace = false);

// The processes that have a FIFO of the directory open, by number. The holders know of those elsewhere on the same file
// system, too.
std::vector<Process> UsersOf(const Inventory &inventory);

// Lines on standard error about what could not be seen.
void DiagnoseInventory(const Inventory &inventory);

// The tables that people read, and the same in JSON.
std::string InventoryText(const Inventory &inventory);
nlohmann::json InventoryJson(const Inventory &inventory);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_INVENTORY_H
