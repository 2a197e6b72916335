#ifndef TARVO_BRIDGE_NETWORK_BUNDLESAMPLE_H
#define TARVO_BRIDGE_NETWORK_BUNDLESAMPLE_H

#include <vector>

#include "core/Protocol.h"
#include "tarvo_bridge.h"

namespace tarvo_bridge {

// A bundle in the form in which it is written to its topic. Its bytes stay the bundle's.
// Owns: its items. Threads: one. Locks: none. Ends: any time.
class BundleSample {
public:
    // Valid until the next call, and as long as the bundle is unchanged.
    const tarvo_bridge_v1_Bundle &Of(const Bundle &bundle);

private:
    tarvo_bridge_v1_Bundle sample{};
    std::vector<tarvo_bridge_v1_Item> items;
};

// What was read from the topic. Whatever it holds, `bundle` is as the protocol has it: false for what cannot be.
bool TakeBundle(const tarvo_bridge_v1_Bundle &sample, Bundle &bundle);
bool TakeAnnouncement(const tarvo_bridge_v1_Announcement &sample, Announcement &announcement);

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_NETWORK_BUNDLESAMPLE_H
