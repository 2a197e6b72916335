#ifndef TARVO_BRIDGE_LOCAL_LOOPSIDE_H
#define TARVO_BRIDGE_LOCAL_LOOPSIDE_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/LocalSide.h"
#include "local/RelayLink.h"
#include "local/ServerWatch.h"
#include "loop/Loop.h"

namespace tarvo_bridge {

class ImportedService;

// The bridge's machine: files and pipes on a loop.
// Owns: its watches; services and pipes are the loop's. Threads: that of the loop. Locks: none. Ends: before the loop.
class LoopSide final : public LocalSide {
public:
    explicit LoopSide(TarvoLoop &owner) : loop(owner) {}

    // Before anything else is called.
    void SetListener(LocalSide::Listener &sideListener) { listener = &sideListener; }
    // After something came from the network: what it has brought goes into the pipes.
    void FlushPipes() { flusher.FlushAll(); }
    // The same after the turn, which it ends. False: FlushPipes() must follow.
    bool FlushPipesAfter(std::unique_lock<std::mutex> &turn) { return flusher.FlushAfter(turn); }

    void WatchServer(const std::string &name) override;
    int Offer(const std::string &name) override;
    bool IsOffered(const std::string &name) const override;
    void Withdraw(const std::string &name) override;
    LocalPipe *Accept(const std::string &service, const LocalClient &client, LocalPipe::Listener &pipe) override;
    LocalPipe *Connect(const std::string &service, const std::string &self, LocalPipe::Listener &pipe) override;
    int64_t NowMs() const override;

private:
    LocalPipe *Open(RelayPlan &&plan, LocalPipe::Listener &pipe);

    TarvoLoop &loop;
    LocalSide::Listener *listener = nullptr;
    PipeFlusher flusher;
    std::vector<std::unique_ptr<ServerWatch>> watches;
    std::map<std::string, ImportedService *> services;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_LOCAL_LOOPSIDE_H
