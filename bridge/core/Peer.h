#ifndef TARVO_BRIDGE_CORE_PEER_H
#define TARVO_BRIDGE_CORE_PEER_H

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/LocalSide.h"
#include "core/PeerLink.h"
#include "core/Session.h"

namespace tarvo_bridge {

// Another bridge, as this one knows it: what it has announced, the link to it, and the sessions that go through that.
// Owns: all of them. Threads: that of the loop. Locks: none. Ends: any time but inside its own callbacks.
class Peer final : public PeerLink::Listener, public Session::Owner {
public:
    // Owns: nothing. Threads: that of the loop. Locks: none. Ends: after its peers.
    class Owner {
    public:
        virtual void OnPeerUp(Peer &peer) = 0;
        virtual void OnPeerDown(Peer &peer) = 0;
        virtual void OnPeerUnsent() = 0;
        // Null: not exported, or it cannot be made.
        virtual LocalPipe *ConnectToServer(const std::string &service, const std::string &client,
                                           const std::string &machine, LocalPipe::Listener &session) = 0;
        virtual LocalSide &Local() = 0;

    protected:
        ~Owner() = default;
    };

    struct Limits {
        uint32_t window; // in frames
        int64_t leaseMs;
        uint32_t sessions; // with one other bridge
    };

    Peer(RunId self, Announcement first, Limits peerLimits, uint32_t &beginnings, Network &network, Owner &peerOwner);
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    const Announcement &Told() const { return told; }
    void SetTold(const Announcement &announcement) { told = announcement; }
    PeerLink &Link() { return link; }
    const PeerLink &Link() const { return link; }
    bool IsHere() const { return standing == Standing::HERE; }
    bool IsLost() const { return standing == Standing::LOST; }
    void SetHere() { standing = Standing::HERE; }
    // The network knows it no more.
    void SetLost();
    // Another has its names. Two that both live are one too many, which is told once.
    void SetReplaced(RunId by, int64_t now);
    bool IsReplacedBy(RunId run) const { return standing == Standing::REPLACED && replacedBy == run; }
    RunId ReplacedBy() const { return replacedBy; }
    // When it is to be told that this one lives beside the one that has taken its place.
    int64_t TwinDue() const;
    void SetTwinTold() { twinTold = true; }
    bool IsTwinTold() const { return twinTold; }
    std::size_t Sessions() const { return mine.size() + theirs.size() + left.size(); }

    // A client of this machine wants to talk to `service` there.
    void Open(const std::string &service, const std::string &local, const LocalClient &client);
    // Frees the sessions that are over. Outside of callbacks.
    void FreeOver() { over.clear(); }

    void OnLinkUp() override;
    void OnLinkDown(const char *why) override;
    void OnLinkRoom() override;
    void OnItem(Item &item) override;

    bool SendItem(Session &session, Item &&item) override;
    LocalPipe *MakeClientPipe(Session &session) override;
    void OnSessionOver(Session &session) override;

private:
    // A client of this machine whose session goes through here.
    struct Client {
        std::string local; // the name that it uses
        LocalClient client;
        std::unique_ptr<Session> session;
    };

    enum class Standing { LOST, REPLACED, HERE };

    bool HasRoom();
    void Accept(const Item &item);
    Session *Find(const Item &item);
    void Leave(Session &session);
    std::unique_ptr<Session> Release(Session &session);
    void Settle();

    Announcement told;
    const Limits limits;
    Owner &owner;
    Standing standing = Standing::LOST;
    RunId replacedBy = 0;
    int64_t replacedAt = 0;
    bool twinTold = false;
    bool refusing = false;
    uint32_t lastNumber = 0;
    std::unordered_map<uint32_t, Client> mine;                     // opened here
    std::unordered_map<uint32_t, std::unique_ptr<Session>> theirs; // opened there
    // The other side knows nothing of them any more; they still deliver.
    std::unordered_map<const Session *, std::unique_ptr<Session>> left;
    std::vector<std::unique_ptr<Session>> over;
    PeerLink link;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_PEER_H
