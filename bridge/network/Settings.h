// Where on the network a bridge is, and whom it lets in.
#ifndef TARVO_BRIDGE_NETWORK_SETTINGS_H
#define TARVO_BRIDGE_NETWORK_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

namespace tarvo_bridge {

struct Settings {
    uint32_t domain = 0;
    std::string tag = "tarvo";
    std::vector<std::string> interfaces; // empty: what the DDS chooses
    std::vector<std::string> peers;      // addresses that are asked in addition to multicast
    int64_t leaseMs = 2000;
    std::string securityFolder; // empty: anybody on the network is let in
    std::string ddsConfig;      // a file of the DDS's own, whose settings come last
};

// The files of a security folder, as DDS Security names their purposes.
struct SecurityFile {
    const char *name;
    const char *purpose;
};
const std::vector<SecurityFile> &SecurityFiles();

// The configuration of the DDS that follows. `pluginFolder`: where its security plug-ins are.
std::string DdsConfiguration(const Settings &settings, const std::string &pluginFolder);

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_NETWORK_SETTINGS_H
