// Rounds, readiness, posts, stopping and destroying.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>

#include "LoopKit.h"
#include "support/Process.h"

namespace tarvo_test {
namespace {

using Posted = std::function<void()>;

void RunPosted(void *context) { (*static_cast<Posted *>(context))(); }

int Post(TarvoLoop *loop, Posted &function) { return TarvoLoopPost(loop, RunPosted, &function); }

TEST_F(LoopTest, AnIdleLoopIsNotReadableAndDispatchesNothing) {
    EXPECT_FALSE(IsReadable(loop));
    EXPECT_EQ(TarvoLoopDispatch(loop, 10), 0);
    EXPECT_FALSE(IsReadable(loop));
}

TEST_F(LoopTest, NullAndWrongArgumentsAreRefused) {
    EXPECT_EQ(TarvoLoopCreate(nullptr), -EINVAL);
    EXPECT_EQ(TarvoLoopFd(nullptr), -EINVAL);
    EXPECT_EQ(TarvoLoopDispatch(nullptr, 1), -EINVAL);
    EXPECT_EQ(TarvoLoopDispatch(loop, 0), -EINVAL);
    EXPECT_EQ(TarvoLoopRun(nullptr, 0), -EINVAL);
    EXPECT_EQ(TarvoLoopStop(nullptr), -EINVAL);
    EXPECT_EQ(TarvoLoopPost(loop, nullptr, nullptr), -EINVAL);
    EXPECT_EQ(TarvoLoopDestroy(nullptr), 0);
}

TEST_F(LoopTest, PostedFunctionsRunOnceAndInOrder) {
    std::string order;
    Posted first = [&] { order += '1'; };
    Posted second = [&] { order += '2'; };
    EXPECT_EQ(Post(loop, first), 0);
    EXPECT_EQ(Post(loop, second), 0);
    EXPECT_TRUE(IsReadable(loop));
    EXPECT_EQ(TarvoLoopDispatch(loop, 10), 2);
    EXPECT_EQ(order, "12");
    Drain(loop);
    EXPECT_EQ(order, "12");
}

TEST_F(LoopTest, WhatMaxLeavesOverKeepsTheDescriptorReadable) {
    int runs = 0;
    Posted count = [&] { ++runs; };
    for (int i = 0; i < 3; ++i) {
        Post(loop, count);
    }
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(IsReadable(loop));
        EXPECT_EQ(TarvoLoopDispatch(loop, 1), 1);
        EXPECT_EQ(runs, i);
    }
    Drain(loop);
    EXPECT_EQ(runs, 3);
}

TEST_F(LoopTest, AFunctionThatPostsItselfDoesNotKeepADispatchBusy) {
    int runs = 0;
    Posted again;
    again = [&] {
        if (++runs < 5) {
            Post(loop, again);
        }
    };
    Post(loop, again);
    EXPECT_EQ(TarvoLoopDispatch(loop, 100), 1);
    EXPECT_TRUE(Wait([&] { return runs == 5; }));
}

TEST_F(LoopTest, RunEndsWithItsTime) { EXPECT_EQ(TarvoLoopRun(loop, 20), -ETIMEDOUT); }

TEST_F(LoopTest, AStopBeforeItEndsTheNextRunAtOnce) {
    EXPECT_EQ(TarvoLoopStop(loop), 0);
    EXPECT_EQ(TarvoLoopRun(loop, PATIENCE_MS), 0);
    EXPECT_EQ(TarvoLoopRun(loop, 0), -ETIMEDOUT);
}

TEST_F(LoopTest, AStopLeavesTheRestForTheNextRun) {
    int runs = 0;
    Posted stop = [&] {
        ++runs;
        TarvoLoopStop(loop);
    };
    Post(loop, stop);
    Post(loop, stop);
    EXPECT_EQ(TarvoLoopRun(loop, PATIENCE_MS), 0);
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(IsReadable(loop));
    EXPECT_EQ(TarvoLoopRun(loop, PATIENCE_MS), 0);
    EXPECT_EQ(runs, 2);
}

TEST_F(LoopTest, AnotherThreadEndsASleepingRun) {
    std::thread stopper([this] { TarvoLoopStop(loop); });
    EXPECT_EQ(TarvoLoopRun(loop, PATIENCE_MS), 0);
    stopper.join();
}

TEST_F(LoopTest, PostsOfManyThreadsAllArrive) {
    constexpr int THREADS = 4;
    constexpr int POSTS = 2000;
    int runs = 0;
    Posted count = [&] {
        if (++runs == THREADS * POSTS) {
            TarvoLoopStop(loop);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < POSTS; ++k) {
                Post(loop, count);
            }
        });
    }
    EXPECT_EQ(TarvoLoopRun(loop, PATIENCE_MS), 0);
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(runs, THREADS * POSTS);
}

TEST_F(LoopTest, ADispatchInsideACallbackIsRefused) {
    int inner[3] = {0, 0, 0};
    Posted nested = [&] {
        inner[0] = TarvoLoopDispatch(loop, 1);
        inner[1] = TarvoLoopRun(loop, 0);
        inner[2] = TarvoLoopPost(loop, RunPosted, &nested);
        nested = [] {};
    };
    Post(loop, nested);
    EXPECT_EQ(TarvoLoopDispatch(loop, 1), 1);
    EXPECT_EQ(inner[0], -EDEADLK);
    EXPECT_EQ(inner[1], -EDEADLK);
    EXPECT_EQ(inner[2], 0);
    Drain(loop);
}

TEST_F(LoopTest, AnotherThreadIsRefusedEverythingButPostAndStop) {
    Posted nothing = [] {};
    std::thread other([&] {
        EXPECT_EQ(TarvoLoopFd(loop), -EDEADLK);
        EXPECT_EQ(TarvoLoopDispatch(loop, 1), -EDEADLK);
        EXPECT_EQ(TarvoLoopRun(loop, 0), -EDEADLK);
        EXPECT_EQ(TarvoLoopDestroy(loop), -EDEADLK);
        Recorder recorder;
        const TarvoLinkOptions options = OptionsOf(recorder, "x", TARVO_LINK_TO_SERVER, 0, "y");
        TarvoLink *link = nullptr;
        EXPECT_EQ(TarvoLinkOpen(loop, &options, &link), -EDEADLK);
        EXPECT_EQ(Post(loop, nothing), 0);
    });
    other.join();
    Drain(loop);
}

TEST_F(LoopTest, ADestroyInsideACallbackEndsTheDispatch) {
    TarvoLoop *mine = nullptr;
    ASSERT_EQ(TarvoLoopCreate(&mine), 0);
    int runs = 0;
    Posted destroy = [&] {
        ++runs;
        TarvoLoopDestroy(mine);
    };
    Post(mine, destroy);
    Post(mine, destroy);
    EXPECT_EQ(TarvoLoopDispatch(mine, 10), -ECANCELED);
    EXPECT_EQ(runs, 1);
    ASSERT_EQ(TarvoLoopCreate(&mine), 0);
    Post(mine, destroy);
    EXPECT_EQ(TarvoLoopRun(mine, PATIENCE_MS), -ECANCELED);
    EXPECT_EQ(runs, 2);
}

TEST_F(LoopTest, AForkedChildIsRefusedEverything) {
    Recorder recorder;
    const std::string name = UniqueName("srv");
    const Server server(loop, name);
    TarvoLink *const link = OpenLink(loop, recorder, UniqueName("far"), TARVO_LINK_ARRANGED_SERVER);
    ChildProcess child([&](Channel &) {
        Posted nothing = [] {};
        TarvoLoop *mine = nullptr;
        EXPECT_EQ(TarvoLoopCreate(&mine), -ENOENT);
        EXPECT_EQ(TarvoLoopDispatch(loop, 1), -ENOENT);
        EXPECT_EQ(Post(loop, nothing), -ENOENT);
        EXPECT_EQ(TarvoLoopStop(loop), -ENOENT);
        EXPECT_EQ(TarvoLinkSend(link, Bytes("x")), -ENOENT);
        EXPECT_EQ(TarvoLinkClose(link), -ENOENT);
        EXPECT_EQ(TarvoServiceClose(server.service), -ENOENT);
        EXPECT_EQ(TarvoLoopDestroy(loop), -ENOENT);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(OwnFifoFiles().size(), 3U);
}

// The variable is looked up when the loop is made.
TEST(PatientLoopTest, CallsOfAProcessInADebuggerGetTheirTime) {
    ChildProcess child([](Channel &) {
        setenv("KELDOR_RUN_MODE", "1", 1);
        TarvoLoop *loop = nullptr;
        EXPECT_EQ(TarvoLoopCreate(&loop), 0);
        setenv("KELDOR_RUN_MODE", "0", 1);
        const std::string name = UniqueName("srv");
        Server server(loop, name);
        Recorder client;
        TarvoLink *const link = OpenLink(loop, client, name);
        EXPECT_TRUE(Until(loop, [&] { return client.opened; }));
        EXPECT_GT(TarvoLinkCall(link, Bytes("x"), 1, Recorder::Done, &client), 0);
        EXPECT_EQ(TarvoLoopRun(loop, 50), -ETIMEDOUT);
        EXPECT_EQ(client.done, 0);
        TarvoLoopDestroy(loop);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

} // namespace
} // namespace tarvo_test
