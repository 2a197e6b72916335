// Whole bridges on one thread, with a clock, pipes and a network that do as they are told: for tests and the fuzzer.
#ifndef TARVO_TEST_BRIDGE_COREPARTS_H
#define TARVO_TEST_BRIDGE_COREPARTS_H

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bridge/FakeNetwork.h"
#include "core/Bridge.h"

namespace tarvo_test {

struct CorePipe final : tarvo_bridge::LocalPipe {
    bool Write(const tarvo_bridge::FrameBytes &frame) override {
        misused = misused || closed || frame.payload.empty();
        if (room == 0) {
            return false;
        }
        --room;
        written.emplace_back(frame.payload);
        return true;
    }
    bool Flush() override {
        misused = misused || closed;
        return flushes;
    }
    void Pause() override {
        misused = misused || closed;
        paused = true;
    }
    void Resume() override {
        misused = misused || closed;
        paused = false;
    }
    void Close() override {
        misused = misused || closed;
        closed = true;
    }
    void MakeRoom(int frames) {
        room = frames;
        if (!closed) {
            listener->OnPipeWritable();
        }
    }

    Listener *listener = nullptr; // not after the close
    int room = 1000000;
    bool flushes = true;
    bool paused = false;
    bool closed = false;
    bool misused = false;
    std::vector<std::string> written;
};

struct CoreMachine final : tarvo_bridge::LocalSide {
    void WatchServer(const std::string &) override {}
    int Offer(const std::string &name) override {
        offered.insert(name);
        return 0;
    }
    bool IsOffered(const std::string &name) const override { return offered.count(name) > 0; }
    void Withdraw(const std::string &name) override { offered.erase(name); }
    tarvo_bridge::LocalPipe *Accept(const std::string &, const tarvo_bridge::LocalClient &,
                                    tarvo_bridge::LocalPipe::Listener &listener) override {
        return Made(listener);
    }
    tarvo_bridge::LocalPipe *Connect(const std::string &, const std::string &,
                                     tarvo_bridge::LocalPipe::Listener &listener) override {
        return Made(listener);
    }
    tarvo_bridge::LocalPipe *Made(tarvo_bridge::LocalPipe::Listener &listener) {
        pipes.emplace_back();
        pipes.back().listener = &listener;
        return &pipes.back();
    }
    int64_t NowMs() const override { return now; }

    int64_t now = 1000;
    std::set<std::string> offered;
    std::deque<CorePipe> pipes; // all that were ever made
};

// A bridge and all that it stands on.
struct CoreNode final : tarvo_bridge::Bridge::Listener {
    CoreNode(Cables &cables, tarvo_bridge::Plan &&plan)
        : network(cables, plan.run), bridge(std::move(plan), network, machine, *this) {
        network.SetListener(&bridge);
        bridge.Begin();
    }
    void OnUnsent() override { unsent = true; }
    void OnDueChanged() override {}

    FakeNetwork network;
    CoreMachine machine;
    tarvo_bridge::Bridge bridge;
    bool unsent = false;
};

// The bridges, and the time that passes for all of them.
class CoreNodes {
public:
    using RunId = tarvo_bridge::RunId;

    CoreNode &Start(tarvo_bridge::Plan &&plan) {
        const RunId run = plan.run;
        auto made = std::make_unique<CoreNode>(cables, std::move(plan));
        made->machine.now = now;
        CoreNode &node = *made;
        nodes[run] = std::move(made);
        return node;
    }
    CoreNode &operator[](RunId run) { return *nodes.at(run); }
    // Until nothing is under way any more.
    void Settle() {
        for (bool more = true; more;) {
            more = cables.Deliver();
            for (const auto &node : nodes) {
                if (node.second->unsent) {
                    node.second->unsent = false;
                    node.second->bridge.Flush();
                    more = true;
                }
            }
        }
    }
    // In steps that are short for a lease.
    void Pass(int64_t milliseconds) {
        for (const int64_t end = now + milliseconds; now < end;) {
            now = std::min(now + 10, end);
            for (const auto &node : nodes) {
                node.second->machine.now = now;
                if (node.second->bridge.Due() <= now) {
                    node.second->bridge.OnTime();
                }
            }
            Settle();
        }
    }
    bool AnyMisused() const {
        return std::any_of(nodes.begin(), nodes.end(), [](const auto &node) {
            const auto &pipes = node.second->machine.pipes;
            return std::any_of(pipes.begin(), pipes.end(), [](const CorePipe &pipe) { return pipe.misused; });
        });
    }

    int64_t now = 1000;
    Cables cables;

private:
    std::map<RunId, std::unique_ptr<CoreNode>> nodes;
};

} // namespace tarvo_test

#endif // TARVO_TEST_BRIDGE_COREPARTS_H
