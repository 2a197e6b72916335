#include "support/FakeClock.h"

#include <gtest/gtest.h>
#include <semaphore.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <thread>

#include "diag/run_time_record.h"
#include "support/Interpose.h"

namespace tarvo_test {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using std::chrono::system_clock;

// Runs `wait` on a thread, moves the clock by `by` once the thread waits, and yields the real time all of it took.
template <typename Wait>
std::chrono::nanoseconds Move(FakeClock &clock, std::chrono::nanoseconds by, Wait wait) {
    const auto now = [] {
        const RealTime real;
        return steady_clock::now();
    };
    const auto start = now();
    std::thread waiter(wait);
    EXPECT_TRUE(clock.WaitUntilWaiting(1));
    clock.Advance(by);
    waiter.join();
    return now() - start;
}

TEST(FakeClock, MovesTheClocksOfTheStandardLibrary) {
    FakeClock clock(FakeClock::Mode::Frozen);
    const auto steady = steady_clock::now();
    const auto wall = system_clock::now();
    clock.Advance(1h);
    EXPECT_EQ(steady_clock::now() - steady, 1h);
    EXPECT_EQ(system_clock::now() - wall, 1h);
    clock.AdvanceMonotonic(1s);
    clock.AdvanceWall(-2h);
    EXPECT_EQ(steady_clock::now() - steady, 1h + 1s);
    EXPECT_EQ(system_clock::now() - wall, -1h);
}

TEST(FakeClock, MovesTheClockOfTheLibrary) {
    FakeClock clock(FakeClock::Mode::Frozen);
    clock.SetMonotonic(5s + 7us);
    EXPECT_EQ(Tarvo::GetCurrentTime(), 5000007U);
}

TEST(FakeClock, RunsOnBetweenMovesUnlessFrozen) {
    FakeClock clock;
    clock.SetMonotonic(1000s);
    const auto before = steady_clock::now();
    while (steady_clock::now() == before) {
    }
    EXPECT_GE(steady_clock::now().time_since_epoch(), 1000s);
    EXPECT_LT(steady_clock::now().time_since_epoch(), 1060s);
}

TEST(FakeClock, LeavesTheRealTimeToWhoAsksForIt) {
    FakeClock clock(FakeClock::Mode::Frozen);
    clock.Advance(1h);
    const auto moved = steady_clock::now();
    const RealTime real;
    EXPECT_LT(steady_clock::now(), moved);
}

TEST(FakeClock, IsGoneWithItsScope) {
    const auto before = steady_clock::now();
    { FakeClock(FakeClock::Mode::Frozen).Advance(1h); }
    EXPECT_LT(steady_clock::now() - before, 30min);
}

TEST(FakeClock, EndsALongConditionWaitAtOnce) {
    for (const auto mode : {FakeClock::Mode::Running, FakeClock::Mode::Frozen}) {
        FakeClock clock(mode);
        std::mutex mutex;
        std::condition_variable condition;
        std::cv_status status = std::cv_status::no_timeout;
        const auto took = Move(clock, 60s, [&] {
            std::unique_lock<std::mutex> lock(mutex);
            status = condition.wait_for(lock, 60s);
        });
        EXPECT_EQ(status, std::cv_status::timeout);
        EXPECT_LT(took, 30s);
    }
}

TEST(FakeClock, EndsAWallClockWaitToo) {
    FakeClock clock;
    std::mutex mutex;
    std::condition_variable condition;
    bool result = true;
    const auto took = Move(clock, 60s, [&] {
        std::unique_lock<std::mutex> lock(mutex);
        result = condition.wait_until(lock, system_clock::now() + 60s, [] { return false; });
    });
    EXPECT_FALSE(result);
    EXPECT_LT(took, 30s);
}

TEST(FakeClock, LeavesWaitsAloneWhoseTimeHasNotCome) {
    FakeClock clock(FakeClock::Mode::Frozen);
    std::mutex mutex;
    std::condition_variable condition;
    std::cv_status status = std::cv_status::no_timeout;
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lock(mutex);
        status = condition.wait_for(lock, 60s);
    });
    ASSERT_TRUE(clock.WaitUntilWaiting(1, 60s));
    clock.Advance(60s - 1ns);
    EXPECT_EQ(clock.Waiting(), 1U);
    EXPECT_EQ(clock.Waiting(1s), 0U);
    clock.Advance(1ns);
    waiter.join();
    EXPECT_EQ(status, std::cv_status::timeout);
    EXPECT_EQ(clock.Waiting(), 0U);
}

TEST(FakeClock, NotifiedWaitsEndAsEver) {
    FakeClock clock(FakeClock::Mode::Frozen);
    std::mutex mutex;
    std::condition_variable condition;
    bool ready = false;
    bool result = false;
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lock(mutex);
        result = condition.wait_for(lock, 60s, [&] { return ready; });
    });
    ASSERT_TRUE(clock.WaitUntilWaiting(1));
    {
        std::lock_guard<std::mutex> lock(mutex);
        ready = true;
    }
    condition.notify_one();
    waiter.join();
    EXPECT_TRUE(result);
}

TEST(FakeClock, WaitsThatAreDueEndWithoutWaiting) {
    FakeClock clock(FakeClock::Mode::Frozen);
    std::mutex mutex;
    std::condition_variable condition;
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_EQ(condition.wait_for(lock, 0s), std::cv_status::timeout);
    const auto deadline = steady_clock::now() + 1h;
    clock.Advance(2h);
    EXPECT_EQ(condition.wait_until(lock, deadline), std::cv_status::timeout);
}

TEST(FakeClock, EndsSemaphoreWaits) {
    FakeClock clock;
    sem_t semaphore;
    ASSERT_EQ(sem_init(&semaphore, 0, 0), 0);
    int result = 0;
    int error = 0;
    for (const clockid_t which : {CLOCK_MONOTONIC, CLOCK_REALTIME}) {
        const auto took = Move(clock, 60s, [&] {
            timespec until{};
            clock_gettime(which, &until);
            until.tv_sec += 60;
            result = sem_clockwait(&semaphore, which, &until);
            error = errno;
        });
        EXPECT_EQ(result, -1);
        EXPECT_EQ(error, ETIMEDOUT);
        EXPECT_LT(took, 30s);
    }
    sem_destroy(&semaphore);
}

TEST(FakeClock, PostedSemaphoresEndTheirWait) {
    FakeClock clock(FakeClock::Mode::Frozen);
    sem_t semaphore;
    ASSERT_EQ(sem_init(&semaphore, 0, 0), 0);
    int result = -1;
    std::thread waiter([&] {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 60;
        result = sem_timedwait(&semaphore, &until);
    });
    ASSERT_TRUE(clock.WaitUntilWaiting(1));
    sem_post(&semaphore);
    waiter.join();
    EXPECT_EQ(result, 0);
    sem_destroy(&semaphore);
}

TEST(FakeClock, EndsTimedMutexWaits) {
    FakeClock clock;
    std::timed_mutex mutex;
    mutex.lock();
    bool got = true;
    const auto took = Move(clock, 60s, [&] { got = mutex.try_lock_for(60s); });
    EXPECT_FALSE(got);
    EXPECT_LT(took, 30s);
    mutex.unlock();
    EXPECT_TRUE(mutex.try_lock_for(60s));
    mutex.unlock();
}

TEST(FakeClock, SleepsMoveTheClockWhenTold) {
    FakeClock clock(FakeClock::Mode::Frozen);
    clock.SleepsAdvanceTheClock();
    const auto before = steady_clock::now();
    std::this_thread::sleep_for(1h);
    EXPECT_EQ(steady_clock::now() - before, 1h);
    std::this_thread::sleep_until(steady_clock::now() + 1h);
    EXPECT_EQ(steady_clock::now() - before, 2h);
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += 3600;
    EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr), 0);
    EXPECT_EQ(steady_clock::now() - before, 3h);
}

TEST(FakeClock, ManyWaitsEndTogether) {
    FakeClock clock(FakeClock::Mode::Frozen);
    std::mutex mutex;
    std::condition_variable condition;
    constexpr unsigned count = 8;
    unsigned timedOut = 0;
    std::vector<std::thread> waiters;
    for (unsigned i = 0; i < count; ++i) {
        waiters.emplace_back([&] {
            std::unique_lock<std::mutex> lock(mutex);
            timedOut += condition.wait_for(lock, 60s, [] { return false; }) ? 0U : 1U;
        });
    }
    ASSERT_TRUE(clock.WaitUntilWaiting(count));
    clock.Advance(60s);
    for (std::thread &waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(timedOut, count);
}

TEST(FakeClock, ItsEndWakesWaitersToLookAtTheRealClock) {
    std::mutex mutex;
    std::condition_variable condition;
    std::cv_status status = std::cv_status::timeout;
    std::thread waiter;
    {
        FakeClock clock(FakeClock::Mode::Frozen);
        waiter = std::thread([&] {
            std::unique_lock<std::mutex> lock(mutex);
            condition.wait_for(lock, 1h);
        });
        ASSERT_TRUE(clock.WaitUntilWaiting(1));
    }
    waiter.join();
    static_cast<void>(status);
}

} // namespace
} // namespace tarvo_test
