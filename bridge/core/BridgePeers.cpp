// Which other bridges are there, and which of them are used.
#include <algorithm>

#include "core/Bridge.h"
#include "core/Report.h"

namespace tarvo_bridge {

void Bridge::OnAnnounced(const Announcement &announcement) {
    if (announcement.run == plan.run || announcement.run == 0) {
        return;
    }
    if (announcement.version != PROTOCOL_VERSION) {
        // Each of them once, as many as could be peers.
        if (otherVersions.size() < Roster::MOST_PEERS && otherVersions.insert(announcement.run).second) {
            Say(Level::WARNING, "the bridge of machine '{}' speaks version {}, this one {}; it is left alone",
                announcement.machine, announcement.version, PROTOCOL_VERSION);
        }
        return;
    }
    Peer *const peer = peers.Meet(announcement);
    if (peer == nullptr) {
        return;
    }
    if (peer->IsLost()) {
        Welcome(*peer);
    }
    Choose();
    listener.OnDueChanged();
}

// Of two that have the same names the one that comes later is used: mostly the other has died, and the network does
// not know yet.
void Bridge::Welcome(Peer &peer) {
    peer.SetHere();
    Say(Level::NOTICE, "the bridge of machine '{}' is there", peer.Told().machine);
    TellOfTwin(peer);
    for (const auto &other : peers) {
        if (other->IsHere() && TakesPlaceOf(peer.Told(), other->Told())) {
            other->SetReplaced(peer.Told().run, local.NowMs());
            Retire(*other);
        }
    }
    peer.Link().OnAnnounced(local.NowMs());
}

void Bridge::OnRunLost(RunId run) {
    otherVersions.erase(run);
    Peer *const peer = peers.Find(run);
    if (peer == nullptr || peer->IsLost()) {
        return;
    }
    const bool wasUsed = peer->IsHere();
    peer->SetLost();
    if (wasUsed) {
        Retire(*peer);
    }
    for (const auto &other : peers) {
        if (other->IsReplacedBy(run)) {
            ComeBack(*other);
        }
    }
    Choose();
    listener.OnDueChanged();
}

// The one that had its names is gone; but yet another may have them.
void Bridge::ComeBack(Peer &peer) {
    const auto later = std::find_if(peers.begin(), peers.end(), [&peer](const auto &other) {
        return other->IsHere() && TakesPlaceOf(other->Told(), peer.Told());
    });
    if (later == peers.end()) {
        Welcome(peer);
    } else {
        peer.SetReplaced((*later)->Told().run, local.NowMs());
    }
}

void Bridge::Retire(Peer &peer) {
    Say(Level::NOTICE, "the bridge of machine '{}' is gone", peer.Told().machine);
    peer.Link().OnLost();
}

// Of this bridge.
void Bridge::TellOfTwin(Peer &peer) {
    if (!peer.IsTwinTold() && TakesPlaceOf(peer.Told(), Own())) {
        peer.SetTwinTold();
        Say(Level::WARNING,
            "another bridge calls its machine '{}' too and has names of this one: run {:016x}; others "
            "use only one of the two",
            peer.Told().machine, peer.Told().run);
    }
}

// Of others: one that has been replaced, and still lives.
void Bridge::TellOfTwins(int64_t now) {
    for (const auto &peer : peers) {
        if (now >= peer->TwinDue()) {
            peer->SetTwinTold();
            Say(Level::WARNING,
                "two bridges that live call their machine '{}' and have the same names: runs {:016x} "
                "and {:016x}; only the second is used",
                peer->Told().machine, peer->Told().run, peer->ReplacedBy());
        }
    }
}

} // namespace tarvo_bridge
