// What a loop does not do: start threads, wake up without a reason, allocate for each message, or call the kernel more
// often than it must.
#include <gmock/gmock-more-matchers.h>
#include <malloc.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <vector>

#include "loop/LoopFixture.h"
#include "support/AllocFaults.h"
#include "support/Asleep.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

// A service that echoes and a client of it, with callbacks that use no memory.
struct Pair {
    explicit Pair(TarvoLoop *both) : Pair(both, both) {}
    Pair(TarvoLoop *serving, TarvoLoop *calling) : server(serving), caller(calling) {
        TarvoLinkCallbacks callbacks = {};
        callbacks.size = sizeof(callbacks);
        callbacks.request = [](void *, TarvoLink *remote, uint32_t request, TarvoBytes payload) {
            EXPECT_EQ(TarvoLinkReply(remote, request, payload), 0);
        };
        const std::string name = UniqueName("service");
        TarvoServiceOptions options = ServiceProbe::Options(name);
        options.callbacks = &callbacks;
        EXPECT_EQ(TarvoServiceOpen(serving, &options, &service), 0);
        callbacks = {};
        callbacks.size = sizeof(callbacks);
        callbacks.opened = [](void *context, TarvoLink *, int result) {
            EXPECT_EQ(result, 0);
            static_cast<Pair *>(context)->open = true;
        };
        const std::string self = "quiet";
        TarvoLinkOptions linkOptions = Probe::Options(name, self);
        linkOptions.context = this;
        linkOptions.callbacks = &callbacks;
        EXPECT_EQ(TarvoLinkOpen(calling, &linkOptions, &link), 0);
        while (!open) {
            DispatchBoth();
        }
    }

    void DispatchBoth() const {
        EXPECT_GE(TarvoLoopDispatch(caller, 1000), 0);
        if (server != caller) {
            EXPECT_GE(TarvoLoopDispatch(server, 1000), 0);
        }
    }

    static void Done(void *context, int result, TarvoBytes) {
        EXPECT_EQ(result, 0);
        ++static_cast<Pair *>(context)->answered;
    }

    void Call(int calls, TarvoBytes payload = {"ping", 4}) {
        for (int i = 0; i < calls; ++i) {
            const int before = answered;
            EXPECT_GT(TarvoLinkCall(link, payload, 30000, Done, this), 0);
            while (answered == before) {
                DispatchBoth();
            }
        }
    }

    TarvoLoop *const server;
    TarvoLoop *const caller;
    TarvoService *service = nullptr;
    TarvoLink *link = nullptr;
    bool open = false;
    int answered = 0;
};

class QuietTest : public LeakCheckedTest {
protected:
    TestLoop loop;
};

std::size_t MallocedBytes() { return SANITIZED ? 0 : mallinfo2().uordblks; }

TEST_F(QuietTest, MessagesAfterTheFirstAllocateNothing) {
    Pair pair(loop.Get());
    const std::string longest(4000, 'x');
    pair.Call(100);
    pair.Call(10, View(longest));
    const std::size_t before = ThreadAllocations();
    const std::size_t malloced = MallocedBytes();
    pair.Call(1000);
    pair.Call(100, View(longest));
    EXPECT_EQ(ThreadAllocations(), before);
    EXPECT_EQ(MallocedBytes(), malloced);
}

TEST_F(QuietTest, CallsOutstandingAllocateNothingOnceAsManyHaveBeen) {
    Pair pair(loop.Get());
    const auto round = [&](int calls) {
        for (int i = 0; i < calls; ++i) {
            ASSERT_GT(TarvoLinkCall(pair.link, {"ping", 4}, i % 2 == 0 ? 30000 : -1, Pair::Done, &pair), 0);
        }
        for (const int all = pair.answered + calls; pair.answered < all;) {
            pair.DispatchBoth();
        }
    };
    round(64);
    round(64);
    const std::size_t before = ThreadAllocations();
    for (int i = 0; i < 100; ++i) {
        round(64);
    }
    EXPECT_EQ(ThreadAllocations(), before);
}

// Both ends together, each with a loop of its own, as two processes would have.
TEST_F(QuietTest, CallCostsSixSystemCallsAtBothEndsTogether) {
    TestLoop other;
    Pair pair(other.Get(), loop.Get());
    pair.Call(100);
    constexpr int CALLS = 1000;
    const auto counted = [] { return Where().ThisThread(); };
    std::vector<std::unique_ptr<CallCounter>> counters;
    for (const Call call : {Call::Read, Call::Write, Call::EpollCtl, Call::TimerfdSettime, Call::Poll}) {
        counters.push_back(std::make_unique<CallCounter>(call, counted()));
    }
    const auto total = [&] {
        unsigned sum = 0;
        for (const auto &counter : counters) {
            sum += counter->Count();
        }
        return sum;
    };
    const CallCounter waits(Call::EpollWait, counted());
    pair.Call(CALLS);
    // The test dispatches by turns, once where two processes would sleep: a wait that finds nothing is not counted
    // twice. Two reads and two writes remain, and now and then the timer.
    EXPECT_LE(total(), CALLS * 4 + CALLS / 50);
    EXPECT_LE(waits.Count(), static_cast<unsigned>(CALLS * 4));
}

TEST_F(QuietTest, OneWayRequestsAllocateNothingAlsoWhenNoneIsAnswered) {
    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    int received = 0;
    TarvoLinkCallbacks callbacks = {};
    callbacks.size = sizeof(callbacks);
    callbacks.request = [](void *context, TarvoLink *, uint32_t, TarvoBytes) { ++*static_cast<int *>(context); };
    TarvoLinkOptions options = Probe::Options(self, remote);
    options.kind = TARVO_LINK_ARRANGED_SERVER;
    options.context = &received;
    options.callbacks = &callbacks;
    TarvoLink *receiver = nullptr;
    ASSERT_EQ(TarvoLinkOpen(loop.Get(), &options, &receiver), 0);
    Probe sender(loop);
    ASSERT_EQ(sender.Open(TARVO_LINK_ARRANGED_CLIENT, remote, self), 0);
    ASSERT_TRUE(sender.Await("opened 0"));
    // `atOnce` in a round, of which each dispatch serves a part.
    const auto stream = [&](int count, int atOnce) {
        for (const int all = received + count; received < all;) {
            for (int i = 0; i < atOnce; ++i) {
                ASSERT_EQ(TarvoLinkSend(sender.link, {"news", 4}), 0);
            }
            for (const int some = received + atOnce; received < some;) {
                ASSERT_GE(TarvoLoopDispatch(loop.Get(), 2), 0);
            }
        }
    };
    // Each may be answered until so many others have come.
    stream(TARVO_LOOP_MAX_REQUESTS, 64);
    const std::size_t before = ThreadAllocations();
    stream(5000, 1);
    stream(5000, 5);
    EXPECT_EQ(ThreadAllocations(), before);
    EXPECT_EQ(TarvoLinkClose(receiver), 0);
}

TEST_F(QuietTest, PostsAfterTheFirstAllocateNothing) {
    int ran = 0;
    const auto post = [&](int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(TarvoLoopPost(
                          loop.Get(), [](void *context) { ++*static_cast<int *>(context); }, &ran),
                      0);
            ASSERT_EQ(TarvoLoopDispatch(loop.Get(), 10), 1);
        }
    };
    post(10);
    const std::size_t before = ThreadAllocations();
    post(1000);
    EXPECT_EQ(ThreadAllocations(), before);
}

// What has come besides is lost then, as a request is for which the other engine has no memory.
TEST_F(QuietTest, BlockingCallHasItsAnswerAlsoWithoutMemoryForWhatElseComes) {
    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    RawPeer peer(remote, self);
    Probe link(loop);
    ASSERT_EQ(link.Open(TARVO_LINK_ARRANGED_SERVER, remote, self), 0);
    loop.RunBeside([&] { peer.OpenBoth(); });
    ASSERT_TRUE(link.Await("opened 0"));
    std::optional<AllocFault> fault;
    char room[16];
    uint32_t size = sizeof(room);
    {
        const ScopedHook answer(
            Call::Poll,
            [&](const CallInfo &) {
                peer.Send(RawRequest(1, std::string(100, 'x')) + RawResponse(peer.Receive().id, "answer"));
                fault.emplace(1U);
            },
            Where().ThisThread());
        EXPECT_EQ(TarvoLinkCallSync(link.link, {"ask", 3}, 30000, room, &size), 0);
    }
    EXPECT_TRUE(fault->Hit());
    fault.reset();
    EXPECT_EQ(std::string(room, size), "answer");
    peer.Send(RawRequest(2, "next"));
    EXPECT_TRUE(link.Await("request next"));
    EXPECT_EQ(link.events, (Strings{"opened 0", "request next"}));
}

TEST_F(QuietTest, NothingHappensWhileNothingIsToBeDone) {
    Pair pair(loop.Get());
    pair.Call(10);
    ASSERT_GT(TarvoLinkCall(
                  pair.link, {"ping", 4}, 3600000, [](void *, int, TarvoBytes) {}, nullptr),
              0);
    loop.RunWhileReadable();
    if (loop.Readable(100)) {
        loop.RunWhileReadable(); // a deadline of the calls before
    }
    EXPECT_FALSE(loop.Readable(1000));
}

// Of the only thread of a process.
long ContextSwitches(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
            return std::stol(line.substr(line.find(':') + 1));
        }
    }
    return -1;
}

// No loop before the fork.
TEST(QuietProcessTest, LoopThatRunsHasOneThreadAndSleepsUntilThereIsSomethingToDo) {
    ChildProcess child([](Channel &channel) {
        TarvoLoop *own = nullptr;
        EXPECT_EQ(TarvoLoopCreate(&own), 0);
        Pair pair(own);
        pair.Call(100);
        channel.Signal();
        EXPECT_EQ(TarvoLoopRun(own, 600000), -ETIMEDOUT);
        return 0;
    });
    ASSERT_TRUE(child.Await());
    const std::string task = "/proc/" + std::to_string(child.Pid()) + "/task/" + std::to_string(child.Pid());
    ASSERT_TRUE(Eventually([&] { return IsAsleep(task); }));
    if (!SANITIZED) {
        const int emulators = EMULATED ? 1 : 0;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(task + "/.."), {}), 1 + emulators);
    }
    // A deadline of the calls before may wake it once: not in two seconds.
    std::vector<long> wakeUps;
    for (int second = 0; second < 2; ++second) {
        const long before = ContextSwitches(child.Pid());
        EXPECT_FALSE(child.EndsWithin(1000));
        wakeUps.push_back(ContextSwitches(child.Pid()) - before);
    }
    EXPECT_THAT(wakeUps, testing::Contains(0)) << "wake-ups a second";
    child.Kill();
    child.Wait();
    RemoveOwnFifoFiles();
}

TEST_F(QuietTest, NoThreadIsStartedWhateverIsDone) {
    const std::size_t before = ThreadCount();
    const CallCounter threads(Call::PthreadCreate);
    Pair pair(loop.Get());
    pair.Call(10);
    Probe opening(loop);
    ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("a"), UniqueName("b"), 1), 0);
    EXPECT_TRUE(opening.AwaitCount(1));
    EXPECT_EQ(ThreadCount(), before);
    EXPECT_EQ(threads.Count(), 0U);
}

TEST_F(QuietTest, ThousandsOfLinksLeaveNothing) {
    const std::string name = UniqueName("service");
    std::size_t malloced = 0;
    ServiceProbe service(loop);
    ASSERT_EQ(service.Open(name), 0);
    const int rounds = Rounds(1500, 300);
    for (int round = 0; round < rounds; ++round) {
        Probe client(loop);
        ASSERT_EQ(client.Open(TARVO_LINK_TO_SERVER, name, "brief" + std::to_string(round % 10)), 0);
        ASSERT_TRUE(client.Await("opened 0"));
        ASSERT_TRUE(service.AwaitClients(1));
        ASSERT_GT(client.Call("never answered", "call"), 0);
        ASSERT_EQ(client.Close(), 0);
        ASSERT_TRUE(service.clients[0].Await("closed"));
        loop.RunWhileReadable();
        service.clients.clear();
        service.names.clear();
        if (round == rounds / 2) {
            malloced = MallocedBytes();
        }
    }
    EXPECT_LE(MallocedBytes(), malloced + 10000);
    EXPECT_EQ(OwnFifoFiles(), Strings{name});
}

} // namespace
} // namespace tarvo_test
