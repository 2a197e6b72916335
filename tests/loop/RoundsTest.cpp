// The loop itself: its descriptor, its rounds, posts, and who may call what.
#include <fcntl.h>
#include <sys/epoll.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <numeric>
#include <thread>

#include "loop/LoopFixture.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

using RoundsTest = LoopTest;

struct Posted {
    std::vector<int> *order;
    int number;
    static void Note(void *context) {
        const auto *posted = static_cast<Posted *>(context);
        posted->order->push_back(posted->number);
    }
};

TEST_F(RoundsTest, NewLoopHasNothingToDo) {
    EXPECT_GE(TarvoLoopFd(loop.Get()), 0);
    EXPECT_FALSE(loop.Readable());
    EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 10), 0);
    EXPECT_FALSE(loop.Readable());
}

TEST_F(RoundsTest, DispatchNeedsRoomForACallback) {
    EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 0), -EINVAL);
    EXPECT_EQ(TarvoLoopDispatch(loop.Get(), -1), -EINVAL);
}

TEST_F(RoundsTest, WhatARoundLeavesOverKeepsTheDescriptorReadable) {
    std::vector<int> order;
    std::vector<Posted> posts;
    for (int i = 0; i < 10; ++i) {
        posts.push_back({&order, i});
    }
    for (Posted &post : posts) {
        ASSERT_EQ(TarvoLoopPost(loop.Get(), Posted::Note, &post), 0);
    }
    EXPECT_TRUE(order.empty());
    for (const int expected : {3, 3, 3, 1}) {
        EXPECT_TRUE(loop.Readable());
        EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 3), expected);
    }
    EXPECT_FALSE(loop.Readable());
    std::vector<int> all(10);
    std::iota(all.begin(), all.end(), 0);
    EXPECT_EQ(order, all);
}

TEST_F(RoundsTest, PostThatPostsItselfLeavesEachDispatchItsEnd) {
    struct Again {
        TarvoLoop *loop;
        int left;
        static void Run(void *context) {
            auto *again = static_cast<Again *>(context);
            if (--again->left > 0) {
                EXPECT_EQ(TarvoLoopPost(again->loop, Run, again), 0);
            }
        }
    } again{loop.Get(), 100};
    ASSERT_EQ(TarvoLoopPost(loop.Get(), Again::Run, &again), 0);
    int callbacks = 0;
    for (int round = 0; again.left > 0 && round < 100; ++round) {
        ASSERT_TRUE(loop.Readable());
        const int ran = TarvoLoopDispatch(loop.Get(), 7);
        ASSERT_LE(ran, 7);
        callbacks += ran;
    }
    EXPECT_EQ(callbacks, 100);
    EXPECT_FALSE(loop.Readable());
}

TEST_F(RoundsTest, PostsOfManyThreadsRunOnceEachInTheOrderOfTheirThread) {
    constexpr int THREADS = 4;
    constexpr int POSTS = 2000;
    struct Post {
        std::atomic<int> *next;
        int number;
        std::thread::id expected;
        static void Run(void *context) {
            const auto *post = static_cast<Post *>(context);
            EXPECT_EQ(post->next->fetch_add(1), post->number);
            EXPECT_EQ(std::this_thread::get_id(), post->expected);
        }
    };
    std::atomic<int> next[THREADS] = {};
    std::vector<std::vector<Post>> posts(THREADS);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        for (int i = 0; i < POSTS; ++i) {
            posts[static_cast<std::size_t>(t)].push_back({&next[t], i, std::this_thread::get_id()});
        }
    }
    for (std::vector<Post> &mine : posts) {
        threads.emplace_back([&mine, to = loop.Get()] {
            for (Post &post : mine) {
                EXPECT_EQ(TarvoLoopPost(to, Post::Run, &post), 0);
            }
        });
    }
    EXPECT_TRUE(loop.RunUntil([&] {
        return std::all_of(std::begin(next), std::end(next), [](const std::atomic<int> &n) { return n == POSTS; });
    }));
    for (std::thread &thread : threads) {
        thread.join();
    }
    // The wake-up of a post that ran before its poster had got to it may still be there.
    EXPECT_EQ(loop.RunWhileReadable(), 0);
}

TEST_F(RoundsTest, RunEndsWithItsTime) {
    EXPECT_EQ(TarvoLoopRun(loop.Get(), 0), -ETIMEDOUT);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(TarvoLoopRun(loop.Get(), 30), -ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
}

TEST_F(RoundsTest, StopBeforeRunEndsItAtOnceAndOnlyThatOne) {
    EXPECT_EQ(TarvoLoopStop(loop.Get()), 0);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), 0), -ETIMEDOUT);
}

TEST_F(RoundsTest, StopOfAnotherThreadEndsARunThatSleeps) {
    for (int round = 0; round < 100; ++round) {
        std::thread other([to = loop.Get()] { EXPECT_EQ(TarvoLoopStop(to), 0); });
        EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
        other.join();
    }
}

TEST_F(RoundsTest, StopInACallbackEndsTheRunAfterIt) {
    int ran = 0;
    struct Both {
        TarvoLoop *loop;
        int *ran;
    } both{loop.Get(), &ran};
    const auto stop = [](void *context) {
        auto *it = static_cast<Both *>(context);
        ++*it->ran;
        EXPECT_EQ(TarvoLoopStop(it->loop), 0);
    };
    ASSERT_EQ(TarvoLoopPost(loop.Get(), stop, &both), 0);
    ASSERT_EQ(TarvoLoopPost(loop.Get(), stop, &both), 0);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    EXPECT_EQ(ran, 2);
}

// Stops the loop that is its context.
void StopIt(void *loop) { EXPECT_EQ(TarvoLoopStop(static_cast<TarvoLoop *>(loop)), 0); }

TEST_F(RoundsTest, StopLeavesNothingToDispatch) {
    ASSERT_EQ(TarvoLoopPost(loop.Get(), StopIt, loop.Get()), 0);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    EXPECT_FALSE(loop.Readable()) << "in a callback of a run";

    EXPECT_EQ(TarvoLoopStop(loop.Get()), 0);
    EXPECT_FALSE(loop.Readable()) << "outside of all";
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    EXPECT_FALSE(loop.Readable()) << "before a run";

    ASSERT_EQ(TarvoLoopPost(loop.Get(), StopIt, loop.Get()), 0);
    EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 10), 1);
    EXPECT_FALSE(loop.Readable()) << "in a callback of a dispatch";
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0) << "it was for the next run";
    EXPECT_EQ(TarvoLoopRun(loop.Get(), 0), -ETIMEDOUT);
}

TEST_F(RoundsTest, StopOfAnotherThreadWhileACallbackRunsLeavesNothingToDispatch) {
    const auto stop = [](void *context) { std::thread(StopIt, context).join(); };
    ASSERT_EQ(TarvoLoopPost(loop.Get(), stop, loop.Get()), 0);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    EXPECT_FALSE(loop.Readable());
}

TEST_F(RoundsTest, WhatIsPostedBesideAStopStaysDue) {
    std::vector<int> order;
    Posted first{&order, 1};
    Posted second{&order, 2};
    ASSERT_EQ(TarvoLoopPost(loop.Get(), StopIt, loop.Get()), 0);
    ASSERT_EQ(TarvoLoopPost(loop.Get(), Posted::Note, &first), 0);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    EXPECT_EQ(TarvoLoopStop(loop.Get()), 0);
    ASSERT_EQ(TarvoLoopPost(loop.Get(), Posted::Note, &second), 0);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    EXPECT_EQ(order, std::vector<int>());
    EXPECT_TRUE(loop.Readable());
    EXPECT_EQ(loop.RunWhileReadable(), 2);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TarvoLoop *signalled = nullptr;

TEST_F(RoundsTest, StopInASignalHandlerEndsTheRun) {
    signalled = loop.Get();
    std::signal(SIGUSR1, [](int) { TarvoLoopStop(signalled); });
    const pthread_t runner = pthread_self();
    for (int round = 0; round < 50; ++round) {
        std::thread other([runner] { pthread_kill(runner, SIGUSR1); });
        EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
        other.join();
    }
    std::signal(SIGUSR1, SIG_DFL);
}

TEST_F(RoundsTest, SignalWithoutAStopDoesNotEndTheRun) {
    static std::atomic<int> seen{0};
    std::signal(SIGUSR1, [](int) { ++seen; });
    std::thread other([runner = pthread_self(), to = loop.Get()] {
        for (int i = 0; i < 20; ++i) {
            pthread_kill(runner, SIGUSR1);
        }
        TarvoLoopStop(to);
    });
    EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), 0);
    other.join();
    EXPECT_GT(seen, 0);
    std::signal(SIGUSR1, SIG_DFL);
}

TEST_F(RoundsTest, FailureOfTheSystemIsToldAndTheLoopGoesOn) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    peer.Send(RawRequest(1, "waits"));
    {
        const ScopedFault fault(Call::EpollWait, ENOMEM, Where().Times(2).ThisThread());
        EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 10), -ENOMEM);
        EXPECT_EQ(TarvoLoopRun(loop.Get(), -1), -ENOMEM);
    }
    EXPECT_TRUE(link.Await("request waits"));
}

// ---- Who may call what ----

// Every function that belongs to the thread of the loop, with good arguments.
std::vector<int64_t> CallEverything(TarvoLoop *loop, TarvoLink *link, TarvoService *service, const std::string &free) {
    TarvoService *otherService = nullptr;
    TarvoLink *otherLink = nullptr;
    const TarvoServiceOptions serviceOptions = ServiceProbe::Options(free);
    const TarvoLinkOptions linkOptions = Probe::Options(free, free);
    char room[16];
    uint32_t size = sizeof(room);
    const auto done = [](void *, int, TarvoBytes) { ADD_FAILURE() << "called back"; };
    std::vector<int64_t> results = {
        TarvoLoopDispatch(loop, 1),
        TarvoLoopRun(loop, 0),
        TarvoServiceOpen(loop, &serviceOptions, &otherService),
        TarvoLinkOpen(loop, &linkOptions, &otherLink),
        TarvoLinkSend(link, {"x", 1}),
        TarvoLinkCall(link, {"x", 1}, 10, done, nullptr),
        TarvoLinkCancel(link, 1),
        TarvoLinkCallSync(link, {"x", 1}, 10, room, &size),
        TarvoLinkReply(link, 1, {"x", 1}),
        TarvoLinkHold(link),
        TarvoLinkFlush(link),
        TarvoLinkSetContext(link, nullptr),
        TarvoLinkClose(link),
        TarvoServiceClose(service),
        TarvoLoopDestroy(loop),
    };
    EXPECT_EQ(otherService, nullptr);
    EXPECT_EQ(otherLink, nullptr);
    return results;
}

constexpr std::size_t FUNCTIONS = 15;

TEST_F(RoundsTest, AnotherThreadIsRefusedByEveryFunctionAndChangesNothing) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    ServiceProbe service(loop);
    ASSERT_EQ(service.Open(UniqueName("service")), 0);
    const std::string free = UniqueName("free");
    auto other = InBackground([&] { return CallEverything(loop.Get(), link.link, service.service, free); });
    EXPECT_EQ(other.get(), std::vector<int64_t>(FUNCTIONS, -EDEADLK));
    EXPECT_FALSE(peer.HasInput());
    ExpectAlive();
}

TEST_F(RoundsTest, NestedDispatchRunAndBlockingCallAreRefused) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    bool ran = false;
    link.onRequest = [&](uint32_t, const std::string &) {
        ran = true;
        char room[16];
        uint32_t size = sizeof(room);
        EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 1), -EDEADLK);
        EXPECT_EQ(TarvoLoopRun(loop.Get(), 0), -EDEADLK);
        EXPECT_EQ(TarvoLinkCallSync(link.link, {"x", 1}, 10, room, &size), -EDEADLK);
        EXPECT_EQ(size, sizeof(room));
    };
    ExpectAlive();
    EXPECT_TRUE(ran);
    EXPECT_FALSE(peer.HasInput());
}

TEST_F(RoundsTest, NullHandlesAndArgumentsAreRefused) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    const std::string free = UniqueName("free");
    const TarvoServiceOptions serviceOptions = ServiceProbe::Options(free);
    const TarvoLinkOptions linkOptions = Probe::Options(free, free);
    TarvoService *service = nullptr;
    TarvoLink *opened = nullptr;
    char room[16];
    uint32_t size = sizeof(room);
    const auto done = [](void *, int, TarvoBytes) {};
    const std::vector<int64_t> results = {
        TarvoLoopCreate(nullptr),
        TarvoLoopFd(nullptr),
        TarvoLoopDispatch(nullptr, 1),
        TarvoLoopRun(nullptr, 0),
        TarvoLoopStop(nullptr),
        TarvoLoopPost(
            nullptr, [](void *) {}, nullptr),
        TarvoLoopPost(loop.Get(), nullptr, nullptr),
        TarvoServiceOpen(nullptr, &serviceOptions, &service),
        TarvoServiceOpen(loop.Get(), nullptr, &service),
        TarvoServiceOpen(loop.Get(), &serviceOptions, nullptr),
        TarvoLinkOpen(nullptr, &linkOptions, &opened),
        TarvoLinkOpen(loop.Get(), nullptr, &opened),
        TarvoLinkOpen(loop.Get(), &linkOptions, nullptr),
        TarvoLinkSend(nullptr, {"x", 1}),
        TarvoLinkSend(link.link, {nullptr, 1}),
        TarvoLinkCall(nullptr, {"x", 1}, 10, done, nullptr),
        TarvoLinkCall(link.link, {nullptr, 1}, 10, done, nullptr),
        TarvoLinkCall(link.link, {"x", 1}, 10, nullptr, nullptr),
        TarvoLinkCancel(nullptr, 1),
        TarvoLinkCallSync(nullptr, {"x", 1}, 10, room, &size),
        TarvoLinkCallSync(link.link, {nullptr, 1}, 10, room, &size),
        TarvoLinkCallSync(link.link, {"x", 1}, 10, nullptr, &size),
        TarvoLinkCallSync(link.link, {"x", 1}, 10, room, nullptr),
        TarvoLinkReply(nullptr, 1, {"x", 1}),
        TarvoLinkHold(nullptr),
        TarvoLinkFlush(nullptr),
        TarvoLinkSetContext(nullptr, nullptr),
    };
    EXPECT_EQ(results, std::vector<int64_t>(results.size(), -EINVAL));
    EXPECT_EQ(TarvoLinkPeer(nullptr), nullptr);
    EXPECT_EQ(TarvoLinkClose(nullptr), 0);
    EXPECT_EQ(TarvoServiceClose(nullptr), 0);
    EXPECT_EQ(TarvoLoopDestroy(nullptr), 0);
    EXPECT_EQ(size, sizeof(room));
    EXPECT_FALSE(peer.HasInput());
}

TEST_F(RoundsTest, StructuresOfAWrongSizeAreRefused) {
    const std::string free = UniqueName("free");
    for (const uint32_t size : {0U, 3U}) {
        TarvoServiceOptions serviceOptions = ServiceProbe::Options(free);
        TarvoLinkOptions linkOptions = Probe::Options(free, free);
        TarvoService *service = nullptr;
        TarvoLink *opened = nullptr;
        serviceOptions.size = size;
        linkOptions.size = size;
        EXPECT_EQ(TarvoServiceOpen(loop.Get(), &serviceOptions, &service), -EINVAL);
        EXPECT_EQ(TarvoLinkOpen(loop.Get(), &linkOptions, &opened), -EINVAL);
        TarvoLinkCallbacks callbacks = Probe::Callbacks();
        callbacks.size = size;
        serviceOptions.size = sizeof(serviceOptions);
        serviceOptions.callbacks = &callbacks;
        linkOptions.size = sizeof(linkOptions);
        linkOptions.callbacks = &callbacks;
        EXPECT_EQ(TarvoServiceOpen(loop.Get(), &serviceOptions, &service), -EINVAL);
        EXPECT_EQ(TarvoLinkOpen(loop.Get(), &linkOptions, &opened), -EINVAL);
        EXPECT_EQ(service, nullptr);
        EXPECT_EQ(opened, nullptr);
    }
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(RoundsTest, ForkedChildIsRefusedByEveryFunctionAndLeavesTheParentsFiles) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    ServiceProbe service(loop);
    ASSERT_EQ(service.Open(UniqueName("service")), 0);
    const std::size_t files = OwnFifoFiles().size();
    ChildProcess child([&](Channel &) {
        const std::string free = UniqueName("free");
        TarvoLoop *fresh = nullptr;
        EXPECT_EQ(CallEverything(loop.Get(), link.link, service.service, free),
                  std::vector<int64_t>(FUNCTIONS, -ENOENT));
        EXPECT_EQ(TarvoLoopCreate(&fresh), -ENOENT);
        EXPECT_EQ(TarvoLoopPost(
                      loop.Get(), [](void *) {}, nullptr),
                  -ENOENT);
        EXPECT_EQ(TarvoLoopStop(loop.Get()), -ENOENT);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(OwnFifoFiles().size(), files);
    EXPECT_EQ(TarvoLoopRun(loop.Get(), 0), -ETIMEDOUT) << "the child has not stopped its parent's loop";
    ExpectAlive();
}

TEST_F(RoundsTest, AllDescriptorsAreCloseOnExec) {
    ServiceProbe service(loop);
    Probe opening(loop);
    ASSERT_EQ(service.Open(UniqueName("service")), 0);
    ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("later"), UniqueName("now")), 0);
    const std::map<int, std::string> before = OpenDescriptors();
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    int seen = 0;
    for (const auto &[fd, target] : OpenDescriptors()) {
        if (target.find(FifoDirectory()) == 0 || target.find("anon_inode") == 0) {
            const int flags = fcntl(fd, F_GETFD);
            EXPECT_TRUE((flags & FD_CLOEXEC) != 0) << target;
            ++seen;
        }
    }
    EXPECT_GE(seen, 4);
}

// ---- The end of a loop ----

TEST_F(RoundsTest, LoopDestroyedInItsCallbackEndsTheDispatchAndRunsNoOther) {
    for (const bool run : {false, true}) {
        TarvoLoop *doomed = nullptr;
        ASSERT_EQ(TarvoLoopCreate(&doomed), 0);
        static int callbacks;
        callbacks = 0;
        const auto destroy = [](void *context) {
            ++callbacks;
            EXPECT_EQ(TarvoLoopDestroy(static_cast<TarvoLoop *>(context)), 0);
        };
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(TarvoLoopPost(doomed, destroy, doomed), 0);
        }
        EXPECT_EQ(run ? TarvoLoopRun(doomed, -1) : TarvoLoopDispatch(doomed, 10), -ECANCELED);
        EXPECT_EQ(callbacks, 1);
    }
}

TEST_F(RoundsTest, DestroyClosesLinksAndServicesAndCallsNobodyBack) {
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    ServiceProbe service(loop);
    ASSERT_EQ(service.Open(UniqueName("service")), 0);
    Probe opening(loop);
    ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_SERVER, UniqueName("later"), UniqueName("now")), 0);
    ASSERT_GT(link.Call("question", "unanswered"), 0);
    ASSERT_EQ(TarvoLoopPost(
                  loop.Get(), [](void *) { ADD_FAILURE() << "what was posted is dropped"; }, nullptr),
              0);
    peer.Send(RawRequest(1, "unread"));
    loop.Destroy();
    link.Forget();
    opening.Forget();
    service.Forget();
    EXPECT_EQ(link.events, Strings());
    EXPECT_EQ(opening.events, Strings());
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(peer.Receive().payload, "question");
    peer.AwaitHangup();
    ASSERT_EQ(TarvoLoopCreate(nullptr), -EINVAL);
}

TEST_F(RoundsTest, LoopWatchedByAnotherEpollSetReportsLevelTriggered) {
    const int outer = epoll_create1(EPOLL_CLOEXEC);
    epoll_event wanted = {EPOLLIN, {}};
    ASSERT_EQ(epoll_ctl(outer, EPOLL_CTL_ADD, TarvoLoopFd(loop.Get()), &wanted), 0);
    OpenLink(TARVO_LINK_ARRANGED_SERVER);
    std::string burst;
    for (uint32_t i = 0; i < 50; ++i) {
        burst += RawRequest(i, std::to_string(i));
    }
    peer.Send(burst);
    for (std::size_t i = 0; i < 50; ++i) {
        epoll_event ready = {};
        ASSERT_EQ(epoll_wait(outer, &ready, 1, 30000), 1) << i;
        ASSERT_EQ(TarvoLoopDispatch(loop.Get(), 1), 1) << i;
    }
    epoll_event ready = {};
    EXPECT_EQ(epoll_wait(outer, &ready, 1, 0), 0);
    EXPECT_EQ(link.events.size(), 50U);
    close(outer);
}

} // namespace
} // namespace tarvo_test
