#ifndef TARVO_BRIDGE_LOCAL_ROUNDS_H
#define TARVO_BRIDGE_LOCAL_ROUNDS_H

#include <cstddef>
#include <deque>

#include "base/Mutex.h"
#include "core/Network.h"
#include "local/Runner.h"
#include "loop/Loop.h"

namespace tarvo_bridge {

// Who works when: the loop's thread in its rounds, and while it sleeps the thread of the DDS on which bundles come, so
// that a frame gets into its pipe without another thread being woken first. One at a time, so that bridge and loop need
// not know of threads. Only the write into the pipe comes after the turn: on one core the reader that it wakes answers
// before it returns, and the loop's thread, which that answer wakes, is to find the turn free.
// Owns: what the DDS's thread has left to the loop's. Threads: those two. Locks: its own, around all that the bridge
// and the loop do. Ends: before the network, the runner and the loop, on the loop's thread.
class Rounds final : public BundleTaker, private Network::Listener {
public:
    Rounds(TarvoLoop &theLoop, Runner &theRunner, NetworkSource &theNetwork);
    Rounds(const Rounds &) = delete;
    Rounds &operator=(const Rounds &) = delete;

    // Once, before Run(). 0 or a negated errno.
    int Init() { return hearing.WhenReadable(network.Fd()); }
    // Until Stop(), which is called on the loop. False: it cannot go on, and has said why.
    bool Run();
    void Stop() { stopped = true; }

    bool TakeBundles() override;

private:
    void OnAnnounced(const Announcement &announcement) override;
    void OnRunLost(RunId run) override;
    void OnBundle(Bundle &bundle) override;
    void Hear();
    void Finish();

    TarvoLoop &loop;
    Runner &runner;
    NetworkSource &network;
    Task hearing;
    Mutex turn;
    std::deque<Bundle> left; // for the loop's thread, in their order: of one call of TakeBundles() at most
    std::size_t heard = 0;   // items of the last look at what has come
    bool onLoop = false;
    bool stopped = false;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_LOCAL_ROUNDS_H
