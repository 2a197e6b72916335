#ifndef TARVO_BRIDGE_CORE_NETWORK_H
#define TARVO_BRIDGE_CORE_NETWORK_H

#include <functional>

#include "core/Protocol.h"

namespace tarvo_bridge {

// What carries announcements and bundles. It may lose, repeat and delay what it likes: links find out.
// Owns: its connections. Threads: that of the loop. Locks: its own. Ends: after the bridge.
class Network {
public:
    // Owns: nothing. Threads: that of the loop. Locks: none. Ends: after the network, or told to nobody.
    class Listener {
    public:
        // A bridge is there, or tells something new of itself.
        virtual void OnAnnounced(const Announcement &announcement) = 0;
        // Nothing has been heard of it for the time of the lease, or it has said goodbye.
        virtual void OnRunLost(RunId run) = 0;
        virtual void OnBundle(Bundle &bundle) = 0;

    protected:
        ~Listener() = default;
    };

    Network() = default;
    virtual ~Network() = default;
    Network(const Network &) = delete;
    Network &operator=(const Network &) = delete;

    // Takes the place of what was announced before. False: try again.
    virtual bool Announce(const Announcement &announcement) = 0;
    // From now on bundles go to this run. May be called again. False: try again.
    virtual bool Connect(RunId run) = 0;
    virtual void Disconnect(RunId run) = 0;
    // False: there is no room now, try again. What is taken may still be lost.
    virtual bool Send(const Bundle &bundle) = 0;
};

// Takes bundles on the network's own thread.
// Owns: nothing. Threads: those of the network. Locks: its own. Ends: after SetTaker() with another one.
class BundleTaker {
public:
    // False: not now, or not all; what is left stays for Poll(). Must not connect or disconnect anybody.
    virtual bool TakeBundles() = 0;

protected:
    ~BundleTaker() = default;
};

// Where what a network has brought is fetched.
// Owns: a descriptor. Threads: that of the loop; PollBundles() also that of a taker, never both before `told`. Locks:
// its own. Ends: after who fetches.
class NetworkSource {
public:
    NetworkSource() = default;
    NetworkSource(const NetworkSource &) = delete;
    NetworkSource &operator=(const NetworkSource &) = delete;

    // Readable when Poll() has something to do.
    virtual int Fd() const = 0;
    virtual void Poll(Network::Listener &listener) = 0;
    // Some of the bundles that are there. Whether there may be more. `told` is called after the last of them, before
    // the network tidies up after them.
    virtual bool PollBundles(Network::Listener &listener, const std::function<void()> &told) = 0;
    // Null: nobody. Returns when the one before is not being told any more.
    virtual void SetTaker(BundleTaker *taker) = 0;

protected:
    ~NetworkSource() = default;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_NETWORK_H
