#ifndef TARVO_BRIDGE_CORE_PEERLINK_H
#define TARVO_BRIDGE_CORE_PEERLINK_H

#include <cstdint>
#include <deque>

#include "core/Network.h"
#include "core/Protocol.h"

namespace tarvo_bridge {

// The link of this bridge to one run of another: makes of a network that may lose anything one that loses nothing, or
// ends. Both sides count their beginnings of it, greet until each knows that it is heard, and number what they send; a
// number that is missing, or nothing heard for the time of the lease, ends the link with all that it carried.
// Owns: what waits to be sent. Threads: one. Locks: none. Ends: any time.
class PeerLink {
public:
    // Owns: nothing. Threads, Locks: as PeerLink. Ends: after it.
    class Listener {
    public:
        virtual void OnLinkUp() = 0;
        // What it carried is gone. It may come up again.
        virtual void OnLinkDown(const char *why) = 0;
        // Less waits to be sent than at the moment when IsFull() was true.
        virtual void OnLinkRoom() = 0;
        virtual void OnItem(Item &item) = 0;

    protected:
        ~Listener() = default;
    };

    struct Ends {
        RunId self;
        RunId peer;
    };

    // `allBeginnings` counts those of all links of this bridge, so that a count never comes again.
    PeerLink(Ends linkEnds, int64_t leaseMs, uint32_t &allBeginnings, Network &linkNetwork, Listener &linkListener)
        : ends(linkEnds), lease(leaseMs), beginnings(allBeginnings), network(linkNetwork), listener(linkListener),
          mine(++allBeginnings) {}
    ~PeerLink();
    PeerLink(const PeerLink &) = delete;
    PeerLink &operator=(const PeerLink &) = delete;

    bool IsUp() const { return state == State::UP; }
    // Whether one of the two sides wants it: it is up, or is to be.
    bool IsWanted() const { return state != State::IDLE; }

    // Greets until it is up. Times are monotonic milliseconds.
    void Begin(int64_t now);
    // The peer has been announced: one that has known an earlier link must learn that it is over.
    void OnAnnounced(int64_t now);
    // The network has lost the peer.
    void OnLost();

    // Sent with the next Flush(), after those before it. Not while the link is down.
    void Send(Item &&item);
    void Flush(int64_t now);
    bool HasUnsent() const { return !unsent.empty(); }
    // So much waits that no more should be sent before OnLinkRoom().
    bool IsFull() const { return full; }

    void OnBundle(Bundle &bundle, int64_t now);
    // Whether it is the next of a link that is up and stays so.
    bool IsNext(const Bundle &bundle) const;

    // While there is something to lose the peer is asked now and then whether it is there.
    void SetBusy(bool isBusy, int64_t now);

    static constexpr int64_t NEVER = INT64_MAX;
    // When OnTime() is to be called.
    int64_t Due() const;
    void OnTime(int64_t now);

private:
    enum class State { IDLE, GREETING, UP };

    void Connect();
    std::size_t FillBundle();
    void TakeBack();
    void Greet(int64_t now);
    void Restart(State next, const char *why);
    void OnGreeting(const Bundle &bundle, int64_t now);
    void OnItems(Bundle &bundle, int64_t now);
    void OnMissing(int64_t now);
    bool BringUp(const Bundle &bundle, int64_t now);

    const Ends ends;
    const int64_t lease;
    uint32_t &beginnings;
    Network &network;
    Listener &listener;
    State state = State::IDLE;
    bool connected = false;
    bool busy = false;
    bool wasUsed = false; // the peer may know of an earlier link
    uint32_t mine;
    uint32_t theirs = 0;
    uint64_t sent = 0;
    uint64_t received = 0;
    int64_t nextGreeting = NEVER;
    int64_t nextFlush = NEVER;
    int64_t lastHeard = 0;
    std::deque<Item> unsent;
    std::size_t unsentBytes = 0;
    bool full = false;
    Bundle outgoing;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_PEERLINK_H
