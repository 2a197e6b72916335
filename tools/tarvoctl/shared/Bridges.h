// The bridges of this machine, as their state files tell of them. See tarvo-bridge(8).
#ifndef TARVO_TARVOCTL_BRIDGES_H
#define TARVO_TARVOCTL_BRIDGES_H

#include <sys/types.h>

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace tarvoctl {

// A name that a bridge exports or imports.
struct BridgedName {
    pid_t bridge = 0;
    bool exported = false;
    std::string name;
    std::string remote;  // of an import: what it asks for, as SERVICE or SERVICE@MACHINE
    std::string carrier; // of an import: the machine that carries it; empty: none does
    bool works = false;  // an export's server lives, an import is offered
    int refused = 0;     // the negated errno for which an import could not be offered
};

// What joins a bridge with that of another machine.
struct BridgeLink {
    pid_t bridge = 0;
    std::string machine;
    bool wanted = false; // one of the two imports from the other
    bool up = false;
    std::size_t sessions = 0; // clients of either side that go through it
};

// One whose file has outlived it.
struct DeadBridge {
    pid_t bridge = 0;
    std::string file;
    bool sure = true; // it is not in a pid namespace that this process does not see
};

// Names and links are those of the bridges that live.
struct Bridges {
    std::vector<BridgedName> names;
    std::vector<BridgeLink> links;
    std::vector<DeadBridge> dead;
};

// $TARVO_BRIDGE_STATE: the folder of their files, in place of /run/tarvo-bridge.
Bridges FindBridges();

// Empty where there are none.
std::string BridgesText(const Bridges &bridges);
// Adds them to a list, where there are any.
void AddBridges(const Bridges &bridges, nlohmann::json &list);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_BRIDGES_H
