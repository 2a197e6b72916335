// Whole bridges on one thread, with a clock, pipes and a network that do as the test says.
#ifndef TARVO_TEST_BRIDGE_COREKIT_H
#define TARVO_TEST_BRIDGE_COREKIT_H

#include <gtest/gtest.h>

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
        if (room == 0) {
            return false;
        }
        --room;
        written.emplace_back(frame.payload);
        return true;
    }
    bool Flush() override { return true; }
    void Pause() override { paused = true; }
    void Resume() override { paused = false; }
    void Close() override { closed = true; }
    void MakeRoom(int frames) {
        room = frames;
        if (!closed) {
            listener->OnPipeWritable();
        }
    }

    Listener *listener = nullptr;
    int room = 1000000;
    bool paused = false;
    bool closed = false;
    std::vector<std::string> written;
};

struct CoreMachine final : tarvo_bridge::LocalSide {
    void WatchServer(const std::string &) override {}
    int Offer(const std::string &name) override {
        offered.insert(name);
        return 0;
    }
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

class CoreTest : public testing::Test {
protected:
    using RunId = tarvo_bridge::RunId;
    static constexpr int64_t LEASE_MS = 1000;

    CoreNode &Start(RunId run, const std::string &machine, const std::vector<std::string> &exports,
                    const std::vector<tarvo_bridge::ImportRule> &imports, uint32_t sessions = 100) {
        tarvo_bridge::Plan plan;
        plan.run = run;
        plan.machine = machine;
        plan.exports = exports;
        plan.imports = imports;
        plan.limits = {window, LEASE_MS, sessions};
        auto made = std::make_unique<CoreNode>(cables, std::move(plan));
        made->machine.now = now;
        CoreNode &node = *made;
        nodes[run] = std::move(made);
        Settle();
        return node;
    }
    // "camera" of machine front on machine rear, its server alive.
    void StartBoth(uint32_t sessions = 100) {
        exporter = &Start(1, "front", {"camera"}, {}, sessions);
        importer = &Start(2, "rear", {}, {{"camera", "", "camera"}}, sessions);
        exporter->bridge.OnServer("camera", true);
        Settle();
        ASSERT_EQ(importer->machine.offered.count("camera"), 1U);
    }
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
    // A client of the importer, with both pipes open; they are the last of their machines then.
    void OpenClient(const std::string &name) {
        importer->bridge.OnClient("camera", {name, 0, 1});
        Settle();
        exporter->machine.pipes.back().listener->OnPipeOpen();
        Settle();
        importer->machine.pipes.back().listener->OnPipeOpen();
        Settle();
    }
    static void Send(CorePipe &pipe, const std::string &text) { pipe.listener->OnPipeFrame({1, 0, -1, text}); }
    static std::size_t Count(const std::string &text, const std::string &part) {
        std::size_t count = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
            ++count;
        }
        return count;
    }
    // What somebody tells all of itself who has no bridge here.
    static tarvo_bridge::Announcement Told(RunId run, const std::string &machine,
                                           const std::vector<std::string> &services) {
        tarvo_bridge::Announcement announcement;
        announcement.run = run;
        announcement.machine = machine;
        announcement.services = services;
        announcement.names = services;
        return announcement;
    }

    uint32_t window = 8;
    int64_t now = 1000;
    Cables cables;
    std::map<RunId, std::unique_ptr<CoreNode>> nodes;
    CoreNode *exporter = nullptr;
    CoreNode *importer = nullptr;
};

} // namespace tarvo_test

#endif // TARVO_TEST_BRIDGE_COREKIT_H
