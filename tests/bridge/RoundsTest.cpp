// Bridges with a loop of their own each, and networks that bring bundles on threads of theirs.
#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "bridge/BridgeKit.h"
#include "bridge/ThreadedNetwork.h"
#include "local/Rounds.h"

using namespace tarvo_test;
using tarvo_bridge::ImportRule;
using tarvo_bridge::Rounds;
using tarvo_bridge::RunId;
using tarvo_bridge::Runner;

namespace {

// A bridge at work on a thread of its own.
class DrivenBridge {
public:
    DrivenBridge(RunId run, const std::string &machine, const std::vector<std::string> &exports,
                 const std::vector<ImportRule> &imports, ThreadedNetwork &network) {
        plan.run = run;
        plan.machine = machine;
        plan.exports = exports;
        plan.imports = imports;
        thread = std::thread([this, &network] { Main(network); });
        ready.get_future().wait();
    }
    ~DrivenBridge() { Stop(); }
    DrivenBridge(const DrivenBridge &) = delete;
    DrivenBridge &operator=(const DrivenBridge &) = delete;

    void Stop() {
        if (thread.joinable()) {
            loop->Post([](void *context) { static_cast<Rounds *>(context)->Stop(); }, rounds);
            thread.join();
        }
    }

private:
    void Main(ThreadedNetwork &network) {
        TarvoLoop own;
        ASSERT_EQ(own.Init(), 0);
        Runner runner(own, std::move(plan), network);
        Rounds driver(own, runner, network);
        ASSERT_EQ(driver.Init(), 0);
        loop = &own;
        rounds = &driver;
        runner.Begin();
        ready.set_value();
        driver.Run();
    }

    tarvo_bridge::Plan plan;
    TarvoLoop *loop = nullptr;
    Rounds *rounds = nullptr;
    std::promise<void> ready;
    std::thread thread;
};

class RoundsTest : public LoopTest {
protected:
    RoundsTest() : real(UniqueName("srv")), there(UniqueName("far")), server(loop, real) {
        server.links.onRequest = [](TarvoLink *link, uint32_t number, TarvoBytes payload) {
            TarvoLinkReply(link, number, payload);
        };
        ThreadedNetwork::Plug(front, rear);
        exporter = std::make_unique<DrivenBridge>(1, "front", std::vector<std::string>{real}, std::vector<ImportRule>{},
                                                  front);
        importer = std::make_unique<DrivenBridge>(2, "rear", std::vector<std::string>{},
                                                  std::vector<ImportRule>{{real, "", there}}, rear);
        EXPECT_TRUE(Eventually([this] { return IsServed(there); }));
    }

    TarvoLink *Connect(Recorder &client) {
        TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
        EXPECT_TRUE(Wait([&client] { return client.opened; }));
        EXPECT_EQ(client.result, 0);
        return link;
    }

    void Call(TarvoLink *link, Recorder &client, const std::string &text) {
        const int before = client.done;
        ASSERT_GT(TarvoLinkCall(link, Bytes(text), PATIENCE_MS, Recorder::Done, &client), 0);
        ASSERT_TRUE(Wait([&] { return client.done > before; }));
        EXPECT_EQ(client.events.back(), "done 0 " + text);
    }

    const std::string real;
    const std::string there;
    Server server;
    ThreadedNetwork front;
    ThreadedNetwork rear;
    std::unique_ptr<DrivenBridge> exporter;
    std::unique_ptr<DrivenBridge> importer;
};

TEST_F(RoundsTest, CallsOneAfterTheOtherPassOnTheNetworksThreads) {
    Recorder client;
    TarvoLink *const link = Connect(client);
    const int before = front.taken + rear.taken;
    constexpr int CALLS = 200;
    for (int i = 0; i < CALLS; ++i) {
        Call(link, client, std::to_string(i));
    }
    // The loop may still have been about to go to sleep when one came.
    EXPECT_GT(front.taken + rear.taken - before, CALLS);
}

TEST_F(RoundsTest, LinksAndSessionsAreMadeOnTheLoopsThread) {
    // The networks see to it that no link or session is made on their threads.
    for (int i = 0; i < 20; ++i) {
        Recorder client;
        TarvoLink *const link = Connect(client);
        Call(link, client, "hello");
        TarvoLinkClose(link);
        Drain(loop);
    }
    EXPECT_TRUE(Wait([this] { return server.links.closed == 20; }));
    EXPECT_GT(front.sessions, 0);
    EXPECT_GT(rear.sessions, 0);
}

TEST_F(RoundsTest, CrowdEndsEachCallOnceWhileSessionsComeAndGo) {
    constexpr int CLIENTS = 8;
    constexpr int CALLS = 300;
    struct Caller {
        Recorder recorder;
        TarvoLink *link = nullptr;
        int begun = 0;
    };
    std::deque<Caller> callers(CLIENTS);
    std::mt19937 random(7);
    const auto begin = [](Caller &caller) {
        while (caller.begun < CALLS && TarvoLinkCall(caller.link, Bytes(std::to_string(caller.begun)), PATIENCE_MS,
                                                     Recorder::Done, &caller.recorder) > 0) {
            ++caller.begun;
        }
    };
    for (Caller &caller : callers) {
        caller.link = Connect(caller.recorder);
        caller.recorder.onDone = [&](int, const std::string &) {
            if (random() % 4 == 0) {
                begin(caller);
            }
        };
        caller.recorder.onWritable = [&](TarvoLink *) { begin(caller); };
        begin(caller);
    }
    const auto isDone = [&] {
        return std::all_of(callers.begin(), callers.end(), [&](Caller &caller) {
            // None is under way and nobody begins the next: all that were dropped have been answered.
            if (caller.recorder.done == caller.begun) {
                begin(caller);
            }
            return caller.recorder.done == CALLS;
        });
    };
    while (!isDone()) {
        Recorder passer;
        TarvoLink *const link = Connect(passer);
        Call(link, passer, "passing");
        TarvoLinkClose(link);
        Drain(loop);
        if (HasFailure()) {
            return;
        }
    }
    for (Caller &caller : callers) {
        int next = 0;
        for (const std::string &event : caller.recorder.events) {
            if (event.rfind("done", 0) == 0) {
                ASSERT_EQ(event, "done 0 " + std::to_string(next++));
            }
        }
        EXPECT_EQ(next, CALLS);
    }
}

TEST_F(RoundsTest, BridgeThatStopsInTheMiddleIsTakenToNoMore) {
    Recorder client;
    TarvoLink *const link = Connect(client);
    int ended = 0;
    client.onDone = [&](int, const std::string &) { ++ended; };
    int begun = 0;
    while (TarvoLinkCall(link, Bytes("on and on"), 100, Recorder::Done, &client) > 0) {
        ++begun;
    }
    ASSERT_GT(begun, 0);
    exporter->Stop();
    EXPECT_FALSE(front.HasTaker());
    ASSERT_TRUE(Wait([&] { return ended == begun; }));
    const int taken = front.taken;
    const int left = front.left;
    TarvoLinkClose(link);
    EXPECT_TRUE(Eventually([&] { return front.left > left; }));
    EXPECT_EQ(front.taken, taken);
    importer->Stop();
    EXPECT_FALSE(rear.HasTaker());
}

} // namespace
