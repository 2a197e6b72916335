// How an inventory is shown.
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "shared/Ids.h"
#include "shared/Inventory.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

using nlohmann::json;

Colour ColourOf(State state) {
    switch (state) {
    case State::LIVE:
        return Colour::GREEN;
    case State::STOPPED:
    case State::HALF:
        return Colour::YELLOW;
    case State::CROSSED:
    case State::STALE:
        return Colour::RED;
    case State::UNKNOWN:
        break;
    }
    return Colour::DIM;
}

// "4711 telemetry (ada)", or "-" for nobody.
std::string ProcessesText(const Inventory &inventory, const std::vector<pid_t> &pids) {
    std::string text;
    for (const pid_t pid : pids) {
        text += text.empty() ? "" : ", ";
        text += std::to_string(pid);
        const auto process = inventory.holders.processes.find(pid);
        if (process != inventory.holders.processes.end()) {
            const char *stopped = process->second.stopped ? ", stopped" : "";
            text += fmt::format(" {} ({}{})", process->second.name, UserText(process->second.user), stopped);
        }
    }
    return text.empty() ? "-" : text;
}

std::string OrDash(const std::string &text) { return text.empty() ? "-" : text; }

std::vector<Table::Cell> FileCells(const FifoFile &file) {
    return {ModeText(file.mode), UserText(file.user), GroupText(file.group), OrDash(file.label)};
}

json ProcessesJson(const Inventory &inventory, const std::vector<pid_t> &pids) {
    json list = json::array();
    for (const pid_t pid : pids) {
        json entry = {{"pid", pid}};
        const auto process = inventory.holders.processes.find(pid);
        if (process != inventory.holders.processes.end()) {
            entry["process"] = process->second.name;
            entry["user"] = UserText(process->second.user);
            entry["stopped"] = process->second.stopped;
            entry["label"] = process->second.label.empty() ? json() : json(process->second.label);
        }
        list.push_back(entry);
    }
    return list;
}

json FileJson(const std::string &directory, const FifoFile &file) {
    return {{"path", directory + file.name},
            {"mode", fmt::format("{:04o}", file.mode & 07777U)},
            {"user", UserText(file.user)},
            {"group", GroupText(file.group)},
            {"label", file.label.empty() ? json() : json(file.label)}};
}

json OptionalFileJson(const std::string &directory, const std::optional<FifoFile> &file) {
    return file ? FileJson(directory, *file) : json();
}

json SideJson(const Inventory &inventory, const Side &side) {
    return {{"name", side.name}, {"processes", ProcessesJson(inventory, side.processes)}};
}

std::string ServersText(const Inventory &inventory) {
    Table table({"SERVER", "STATE", "PROCESS", "PIPES", "MODE", "OWNER", "GROUP", "LABEL"});
    for (const Server &server : inventory.servers) {
        std::vector<Table::Cell> row = {server.name,
                                        {StateText(server.state), ColourOf(server.state)},
                                        ProcessesText(inventory, server.processes),
                                        std::to_string(server.pipes)};
        const std::vector<Table::Cell> file = FileCells(server.file);
        row.insert(row.end(), file.begin(), file.end());
        table.Add(row);
    }
    return table.Empty() ? "" : table.Text();
}

std::string PipesText(const Inventory &inventory) {
    Table table({"PIPE", "STATE", "PROCESS", "PEER", "PROCESS", "MODE", "OWNER", "GROUP", "LABEL"});
    for (const PipeEntry &pipe : inventory.pipes) {
        std::vector<Table::Cell> row = {pipe.first.name,
                                        {StateText(pipe.state), ColourOf(pipe.state)},
                                        ProcessesText(inventory, pipe.first.processes),
                                        pipe.second.name,
                                        ProcessesText(inventory, pipe.second.processes)};
        const std::vector<Table::Cell> file = FileCells(pipe.fromFirst ? *pipe.fromFirst : *pipe.fromSecond);
        row.insert(row.end(), file.begin(), file.end());
        table.Add(row);
    }
    return table.Empty() ? "" : table.Text();
}

// Servers that run on a FIFO which a later server of the same name has replaced.
std::string ReplacedText(const Inventory &inventory) {
    std::string text;
    for (const NamelessFifo &fifo : inventory.holders.nameless) {
        if (fifo.holder.reads) {
            text += fmt::format("{} {}: held by {}, but replaced or removed: nobody reaches it\n",
                                Painted(Colour::YELLOW, "unreachable"), fifo.path,
                                ProcessesText(inventory, {fifo.holder.pid}));
        }
    }
    return text;
}

} // namespace

std::string InventoryText(const Inventory &inventory) {
    const std::string servers = ServersText(inventory);
    const std::string pipes = PipesText(inventory);
    std::string text = servers;
    text += servers.empty() || pipes.empty() ? "" : "\n";
    text += pipes;
    return text + ReplacedText(inventory);
}

void DiagnoseInventory(const Inventory &inventory) {
    if (inventory.files.error != 0) {
        Diagnose("{}: {}; {}", inventory.directory, std::strerror(inventory.files.error),
                 inventory.files.error == ENOENT ? "'tarvoctl init' makes it" : "see 'tarvoctl doctor'");
    } else if (inventory.holders.hidden > 0) {
        Diagnose("{} processes of other users cannot be seen; root sees all", inventory.holders.hidden);
    } else if (inventory.holders.ownNamespace) {
        Diagnose("processes outside of this pid namespace cannot be seen");
    }
}

json InventoryJson(const Inventory &inventory) {
    json servers = json::array();
    for (const Server &server : inventory.servers) {
        json entry = FileJson(inventory.directory, server.file);
        entry["name"] = server.name;
        entry["state"] = StateText(server.state);
        entry["pipes"] = server.pipes;
        entry["processes"] = ProcessesJson(inventory, server.processes);
        servers.push_back(entry);
    }
    json pipes = json::array();
    for (const PipeEntry &pipe : inventory.pipes) {
        pipes.push_back({{"state", StateText(pipe.state)},
                         {"ends", {SideJson(inventory, pipe.first), SideJson(inventory, pipe.second)}},
                         {"files",
                          {OptionalFileJson(inventory.directory, pipe.fromFirst),
                           OptionalFileJson(inventory.directory, pipe.fromSecond)}}});
    }
    json unreachable = json::array();
    for (const NamelessFifo &fifo : inventory.holders.nameless) {
        if (fifo.holder.reads) {
            unreachable.push_back({{"name", fifo.path}, {"processes", ProcessesJson(inventory, {fifo.holder.pid})}});
        }
    }
    return {{"directory", inventory.directory},
            {"servers", servers},
            {"pipes", pipes},
            {"unreachable", unreachable},
            {"complete", inventory.holders.Complete()}};
}

} // namespace tarvoctl
