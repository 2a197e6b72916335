#include "shared/Inventory.h"

#include <algorithm>
#include <map>
#include <set>

namespace tarvoctl {
namespace {

constexpr char ARROW[] = "__to__";
constexpr std::size_t ARROW_SIZE = sizeof(ARROW) - 1;

struct Names {
    std::string from;
    std::string to;
};

// The two names in that of a pipe's file. Names may hold "__to__" themselves: the reading whose other direction exists
// is then the right one.
std::optional<Names> NamesOf(const std::string &file, const std::set<std::string> &files) {
    std::optional<Names> first;
    for (std::size_t at = file.find(ARROW); at != std::string::npos; at = file.find(ARROW, at + 1)) {
        Names names = {file.substr(0, at), file.substr(at + ARROW_SIZE)};
        if (files.count(names.to + ARROW + names.from) != 0) {
            return names;
        }
        if (!first) {
            first = std::move(names);
        }
    }
    return first;
}

void AddOnce(std::vector<pid_t> &processes, pid_t pid) {
    if (std::find(processes.begin(), processes.end(), pid) == processes.end()) {
        processes.push_back(pid);
    }
}

// Whoever writes `file` is on the side `writer`, and whoever reads it on the other.
void AddHolders(const Holders &holders, const std::optional<FifoFile> &file, Side &writer, Side &reader) {
    if (!file) {
        return;
    }
    for (const Holder &holder : holders.Of(file->id)) {
        if (holder.writes) {
            AddOnce(writer.processes, holder.pid);
        }
        if (holder.reads) {
            AddOnce(reader.processes, holder.pid);
        }
    }
}

// Those that hold, for reading, the FIFO which had the name that `file` has now: what is written there does not reach
// them. A reader that holds the other direction's old FIFO as well is not one of them: its peer has started anew.
std::vector<pid_t> ReadersOfReplaced(const Holders &holders, const std::string &file, const std::string &other) {
    std::vector<pid_t> readers;
    for (const NamelessFifo &fifo : holders.nameless) {
        if (fifo.path == file && fifo.holder.reads) {
            AddOnce(readers, fifo.holder.pid);
        }
    }
    for (const NamelessFifo &fifo : holders.nameless) {
        if (fifo.path == other && fifo.holder.writes) {
            readers.erase(std::remove(readers.begin(), readers.end(), fifo.holder.pid), readers.end());
        }
    }
    return readers;
}

bool IsRead(const Holders &holders, const FifoFile &file) {
    const std::vector<Holder> all = holders.Of(file.id);
    return std::any_of(all.begin(), all.end(), [](const Holder &holder) { return holder.reads; });
}

bool IsWritten(const Holders &holders, const FifoFile &file) {
    const std::vector<Holder> all = holders.Of(file.id);
    return std::any_of(all.begin(), all.end(), [](const Holder &holder) { return holder.writes; });
}

// Whether both sides were opened in server mode. Each then has made both FIFOs, the later in place of the earlier, and
// waits for the other to open its end. A side in client mode opens the end that it writes before the one that it reads.
// If so, whoever reads a replaced FIFO is joined to its side of the pipe.
bool JoinIfCrossed(PipeEntry &pipe, const Holders &holders) {
    if (!pipe.fromFirst || !pipe.fromSecond) {
        return false;
    }
    const std::string &fromFirst = pipe.fromFirst->name;
    const std::string &fromSecond = pipe.fromSecond->name;
    const bool firstReads = IsRead(holders, *pipe.fromSecond);
    const bool secondReads = IsRead(holders, *pipe.fromFirst);
    const std::vector<pid_t> firstLost = ReadersOfReplaced(holders, fromSecond, fromFirst);
    const std::vector<pid_t> secondLost = ReadersOfReplaced(holders, fromFirst, fromSecond);
    if (firstReads && secondReads) {
        return !IsWritten(holders, *pipe.fromFirst) && !IsWritten(holders, *pipe.fromSecond);
    }
    if ((!secondReads || firstLost.empty()) && (!firstReads || secondLost.empty())) {
        return false;
    }
    for (const pid_t pid : firstLost) {
        AddOnce(pipe.first.processes, pid);
    }
    for (const pid_t pid : secondLost) {
        AddOnce(pipe.second.processes, pid);
    }
    return true;
}

State StateOfPipe(PipeEntry &pipe, const Holders &holders) {
    if (JoinIfCrossed(pipe, holders)) {
        return State::CROSSED;
    }
    const bool first = !pipe.first.processes.empty();
    const bool second = !pipe.second.processes.empty();
    if (first && second) {
        return State::LIVE;
    }
    // Who is hidden may well be the other side.
    if (!holders.Complete()) {
        return State::UNKNOWN;
    }
    return first || second ? State::HALF : State::STALE;
}

// The states of the server's processes are added to `holders`, where nobody may see its descriptors.
Server MakeServer(const FifoFile &file, Holders &holders) {
    Server server;
    server.name = file.name;
    server.file = file;
    for (const Holder &holder : holders.Of(file.id)) {
        if (holder.reads) {
            server.processes.push_back(holder.pid);
        }
    }
    const auto lock = holders.locked.find(file.id);
    if (server.processes.empty() && lock != holders.locked.end()) {
        server.processes.push_back(lock->second); // seen by every user
        if (const std::optional<Process> process = DescribeProcess(lock->second)) {
            holders.processes.emplace(lock->second, *process);
        }
    }
    if (!server.processes.empty()) {
        const bool stopped = std::all_of(server.processes.begin(), server.processes.end(),
                                         [&](pid_t pid) { return holders.IsStopped(pid); });
        server.state = stopped ? State::STOPPED : State::LIVE;
    } else {
        server.state = holders.Complete() ? State::STALE : State::UNKNOWN;
    }
    return server;
}

void AddPipes(Inventory &inventory, const std::vector<std::pair<Names, FifoFile>> &files) {
    std::map<std::pair<std::string, std::string>, PipeEntry> pipes;
    for (const auto &[names, file] : files) {
        const bool turned = inventory.FindServer(names.to) != nullptr ||
                            (inventory.FindServer(names.from) == nullptr && names.to < names.from);
        const std::string &first = turned ? names.to : names.from;
        const std::string &second = turned ? names.from : names.to;
        PipeEntry &pipe = pipes[{first, second}];
        pipe.first.name = first;
        pipe.second.name = second;
        (turned ? pipe.fromSecond : pipe.fromFirst) = file;
    }
    for (auto &[key, pipe] : pipes) {
        AddHolders(inventory.holders, pipe.fromFirst, pipe.first, pipe.second);
        AddHolders(inventory.holders, pipe.fromSecond, pipe.second, pipe.first);
        pipe.state = StateOfPipe(pipe, inventory.holders);
        inventory.pipes.push_back(pipe);
    }
}

void CountPipes(Inventory &inventory) {
    for (Server &server : inventory.servers) {
        for (const PipeEntry &pipe : inventory.pipes) {
            const bool held = !pipe.first.processes.empty() || !pipe.second.processes.empty();
            const bool own = pipe.first.name == server.name || pipe.second.name == server.name;
            server.pipes += held && own ? 1 : 0;
        }
    }
}

} // namespace

const char *StateText(State state) {
    switch (state) {
    case State::LIVE:
        return "live";
    case State::STOPPED:
        return "stopped";
    case State::CROSSED:
        return "crossed";
    case State::HALF:
        return "half";
    case State::STALE:
        return "stale";
    case State::UNKNOWN:
        break;
    }
    return "unknown";
}

const Server *Inventory::FindServer(const std::string &name) const {
    const auto found =
        std::find_if(servers.begin(), servers.end(), [&](const Server &server) { return server.name == name; });
    return found == servers.end() ? nullptr : &*found;
}

std::vector<Process> UsersOf(const Inventory &inventory) {
    std::set<pid_t> pids;
    for (const FifoFile &file : inventory.files.fifos) {
        for (const Holder &holder : inventory.holders.Of(file.id)) {
            pids.insert(holder.pid);
        }
    }
    for (const NamelessFifo &fifo : inventory.holders.nameless) {
        pids.insert(fifo.holder.pid);
    }
    std::vector<Process> users;
    for (const auto &[pid, process] : inventory.holders.processes) {
        if (pids.count(pid) != 0) {
            users.push_back(process);
        }
    }
    return users;
}

Inventory TakeInventory(const std::string &directory, bool trustNamespace) {
    Inventory inventory;
    inventory.directory = WithSlash(directory);
    inventory.files = ScanFifoFiles(directory);
    inventory.holders = FindHolders(directory);
    inventory.holders.ownNamespace = inventory.holders.ownNamespace && !trustNamespace;
    std::set<std::string> names;
    for (const FifoFile &file : inventory.files.fifos) {
        names.insert(file.name);
    }
    std::vector<std::pair<Names, FifoFile>> pipeFiles;
    for (const FifoFile &file : inventory.files.fifos) {
        const std::optional<Names> both = NamesOf(file.name, names);
        if (both) {
            pipeFiles.emplace_back(*both, file);
        } else {
            inventory.servers.push_back(MakeServer(file, inventory.holders));
        }
    }
    AddPipes(inventory, pipeFiles);
    CountPipes(inventory);
    return inventory;
}

} // namespace tarvoctl
