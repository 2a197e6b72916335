#ifndef TARVO_BRIDGE_CORE_NETWORK_H
#define TARVO_BRIDGE_CORE_NETWORK_H

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

    // Takes the place of what was announced before.
    virtual void Announce(const Announcement &announcement) = 0;
    // From now on bundles go to this run. May be called again.
    virtual void Connect(RunId run) = 0;
    virtual void Disconnect(RunId run) = 0;
    // False: there is no room now, try again. What is taken may still be lost.
    virtual bool Send(const Bundle &bundle) = 0;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_NETWORK_H
