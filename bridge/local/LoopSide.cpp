#include "local/LoopSide.h"

#include <unistd.h>

#include <new>
#include <utility>

#include "local/ImportedService.h"
#include "loop/Moments.h"

namespace tarvo_bridge {
namespace {

// As a server gives its clients, and a client its server, on one machine.
constexpr int32_t CLIENT_TIMEOUT_MS = 2000;
constexpr int32_t SERVER_TIMEOUT_MS = 5000;

} // namespace

void LoopSide::WatchServer(const std::string &name) {
    watches.push_back(std::make_unique<ServerWatch>(loop, name, *listener));
}

int LoopSide::Offer(const std::string &name) {
    auto made = std::make_unique<ImportedService>(loop, name, *listener);
    const int ret = made->Open();
    if (ret == 0) {
        loop.Adopt(*made);
        services[name] = made.release();
    }
    return ret;
}

bool LoopSide::IsOffered(const std::string &name) const {
    const auto found = services.find(name);
    return found != services.end() && found->second->HasFile();
}

void LoopSide::Withdraw(const std::string &name) {
    const auto found = services.find(name);
    if (found != services.end()) {
        found->second->Close();
        services.erase(found);
    }
}

LocalPipe *LoopSide::Accept(const std::string &service, const LocalClient &client, LocalPipe::Listener &pipe) {
    return Open({service, client.name, false, client.gid, client.pid, loop.Patient(CLIENT_TIMEOUT_MS)}, pipe);
}

LocalPipe *LoopSide::Connect(const std::string &service, const std::string &self, LocalPipe::Listener &pipe) {
    const std::string name = self + "_" + std::to_string(getpid());
    return Open({name, service, true, TARVO_LOOP_ANY_GROUP, -1, loop.Patient(SERVER_TIMEOUT_MS)}, pipe);
}

LocalPipe *LoopSide::Open(RelayPlan &&plan, LocalPipe::Listener &pipe) {
    try {
        return RelayLink::Open(loop, flusher, std::move(plan), pipe);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

int64_t LoopSide::NowMs() const { return Now() / MICROSECONDS_PER_MILLISECOND; }

} // namespace tarvo_bridge
