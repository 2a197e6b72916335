#ifndef TARVO_BRIDGE_CORE_ROSTER_H
#define TARVO_BRIDGE_CORE_ROSTER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/Network.h"
#include "core/Peer.h"

namespace tarvo_bridge {

// The other bridges, those that are there and, as they may come back, the last of those that are gone. However many the
// network tells of, so many are known and no more.
// Owns: them. Threads: that of the loop. Locks: none. Ends: before the network and the peers' owner.
class Roster {
public:
    // Bridges that are there, and as many that are not.
    static constexpr std::size_t MOST_PEERS = 256;

    Roster(RunId ownRun, Peer::Limits peerLimits, Network &usedNetwork, Peer::Owner &peerOwner)
        : self(ownRun), limits(peerLimits), network(usedNetwork), owner(peerOwner) {}

    // Null: it is not known.
    Peer *Find(RunId run);
    // The one that has told this of itself, new or known. Null: there are too many.
    Peer *Meet(const Announcement &announcement);

    // In the order in which they were heard of.
    auto begin() const { return peers.begin(); }
    auto end() const { return peers.end(); }

private:
    std::size_t Present() const;
    bool HasRoom(const Announcement &announcement);
    void ForgetOldest();

    const RunId self;
    const Peer::Limits limits;
    Network &network;
    Peer::Owner &owner;
    uint32_t beginnings = 0;
    bool refusing = false;
    std::vector<std::unique_ptr<Peer>> peers;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_ROSTER_H
