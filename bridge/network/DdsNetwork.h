#ifndef TARVO_BRIDGE_NETWORK_DDSNETWORK_H
#define TARVO_BRIDGE_NETWORK_DDSNETWORK_H

#include <dds/dds.h>

#include <cstdint>
#include <string>
#include <unordered_map>

#include "base/Mutex.h"
#include "base/UniqueFd.h"
#include "core/Network.h"
#include "network/BundleSample.h"
#include "network/Settings.h"

namespace tarvo_bridge {

// The network as DDS has it: a topic for what bridges tell of themselves, and one for bundles, in a partition for each
// run, so that a bundle for one run can reach no other, and one that reads slowly holds up nobody else.
// Owns: its DDS entities. Threads: that of the loop; those of the DDS write to the descriptor. Locks: those of the DDS.
// Ends: after the bridge.
class DdsNetwork final : public Network {
public:
    // Takes bundles on the thread of the DDS that brings them.
    // Owns: nothing. Threads: those of the DDS. Locks: its own. Ends: after SetTaker() with another one.
    class Taker {
    public:
        // False: not now; they stay for Poll(). Must not make or delete anything of the DDS.
        virtual bool TakeBundles() = 0;

    protected:
        ~Taker() = default;
    };

    DdsNetwork() = default;
    ~DdsNetwork() override;

    // Once, before anything else. Empty, or what went wrong.
    std::string Open(RunId run, const Settings &settings);
    // Readable when Poll() has something to do.
    int Fd() const { return fd.Get(); }
    void Poll(Listener &listener);
    // Null: nobody. Returns when the one before is not being told any more.
    void SetTaker(Taker *bundleTaker);
    // Some of the bundles that are there. Whether there may be more.
    bool PollBundles(Listener &listener);
    // Makes Fd() readable.
    void Wake() const;

    void Announce(const Announcement &announcement) override;
    void Connect(RunId run) override;
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
    static void OnBundlesThere(dds_entity_t reader, void *network);

    UniqueFd fd;
    Mutex takerMutex;
    Taker *taker GUARDED_BY(takerMutex) = nullptr;
    dds_entity_t domain = 0;
    dds_entity_t participant = 0;
    dds_entity_t runTopic = 0;
    dds_entity_t runReader = 0;
    dds_entity_t runWriter = 0;
    dds_entity_t bundleTopic = 0;
    dds_entity_t bundleReader = 0;
    std::unordered_map<RunId, Outlet> outlets;
    BundleSample sample;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_NETWORK_DDSNETWORK_H
