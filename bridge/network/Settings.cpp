#include "network/Settings.h"

#include <fmt/format.h>

namespace tarvo_bridge {
namespace {

std::string Escaped(const std::string &text) {
    std::string escaped;
    for (const char letter : text) {
        switch (letter) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += letter;
        }
    }
    return escaped;
}

std::string GeneralOf(const Settings &settings) {
    std::string all;
    for (const std::string &name : settings.interfaces) {
        all += fmt::format("<NetworkInterface name=\"{}\"/>", Escaped(name));
    }
    std::string general = all.empty() ? "" : "<Interfaces>" + all + "</Interfaces>";
    if (!settings.peers.empty()) {
        // What is for several goes to each by itself: some may be where multicast does not get.
        general += "<AllowMulticast>spdp</AllowMulticast>";
    }
    return general.empty() ? "" : "<General>" + general + "</General>";
}

std::string PeersOf(const Settings &settings) {
    std::string all;
    for (const std::string &address : settings.peers) {
        all += fmt::format("<Peer address=\"{}\"/>", Escaped(address));
    }
    return all.empty() ? "" : "<Peers>" + all + "</Peers>";
}

std::string Plugin(const std::string &folder, const char *library, const char *purpose) {
    return fmt::format("<Library path=\"{}/libdds_security_{}.so\" initFunction=\"init_{}\" "
                       "finalizeFunction=\"finalize_{}\"/>",
                       Escaped(folder), library, purpose, purpose);
}

std::string SecurityOf(const Settings &settings, const std::string &pluginFolder) {
    if (settings.securityFolder.empty()) {
        return "";
    }
    const auto file = [&settings](const char *element, const char *name) {
        return fmt::format("<{0}>file:{1}/{2}</{0}>", element, Escaped(settings.securityFolder), name);
    };
    return "<Security><Authentication>" + Plugin(pluginFolder, "auth", "authentication") +
           file("IdentityCA", "identity_ca.cert.pem") + file("IdentityCertificate", "cert.pem") +
           file("PrivateKey", "key.pem") + "</Authentication><AccessControl>" +
           Plugin(pluginFolder, "ac", "access_control") + file("PermissionsCA", "permissions_ca.cert.pem") +
           file("Governance", "governance.p7s") + file("Permissions", "permissions.p7s") +
           "</AccessControl><Cryptographic>" + Plugin(pluginFolder, "crypto", "crypto") + "</Cryptographic></Security>";
}

} // namespace

const std::vector<SecurityFile> &SecurityFiles() {
    static const std::vector<SecurityFile> files{
        {"identity_ca.cert.pem", "the certificate of who vouches for the machines"},
        {"cert.pem", "this machine's certificate"},
        {"key.pem", "its private key"},
        {"permissions_ca.cert.pem", "the certificate of who signs the two files below"},
        {"governance.p7s", "what is protected"},
        {"permissions.p7s", "what this machine may do"},
    };
    return files;
}

std::string DdsConfiguration(const Settings &settings, const std::string &pluginFolder) {
    // An announcement three times in a lease, so that one or two may be lost.
    const std::string discovery =
        fmt::format("<Discovery><Tag>{}</Tag>{}<ParticipantIndex>auto</ParticipantIndex>"
                    "<MaxAutoParticipantIndex>32</MaxAutoParticipantIndex><LeaseDuration>{} ms</LeaseDuration>"
                    "<SPDPInterval>{} ms</SPDPInterval></Discovery>",
                    Escaped(settings.tag), PeersOf(settings), settings.leaseMs, settings.leaseMs / 3);
    // What a link that ends has not been acknowledged for is for nobody, and the bridge's one thread would wait for it.
    const char *const internal = "<Internal><WriterLingerDuration>0 s</WriterLingerDuration></Internal>";
    std::string configuration = "<Domain Id=\"any\">" + GeneralOf(settings) + discovery + internal +
                                SecurityOf(settings, pluginFolder) + "</Domain>";
    if (!settings.ddsConfig.empty()) {
        configuration += ",file://" + settings.ddsConfig;
    }
    return configuration;
}

} // namespace tarvo_bridge
