#include "core/Roster.h"

#include <algorithm>

#include "core/Report.h"

namespace tarvo_bridge {

Peer *Roster::Find(RunId run) {
    const auto found =
        std::find_if(peers.begin(), peers.end(), [run](const auto &peer) { return peer->Told().run == run; });
    return found == peers.end() ? nullptr : found->get();
}

std::size_t Roster::Present() const {
    return static_cast<std::size_t>(
        std::count_if(peers.begin(), peers.end(), [](const auto &peer) { return !peer->IsLost(); }));
}

Peer *Roster::Meet(const Announcement &announcement) {
    Peer *const known = Find(announcement.run);
    if (known != nullptr && !known->IsLost()) {
        known->SetTold(announcement);
        return known;
    }
    if (!HasRoom(announcement)) {
        return nullptr;
    }
    if (known != nullptr) {
        known->SetTold(announcement);
        return known;
    }
    ForgetOldest();
    if (peers.size() >= 2 * MOST_PEERS) {
        return nullptr; // all that are gone still deliver
    }
    peers.push_back(std::make_unique<Peer>(self, announcement, limits, beginnings, network, owner));
    return peers.back().get();
}

// What is refused is told once, until there are far fewer.
bool Roster::HasRoom(const Announcement &announcement) {
    const std::size_t present = Present();
    if (present < MOST_PEERS) {
        refusing = refusing && present > MOST_PEERS / 2;
        return true;
    }
    if (!refusing) {
        Say(Level::WARNING,
            "there are {} other bridges on the network; that of machine '{}', and others that come, are "
            "left alone",
            present, announcement.machine);
    }
    refusing = true;
    return false;
}

// One that still has something to deliver is not forgotten.
void Roster::ForgetOldest() {
    if (peers.size() - Present() < MOST_PEERS) {
        return;
    }
    const auto oldest = std::find_if(peers.begin(), peers.end(),
                                     [](const auto &peer) { return peer->IsLost() && peer->Sessions() == 0; });
    if (oldest != peers.end()) {
        peers.erase(oldest);
    }
}

} // namespace tarvo_bridge
