// The semaphore of one waiting thread: posts that meet waits and time-outs at every moment, none lost and none left
// over.
#include "base/Semaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/Rounds.h"
#include "support/Sanitized.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

constexpr auto AT_ONCE = std::chrono::milliseconds(0);
constexpr auto A_MOMENT = std::chrono::milliseconds(1);
constexpr auto A_WHILE = std::chrono::milliseconds(500);

TEST(SemaphoreTest, PostIsTakenOnce) {
    Semaphore semaphore;
    EXPECT_FALSE(semaphore.HasPosts());
    semaphore.Post();
    EXPECT_TRUE(semaphore.HasPosts());
    semaphore.Wait();
    EXPECT_FALSE(semaphore.HasPosts());
    EXPECT_FALSE(semaphore.WaitFor(AT_ONCE));
}

TEST(SemaphoreTest, WaitThatTimesOutTakesNothing) {
    Semaphore semaphore;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(semaphore.WaitFor(A_MOMENT));
    EXPECT_GE(std::chrono::steady_clock::now() - start, A_MOMENT);
    semaphore.Post();
    EXPECT_TRUE(semaphore.WaitFor(AT_ONCE));
    EXPECT_FALSE(semaphore.HasPosts());
}

// Each post comes into a series of waits that end at once, a little later in it than the one before. For a while and
// not for a number of rounds: on a busy machine each takes two turns of the processor.
TEST(SemaphoreTest, PostThatMeetsATimeOutIsNeitherLostNorLeftOver) {
    const int rounds = StressRounds(50000);
    Semaphore semaphore;
    std::atomic<int> taken{0};
    std::atomic<bool> last{false};
    int early = 0;
    Threads poster(1, [&](int) {
        const auto end = std::chrono::steady_clock::now() + A_WHILE;
        for (int posted = 0; !last; ++posted) {
            while (taken < posted) {
                std::this_thread::yield();
            }
            last = posted == rounds || std::chrono::steady_clock::now() > end;
            for (volatile int delay = posted % 500; delay > 0; delay = delay - 1) {
            }
            early += taken > posted ? 1 : 0;
            semaphore.Post();
        }
    });
    for (bool more = true; more;) {
        if (semaphore.WaitFor(AT_ONCE)) {
            more = !last;
            ++taken;
        }
    }
    poster.Join();
    EXPECT_EQ(early, 0);
    EXPECT_FALSE(semaphore.HasPosts());
    EXPECT_FALSE(semaphore.WaitFor(AT_ONCE));
}

TEST(SemaphoreTest, PostsOfManyAreAllTaken) {
    constexpr int POSTERS = 3;
    const int rounds = StressRounds(Rounds(20000, 2000));
    Semaphore semaphore;
    Threads posters(POSTERS, [&](int) {
        for (int i = 0; i < rounds; ++i) {
            semaphore.Post();
        }
    });
    for (int taken = 0; taken < POSTERS * rounds;) {
        if (taken % 2 == 0) {
            semaphore.Wait();
            ++taken;
        } else {
            taken += semaphore.WaitFor(A_MOMENT) ? 1 : 0;
        }
    }
    posters.Join();
    EXPECT_FALSE(semaphore.HasPosts());
    EXPECT_FALSE(semaphore.WaitFor(AT_ONCE));
}

TEST(SemaphoreTest, WhatWasWrittenBeforeAPostIsSeenAfterItsWait) {
    const int rounds = StressRounds(Rounds(50000, 5000));
    Semaphore semaphore;
    std::vector<int> written(static_cast<std::size_t>(rounds));
    Threads poster(1, [&](int) {
        for (int i = 0; i < rounds; ++i) {
            written[static_cast<std::size_t>(i)] = i + 1;
            semaphore.Post();
        }
    });
    int wrong = 0;
    for (int i = 0; i < rounds; ++i) {
        while (i % 2 == 0 && !semaphore.WaitFor(AT_ONCE)) {
        }
        if (i % 2 != 0) {
            semaphore.Wait();
        }
        wrong += written[static_cast<std::size_t>(i)] == i + 1 ? 0 : 1;
    }
    poster.Join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
} // namespace tarvo_test
