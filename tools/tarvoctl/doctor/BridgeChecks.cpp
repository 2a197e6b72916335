// What the bridges of this machine miss.
#include <fmt/format.h>

#include <cstring>

#include "doctor/Checks.h"
#include "shared/Bridges.h"

namespace tarvoctl {

void CheckBridges(Findings &findings) {
    for (const BridgedName &name : FindBridgedNames()) {
        if (name.works) {
            const std::string way = name.exported ? "exported" : "offered, carried by machine " + name.carrier;
            findings.push_back({Level::OK, "bridge", fmt::format("'{}' is {}", name.name, way), ""});
        } else if (name.exported) {
            findings.push_back(
                {Level::NOTE, "bridge",
                 fmt::format("'{}' is to be exported by process {}, but has no server", name.name, name.bridge),
                 "start its server"});
        } else if (name.refused != 0) {
            findings.push_back({Level::WARNING, "bridge",
                                fmt::format("'{}' of machine {} cannot be offered here: {}", name.remote, name.carrier,
                                            std::strerror(-name.refused)),
                                fmt::format("stop the server '{}', or import under another name", name.name)});
        } else {
            findings.push_back({Level::WARNING, "bridge",
                                fmt::format("'{}' is imported by process {}, but no machine carries '{}'", name.name,
                                            name.bridge, name.remote),
                                "see whether the other machine's bridge runs and its server lives: docs/bridge.md"});
        }
    }
}

} // namespace tarvoctl
