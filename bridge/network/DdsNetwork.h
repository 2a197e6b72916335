#ifndef TARVO_BRIDGE_NETWORK_DDSNETWORK_H
#define TARVO_BRIDGE_NETWORK_DDSNETWORK_H

#include <dds/dds.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

#include "base/Mutex.h"
#include "base/UniqueFd.h"
#include "core/Network.h"
#include "core/Report.h"
#include "network/BundleSample.h"
#include "network/Settings.h"

namespace tarvo_bridge {

// The network as DDS has it: a topic for what bridges tell of themselves, and one for bundles, in a partition for each
// run, so that a bundle for one run can reach no other, and one that reads slowly holds up nobody else.
// Owns: its DDS entities. Threads: that of the loop; those of the DDS write to the descriptor, or tell the
// taker. Locks: those of the DDS, and one around the taker. Ends: after the bridge.
class DdsNetwork final : public Network, public NetworkSource {
public:
    DdsNetwork() = default;
    ~DdsNetwork() override;

    // Only has the DDS take its configuration. Empty, or what went wrong.
    std::string Configure(const Settings &settings);
    // Configures it, too. Once, before anything else. Empty, or what went wrong.
    std::string Open(RunId run, const Settings &settings);
    int Fd() const override { return fd.Get(); }
    void Poll(Listener &listener) override;
    bool PollBundles(Listener &listener, const std::function<void()> &told) override;
    void SetTaker(BundleTaker *bundleTaker) override;

    bool Announce(const Announcement &announcement) override;
    bool Connect(RunId run) override;
    void Disconnect(RunId run) override;
    bool Send(const Bundle &bundle) override;

private:
    struct Outlet {
        dds_entity_t publisher;
        dds_entity_t writer;
    };

    std::string OpenRuns();
    std::string OpenBundles(RunId run);
    void PollRuns(Listener &listener);
    void Wake() const;
    static void OnBundlesThere(dds_entity_t reader, void *network);

    UniqueFd fd;
    Mutex takerMutex;
    BundleTaker *taker GUARDED_BY(takerMutex) = nullptr;
    dds_entity_t domain = 0;
    dds_entity_t participant = 0;
    dds_entity_t runTopic = 0;
    dds_entity_t runReader = 0;
    dds_entity_t runWriter = 0;
    dds_return_t refusal = 0; // of the last announcement
    dds_entity_t bundleTopic = 0;
    dds_entity_t bundleReader = 0;
    std::unordered_map<RunId, Outlet> outlets;
    BundleSample sample;
    Seldom strangers; // for one thread at a time, as PollBundles()
    Seldom refusedLinks;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_NETWORK_DDSNETWORK_H
