// Bridges that share a thread, a FIFO directory and a network in memory, and programs that use them from the test's.
#ifndef TARVO_TEST_BRIDGE_BRIDGEKIT_H
#define TARVO_TEST_BRIDGE_BRIDGEKIT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bridge/FakeNetwork.h"
#include "local/Runner.h"
#include "support/Eventually.h"
#include "unit/loop/LoopKit.h"

namespace tarvo_test {

// The thread of the bridges. Everything about them is done there, with Do().
class BridgeThread {
public:
    using RunId = tarvo_bridge::RunId;

    BridgeThread() : thread([this] { Main(); }) { ready.get_future().wait(); }
    ~BridgeThread() {
        Do([this] { bridges.clear(); });
        loop->Stop();
        thread.join();
    }
    BridgeThread(const BridgeThread &) = delete;
    BridgeThread &operator=(const BridgeThread &) = delete;

    void Do(std::function<void()> work) {
        std::promise<void> done;
        auto both = std::make_pair(std::move(work), &done);
        loop->Post(
            [](void *context) {
                auto &posted = *static_cast<decltype(both) *>(context);
                posted.first();
                posted.second->set_value();
            },
            &both);
        done.get_future().wait();
    }

    // A bridge of its own run. `leaseMs` is that of its links: so long that nothing hangs on what a lease wakes.
    RunId Start(const std::string &machine, const std::vector<std::string> &exports,
                const std::vector<tarvo_bridge::ImportRule> &imports, uint32_t window = 64, int64_t leaseMs = 3600000) {
        const RunId run = ++lastRun;
        Do([&, run] {
            auto node = std::make_unique<Node>();
            node->network = std::make_unique<FakeNetwork>(cables, run);
            tarvo_bridge::Plan plan;
            plan.run = run;
            plan.machine = machine;
            plan.exports = exports;
            plan.imports = imports;
            plan.limits.window = window;
            plan.limits.leaseMs = leaseMs;
            node->runner = std::make_unique<tarvo_bridge::Runner>(*loop, std::move(plan), *node->network);
            node->network->SetListener(&node->runner->TheBridge());
            tarvo_bridge::Runner &runner = *node->runner;
            bridges[run] = std::move(node);
            runner.Begin();
        });
        return run;
    }

    // Ends one without a word to the others.
    void Kill(RunId run) {
        Do([this, run] {
            cables.Unplug(run);
            bridges.erase(run);
        });
    }

    tarvo_bridge::Picture Look(RunId run) {
        tarvo_bridge::Picture picture;
        Do([&] { picture = bridges.at(run)->runner->TheBridge().Look(); });
        return picture;
    }

    // Only in Do().
    Cables cables;

private:
    struct Node {
        std::unique_ptr<FakeNetwork> network;
        std::unique_ptr<tarvo_bridge::Runner> runner;
    };

    void Main() {
        TarvoLoop own;
        ASSERT_EQ(own.Init(), 0);
        loop = &own;
        {
            tarvo_bridge::Task carrying(own, [this, &own] { Carry(own); });
            carrier = &carrying;
            cables.news = [&carrying] { carrying.Soon(); };
            ready.set_value();
            own.Run(-1);
            cables.news = [] {};
        }
    }

    void Carry(TarvoLoop &) {
        bool more = true;
        for (int i = 0; i < 64 && more; ++i) {
            more = cables.Deliver();
        }
        for (const auto &node : bridges) {
            node.second->runner->Settle();
        }
        if (more) {
            carrier->Soon();
        }
    }

    RunId lastRun = 100;
    TarvoLoop *loop = nullptr;
    tarvo_bridge::Task *carrier = nullptr;
    std::map<RunId, std::unique_ptr<Node>> bridges;
    std::promise<void> ready;
    std::thread thread;
};

inline bool FileIsThere(const std::string &name) { return access((FifoDirectory() + name).c_str(), F_OK) == 0; }

// Whether somebody reads the server file of a name. Its file is there a moment earlier.
inline bool IsServed(const std::string &name) {
    const int fd = open((FifoDirectory() + name).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
        close(fd);
    }
    return fd >= 0;
}

// Two bridges, of which one exports a name and the other imports it, and a loop for programs.
class BridgeTest : public LoopTest {
protected:
    BridgeTest() : real(UniqueName("srv")), there(UniqueName("far")) {}

    void StartBoth(uint32_t window = 64) {
        exporter = bridges.Start("front", {real}, {}, window);
        importer = bridges.Start("rear", {}, {{real, "", there}}, window);
    }
    bool IsOffered() {
        return Eventually([this] { return IsServed(there); });
    }
    bool IsWithdrawn() {
        return Eventually([this] { return !FileIsThere(there); });
    }
    std::size_t SessionsOf(BridgeThread::RunId run) {
        std::size_t sessions = 0;
        for (const auto &peer : bridges.Look(run).peers) {
            sessions += peer.sessions;
        }
        return sessions;
    }

    const std::string real;  // the server's name
    const std::string there; // and that under which it is imported
    BridgeThread bridges;
    BridgeThread::RunId exporter = 0;
    BridgeThread::RunId importer = 0;
};

} // namespace tarvo_test

#endif // TARVO_TEST_BRIDGE_BRIDGEKIT_H
