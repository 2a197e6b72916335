// Loops on threads of their own, which call each other and post to each other.
#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "LoopKit.h"

namespace tarvo_test {
namespace {

constexpr int THREADS = 3;
constexpr int CALLS = 2000;
constexpr int OUTSTANDING = 16;

// One of several loops in a ring: serves its name, and calls the next one.
class RingMember {
public:
    RingMember() { EXPECT_EQ(TarvoLoopCreate(&loop), 0); }

    void Serve(const std::string &name) {
        server = std::make_unique<Server>(loop, name);
        EXPECT_EQ(server->result, 0);
        server->links.onRequest = [](TarvoLink *on, uint32_t number, TarvoBytes payload) {
            EXPECT_EQ(TarvoLinkReply(on, number, payload), 0);
        };
    }
    void CallNext(const std::string &name, const std::string &self) {
        client.onDone = [this](int result, const std::string &answer) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(answer, "ring");
            Begin();
        };
        client.onOpened = [this](TarvoLink *) {
            EXPECT_EQ(client.result, 0);
            for (int i = 0; i < OUTSTANDING; ++i) {
                Begin();
            }
        };
        link = OpenLink(loop, client, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, self);
    }
    void RunUntilAllAreDone(std::array<RingMember *, THREADS> &all, std::atomic<int> &finished) {
        ring = &all;
        ended = &finished;
        EXPECT_EQ(TarvoLoopRun(loop, 4 * PATIENCE_MS), 0);
        EXPECT_EQ(client.done, CALLS);
    }
    void Destroy() { TarvoLoopDestroy(loop); }
    int Posts() const { return posts; }

private:
    void Begin() {
        if (begun < CALLS) {
            EXPECT_GT(TarvoLinkCall(link, Bytes(text), PATIENCE_MS, Recorder::Done, &client), 0);
            ++begun;
        }
        if (client.done == CALLS && !told) {
            told = true;
            Tell();
        }
        if (client.done % 100 == 0) {
            for (RingMember *other : *ring) {
                EXPECT_EQ(TarvoLoopPost(
                              other->loop, [](void *context) { ++static_cast<RingMember *>(context)->posts; }, other),
                          0);
            }
        }
    }
    void Tell() {
        if (ended->fetch_add(1) + 1 == THREADS) {
            for (RingMember *other : *ring) {
                EXPECT_EQ(TarvoLoopStop(other->loop), 0);
            }
        }
    }

    const std::string text = "ring";
    TarvoLoop *loop = nullptr;
    std::unique_ptr<Server> server;
    Recorder client;
    TarvoLink *link = nullptr;
    int begun = 0;
    bool told = false;
    int posts = 0;
    std::array<RingMember *, THREADS> *ring = nullptr;
    std::atomic<int> *ended = nullptr;
};

// Lets nobody pass before all have come.
class Gate {
public:
    void Pass() {
        arrived.fetch_add(1);
        while (arrived.load() < THREADS) {
            std::this_thread::yield();
        }
    }

private:
    std::atomic<int> arrived{0};
};

TEST(ThreadsTest, LoopsOfSeveralThreadsShareNothing) {
    const ScopedLeakCheck leaks;
    std::array<std::string, THREADS> names;
    std::array<std::string, THREADS> clients;
    for (int i = 0; i < THREADS; ++i) {
        names[static_cast<std::size_t>(i)] = UniqueName("ring");
        clients[static_cast<std::size_t>(i)] = UniqueName("cli");
    }
    std::array<RingMember *, THREADS> all{};
    std::array<Gate, 2> gates;
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            RingMember member;
            all[i] = &member;
            member.Serve(names[i]);
            gates[0].Pass();
            member.CallNext(names[(i + 1) % THREADS], clients[i]);
            member.RunUntilAllAreDone(all, finished);
            gates[1].Pass();
            member.Destroy();
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(finished, THREADS);
}

TEST(ThreadsTest, ALoopMayEndAsSoonAsItIsStopped) {
    const ScopedLeakCheck leaks;
    for (int i = 0; i < 200; ++i) {
        std::atomic<TarvoLoop *> made{nullptr};
        std::thread runner([&] {
            TarvoLoop *loop = nullptr;
            ASSERT_EQ(TarvoLoopCreate(&loop), 0);
            made = loop;
            EXPECT_EQ(TarvoLoopRun(loop, PATIENCE_MS), 0);
            TarvoLoopDestroy(loop);
        });
        while (made == nullptr) {
            std::this_thread::yield();
        }
        EXPECT_EQ(TarvoLoopStop(made), 0);
        runner.join();
    }
}

} // namespace
} // namespace tarvo_test
