#include "shared/Bridges.h"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "shared/Output.h"

namespace tarvoctl {
namespace {

constexpr char FOLDER[] = "/run/tarvo-bridge";

bool IsStateFile(const std::string &name) {
    const std::string end = ".json";
    return name.rfind("bridge-", 0) == 0 && name.size() > end.size() &&
           name.compare(name.size() - end.size(), end.size(), end) == 0;
}

void AddNames(const nlohmann::json &state, std::vector<BridgedName> &names) {
    const pid_t bridge = state.value("pid", 0);
    if (bridge <= 0 || !std::filesystem::exists("/proc/" + std::to_string(bridge))) {
        return; // it was killed
    }
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

} // namespace

std::vector<BridgedName> FindBridgedNames() {
    const char *const given = std::getenv("TARVO_BRIDGE_STATE");
    std::vector<BridgedName> names;
    std::error_code missing;
    for (const auto &entry : std::filesystem::directory_iterator(given != nullptr ? given : FOLDER, missing)) {
        if (!IsStateFile(entry.path().filename())) {
            continue;
        }
        std::ifstream file(entry.path());
        try {
            AddNames(nlohmann::json::parse(file), names);
        } catch (const nlohmann::json::exception &) {
            Diagnose("{} is no state of a bridge", entry.path().string());
        }
    }
    return names;
}

std::string BridgedText(const std::vector<BridgedName> &names) {
    Table table({"BRIDGED", "WAY", "STATE", "REMOTE", "CARRIED BY", "BRIDGE"});
    for (const BridgedName &name : names) {
        const std::string state =
            name.works ? (name.exported ? "exported" : "offered") : (name.exported ? "no server" : "missing");
        table.Add({name.name,
                   name.exported ? "export" : "import",
                   {state, name.works ? Colour::GREEN : Colour::YELLOW},
                   name.remote.empty() ? "-" : name.remote,
                   name.carrier.empty() ? "-" : name.carrier,
                   std::to_string(name.bridge)});
    }
    return table.Empty() ? "" : "\n" + table.Text();
}

nlohmann::json BridgedJson(const std::vector<BridgedName> &names) {
    nlohmann::json list = nlohmann::json::array();
    for (const BridgedName &name : names) {
        list.push_back({{"name", name.name},
                        {"way", name.exported ? "export" : "import"},
                        {"works", name.works},
                        {"remote", name.remote},
                        {"carried_by", name.carrier},
                        {"refused", name.refused},
                        {"bridge", name.bridge}});
    }
    return list;
}

} // namespace tarvoctl
