#ifndef TARVO_BRIDGE_CORE_BRIDGE_H
#define TARVO_BRIDGE_CORE_BRIDGE_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/Choice.h"
#include "core/LocalSide.h"
#include "core/Network.h"
#include "core/Peer.h"
#include "core/Roster.h"

namespace tarvo_bridge {

// What a bridge is to do.
struct Plan {
    RunId run = 0;
    std::string machine;
    std::vector<std::string> exports;
    std::vector<ImportRule> imports;
    Peer::Limits limits{64, 2000, 4096};
};

// What it does at the moment, to be shown.
struct Picture {
    struct Import {
        ImportRule rule;
        std::string carriedBy; // a machine; empty: nobody
        bool offered;
        int refused; // the negated errno for which its server file could not be made
    };
    struct PeerState {
        std::string machine;
        RunId run;
        bool wanted; // one of the two imports from the other
        bool up;
        std::size_t sessions;
    };
    struct Export {
        std::string name;
        bool lives;
    };
    std::vector<Export> exports;
    std::vector<Import> imports;
    std::vector<PeerState> peers;
};

// The bridge of a machine: tells others which servers it can reach, offers the names that it imports while somebody
// carries them, and keeps a session for each client of either side.
// Owns: its peers. Threads: that of the loop. Locks: none. Ends: before the network and the local side.
class Bridge final : public Network::Listener, public LocalSide::Listener, public Peer::Owner {
public:
    // Owns: nothing. Threads, Locks: as Bridge. Ends: after it.
    class Listener {
    public:
        // There is something to send: Flush() is to be called soon, outside of the bridge.
        virtual void OnUnsent() = 0;
        // The moment of Due() has changed.
        virtual void OnDueChanged() = 0;

    protected:
        ~Listener() = default;
    };

    Bridge(Plan &&bridgePlan, Network &bridgeNetwork, LocalSide &localSide, Listener &bridgeListener);
    ~Bridge();
    Bridge(const Bridge &) = delete;
    Bridge &operator=(const Bridge &) = delete;

    // Announces itself, and looks for its servers.
    void Begin();
    void Flush();
    int64_t Due() const;
    void OnTime();
    Picture Look() const;
    // Whether it only carries what sessions are for: it makes and ends nothing but them.
    bool IsTraffic(const Bundle &bundle);

    void OnAnnounced(const Announcement &announcement) override;
    void OnRunLost(RunId run) override;
    void OnBundle(Bundle &bundle) override;
    void OnServer(const std::string &name, bool lives) override;
    void OnClient(const std::string &name, const LocalClient &client) override;

    // For its peers.
    void OnPeerUp(Peer &peer) override;
    void OnPeerDown(Peer &peer) override;
    void OnPeerUnsent() override { listener.OnUnsent(); }
    LocalPipe *ConnectToServer(const std::string &service, const std::string &client, const std::string &machine,
                               LocalPipe::Listener &session) override;
    LocalSide &Local() override { return local; }

private:
    struct Import {
        ImportRule rule;
        RunId carrier = 0;
        bool offered = false;
        int refused = 0;
    };

    // How often it is looked whether a name is still offered, and tried again to offer one that another server has and
    // to announce what the network did not take.
    static constexpr int64_t LOOK_INTERVAL_MS = 1000;

    Announcement Own() const;
    void Announce();
    void Welcome(Peer &peer);
    void ComeBack(Peer &peer);
    void Retire(Peer &peer);
    void TellOfTwin(Peer &peer);
    void TellOfTwins(int64_t now);
    void Choose();
    void Choose(Import &import, const std::vector<const Announcement *> &candidates);
    void CheckOffered(Import &import);
    void SetOffered(Import &import);

    Plan plan;
    Network &network;
    LocalSide &local;
    Listener &listener;
    uint32_t pipes = 0;
    int64_t lookDue = 0;
    bool announced = false;
    std::map<std::string, bool> servers; // the exports, and whether each lives
    std::vector<Import> imports;
    std::set<RunId> otherVersions; // of the protocol: bridges that are left alone
    Roster peers;
};

// The name under which a server sees a client of another machine: the client's, the machine's and a number that makes
// it the only one. At most `room` characters.
std::string RemoteName(const std::string &client, const std::string &machine, uint32_t number, std::size_t room);

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_BRIDGE_H
