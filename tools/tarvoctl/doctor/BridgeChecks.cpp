// What the bridges of this machine miss.
#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "doctor/Checks.h"
#include "shared/Bridges.h"

namespace tarvoctl {
namespace {

constexpr char BRIDGE[] = "bridge";

// Where its server file cannot be made.
std::string RemedyOf(const BridgedName &name) {
    switch (-name.refused) {
    case EADDRINUSE:
        return fmt::format("stop the server '{}', or import under another name", name.name);
    case ENOSPC:
    case EDQUOT:
        return "make room in the FIFO directory: tarvoctl clean; remove what else lies there; mount it larger";
    case EACCES:
    case EPERM:
        return fmt::format("let the user of process {} make FIFOs: put it into the group of the FIFO directory; or "
                           "remove what another user has left there as '{}'",
                           name.bridge, name.name);
    case EROFS:
        return "mount the FIFO directory writable";
    case ENOENT:
    case ENOTDIR:
        return "as root: tarvoctl init";
    case EMFILE:
        return "let the bridge have more descriptors: ulimit -n; LimitNOFILE in its unit";
    case ENFILE:
        return "let the machine have more files open: sysctl fs.file-max";
    case ENOMEM:
        return "let the machine, or the bridge's control group, have more memory";
    default:
        return fmt::format("see the log of process {}, and the system log", name.bridge);
    }
}

void CheckName(const BridgedName &name, Findings &findings) {
    if (name.works) {
        const std::string way = name.exported ? "exported" : "offered, carried by machine " + name.carrier;
        findings.push_back({Level::OK, BRIDGE, fmt::format("'{}' is {}", name.name, way), ""});
    } else if (name.exported) {
        findings.push_back(
            {Level::NOTE, BRIDGE,
             fmt::format("'{}' is to be exported by process {}, but has no server", name.name, name.bridge),
             "start its server"});
    } else if (name.refused != 0) {
        findings.push_back({Level::WARNING, BRIDGE,
                            fmt::format("'{}' of machine {} cannot be offered here: {}", name.remote, name.carrier,
                                        std::strerror(-name.refused)),
                            RemedyOf(name)});
    } else if (!name.carrier.empty()) {
        findings.push_back({Level::WARNING, BRIDGE,
                            fmt::format("'{}' is imported by process {}, but its link to machine {}, which carries "
                                        "'{}', is down",
                                        name.name, name.bridge, name.carrier, name.remote),
                            "see what is found of that link"});
    } else {
        findings.push_back({Level::WARNING, BRIDGE,
                            fmt::format("'{}' is imported by process {}, but no machine carries '{}'", name.name,
                                        name.bridge, name.remote),
                            "see whether the other machine's bridge runs and its server lives: docs/bridge.md"});
    }
}

void CheckLink(const BridgeLink &link, Findings &findings) {
    if (link.up) {
        findings.push_back({Level::OK, BRIDGE,
                            fmt::format("the link of process {} to machine {} is up, with {} sessions", link.bridge,
                                        link.machine, link.sessions),
                            ""});
    } else if (link.wanted) {
        findings.push_back({Level::WARNING, BRIDGE,
                            fmt::format("the link of process {} to machine {} is down: no client gets through",
                                        link.bridge, link.machine),
                            "it comes up when both bridges hear each other: see the log of each, and docs/bridge.md"});
    }
}

void CheckDead(const DeadBridge &dead, Findings &findings) {
    if (dead.sure) {
        findings.push_back({Level::WARNING, BRIDGE,
                            fmt::format("the bridge of process {} is dead, its file is left behind", dead.bridge),
                            fmt::format("start it again if it is needed; rm {}", dead.file)});
    } else {
        findings.push_back({Level::NOTE, BRIDGE,
                            fmt::format("the bridge of process {} is dead, or outside of this pid namespace; its file "
                                        "is there",
                                        dead.bridge),
                            fmt::format("where it is dead: start it again if it is needed; rm {}", dead.file)});
    }
}

} // namespace

void CheckBridges(Findings &findings) {
    const Bridges bridges = FindBridges();
    for (const BridgedName &name : bridges.names) {
        CheckName(name, findings);
    }
    for (const BridgeLink &link : bridges.links) {
        CheckLink(link, findings);
    }
    for (const DeadBridge &dead : bridges.dead) {
        CheckDead(dead, findings);
    }
}

} // namespace tarvoctl
