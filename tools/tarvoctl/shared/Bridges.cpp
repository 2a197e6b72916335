#include "shared/Bridges.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "shared/Holders.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

constexpr char FOLDER[] = "/run/tarvo-bridge";

bool IsStateFile(const std::string &name) {
    const std::string end = ".json";
    return name.rfind("bridge-", 0) == 0 && name.size() > end.size() &&
           name.compare(name.size() - end.size(), end.size(), end) == 0;
}

void AddNames(const nlohmann::json &state, pid_t bridge, std::vector<BridgedName> &names) {
    for (const nlohmann::json &entry : state.at("exports")) {
        names.push_back({bridge, true, entry.at("name"), "", "", entry.at("lives"), 0});
    }
    for (const nlohmann::json &entry : state.at("imports")) {
        const std::string machine = entry.at("machine");
        std::string remote = entry.at("service");
        if (!machine.empty()) {
            remote += "@" + machine;
        }
        names.push_back({bridge, false, entry.at("name"), remote, entry.at("carried_by"), entry.at("offered"),
                         entry.at("refused")});
    }
}

void AddLinks(const nlohmann::json &state, pid_t bridge, std::vector<BridgeLink> &links) {
    for (const nlohmann::json &entry : state.value("peers", nlohmann::json::array())) {
        const bool up = entry.at("up");
        // Earlier bridges do not tell whether it is wanted.
        links.push_back({bridge, entry.at("machine"), entry.value("wanted", up), up, entry.at("sessions")});
    }
}

// Whether the bridge has the lock of one of its names. The process of its number may be another by now.
bool Lives(const std::filesystem::path &folder, pid_t bridge, const std::vector<BridgedName> &names) {
    const Locks locks = FindLocks();
    return std::any_of(names.begin(), names.end(), [&](const BridgedName &name) {
        struct stat file {};
        // Some file systems have another device there than here.
        return stat((folder / (name.name + ".name")).c_str(), &file) == 0 &&
               std::any_of(locks.begin(), locks.end(), [&](const auto &lock) {
                   return lock.first.inode == file.st_ino && OwnPidOf(lock.second) == bridge;
               });
    });
}

void AddState(const std::filesystem::path &path, const nlohmann::json &state, Bridges &bridges) {
    const pid_t bridge = state.at("pid");
    std::vector<BridgedName> names;
    AddNames(state, bridge, names);
    if (Lives(path.parent_path(), bridge, names)) {
        bridges.names.insert(bridges.names.end(), names.begin(), names.end());
        AddLinks(state, bridge, bridges.links);
    } else if (std::filesystem::exists(path)) { // one that has ended meanwhile has removed it before
        bridges.dead.push_back({bridge, path, !IsInPidNamespace()});
    }
}

Table::Cell StateOf(const BridgedName &name) {
    if (name.works) {
        return {name.exported ? "exported" : "offered", Colour::GREEN};
    }
    if (name.refused != 0) {
        return {fmt::format("refused: {}", std::strerror(-name.refused)), Colour::YELLOW};
    }
    return {name.exported ? "no server" : "missing", Colour::YELLOW};
}

const char *StateOf(const BridgeLink &link) { return link.up ? "up" : link.wanted ? "down" : "idle"; }

Colour ColourOf(const BridgeLink &link) {
    return link.up ? Colour::GREEN : link.wanted ? Colour::YELLOW : Colour::NONE;
}

std::string NamesText(const std::vector<BridgedName> &names) {
    Table table({"BRIDGED", "WAY", "STATE", "REMOTE", "CARRIED BY", "BRIDGE"});
    for (const BridgedName &name : names) {
        table.Add({name.name, name.exported ? "export" : "import", StateOf(name),
                   name.remote.empty() ? "-" : name.remote, name.carrier.empty() ? "-" : name.carrier,
                   std::to_string(name.bridge)});
    }
    return table.Empty() ? "" : "\n" + table.Text();
}

std::string LinksText(const std::vector<BridgeLink> &links) {
    Table table({"LINK TO", "STATE", "SESSIONS", "BRIDGE"});
    for (const BridgeLink &link : links) {
        table.Add({link.machine,
                   {StateOf(link), ColourOf(link)},
                   std::to_string(link.sessions),
                   std::to_string(link.bridge)});
    }
    return table.Empty() ? "" : "\n" + table.Text();
}

nlohmann::json NamesJson(const std::vector<BridgedName> &names) {
    nlohmann::json list = nlohmann::json::array();
    for (const BridgedName &name : names) {
        list.push_back({{"name", name.name},
                        {"way", name.exported ? "export" : "import"},
                        {"works", name.works},
                        {"remote", name.remote},
                        {"carried_by", name.carrier},
                        {"refused", name.refused},
                        {"why", name.refused == 0 ? nlohmann::json() : nlohmann::json(std::strerror(-name.refused))},
                        {"bridge", name.bridge}});
    }
    return list;
}

nlohmann::json LinksJson(const std::vector<BridgeLink> &links) {
    nlohmann::json list = nlohmann::json::array();
    for (const BridgeLink &link : links) {
        list.push_back({{"machine", link.machine},
                        {"state", StateOf(link)},
                        {"sessions", link.sessions},
                        {"bridge", link.bridge}});
    }
    return list;
}

} // namespace

Bridges FindBridges() {
    const char *const given = std::getenv("TARVO_BRIDGE_STATE");
    Bridges bridges;
    std::error_code missing;
    for (const auto &entry : std::filesystem::directory_iterator(given != nullptr ? given : FOLDER, missing)) {
        if (!IsStateFile(entry.path().filename())) {
            continue;
        }
        std::ifstream file(entry.path());
        try {
            AddState(entry.path(), nlohmann::json::parse(file), bridges);
        } catch (const nlohmann::json::exception &) {
            Diagnose("{} is no state of a bridge", entry.path().string());
        }
    }
    return bridges;
}

std::string BridgesText(const Bridges &bridges) { return NamesText(bridges.names) + LinksText(bridges.links); }

void AddBridges(const Bridges &bridges, nlohmann::json &list) {
    if (!bridges.names.empty()) {
        list["bridged"] = NamesJson(bridges.names);
    }
    if (!bridges.links.empty()) {
        list["bridge_links"] = LinksJson(bridges.links);
    }
}

} // namespace tarvoctl
