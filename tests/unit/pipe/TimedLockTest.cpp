// A lock within a time budget.
#include "pipe/TimedLock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include "support/FakeClock.h"
#include "support/Faults.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

using std::chrono::milliseconds;

// The mutex, held by another thread until Release().
class HeldMutex {
public:
    HeldMutex() {
        std::promise<void> held;
        holder = std::thread([this, &held] {
            mutex.lock();
            held.set_value();
            released.get_future().wait();
            mutex.unlock();
        });
        held.get_future().wait();
    }
    ~HeldMutex() { Release(); }

    void Release() {
        if (holder.joinable()) {
            released.set_value();
            holder.join();
        }
    }

    std::timed_mutex mutex;

private:
    std::promise<void> released;
    std::thread holder;
};

bool IsFree(std::timed_mutex &mutex) {
    bool free = false;
    std::thread([&] {
        free = mutex.try_lock();
        if (free) {
            mutex.unlock();
        }
    }).join();
    return free;
}

// Locks and gives back on a thread of its own; yields the result and the time that was left then.
std::future<std::pair<int, int>> LockElsewhere(std::timed_mutex &mutex, int timeout) {
    return InBackground([&mutex, timeout] {
        TimedLock lock(mutex, timeout);
        const int ret = lock.Lock();
        return std::make_pair(ret, lock.GetRemainingTime());
    });
}

TEST(TimedLockTest, HoldsAFreeMutexUntilItsEnd) {
    std::timed_mutex mutex;
    for (const int timeout : {-1, 0, 100}) {
        {
            TimedLock lock(mutex, timeout);
            EXPECT_TRUE(IsFree(mutex));
            EXPECT_EQ(lock.Lock(), 0);
            EXPECT_FALSE(IsFree(mutex));
        }
        EXPECT_TRUE(IsFree(mutex));
    }
}

TEST(TimedLockTest, RemainingTimeIsTheTimeoutAtFirst) {
    std::timed_mutex mutex;
    EXPECT_EQ(TimedLock(mutex, 100).GetRemainingTime(), 100);
    EXPECT_EQ(TimedLock(mutex, 0).GetRemainingTime(), 0);
    EXPECT_EQ(TimedLock(mutex, -7).GetRemainingTime(), -7);
    const FakeClock clock(FakeClock::Mode::Frozen);
    TimedLock lock(mutex, 100);
    EXPECT_EQ(lock.Lock(), 0);
    EXPECT_EQ(lock.GetRemainingTime(), 100);
}

TEST(TimedLockTest, MutexGotAfterThirtyOfAHundredLeavesSeventy) {
    FakeClock clock(FakeClock::Mode::Frozen);
    HeldMutex held;
    auto result = LockElsewhere(held.mutex, 100);
    ASSERT_TRUE(clock.WaitUntilWaiting(1));
    clock.Advance(milliseconds(30));
    held.Release();
    EXPECT_EQ(result.get(), std::make_pair(0, 70));
}

TEST(TimedLockTest, StartedMillisecondsDoNotCount) {
    FakeClock clock(FakeClock::Mode::Frozen);
    HeldMutex held;
    auto result = LockElsewhere(held.mutex, 100);
    ASSERT_TRUE(clock.WaitUntilWaiting(1));
    clock.Advance(std::chrono::microseconds(30999));
    held.Release();
    EXPECT_EQ(result.get(), std::make_pair(0, 70));
}

TEST(TimedLockTest, HeldMutexTimesOut) {
    FakeClock clock(FakeClock::Mode::Frozen);
    HeldMutex held;
    auto result = LockElsewhere(held.mutex, 100);
    ASSERT_TRUE(clock.WaitUntilWaiting(1, milliseconds(100)));
    clock.Advance(milliseconds(99));
    EXPECT_TRUE(clock.WaitUntilWaiting(1));
    clock.Advance(milliseconds(1));
    EXPECT_EQ(result.get(), std::make_pair(-ETIMEDOUT, 100));
    // The lock that was not got is not given back either.
    EXPECT_FALSE(IsFree(held.mutex));
}

TEST(TimedLockTest, ZeroDoesNotWait) {
    HeldMutex held;
    TimedLock lock(held.mutex, 0);
    EXPECT_EQ(lock.Lock(), -ETIMEDOUT);
    EXPECT_EQ(lock.GetRemainingTime(), 0);
    held.Release();
    EXPECT_EQ(lock.Lock(), 0);
    EXPECT_EQ(lock.GetRemainingTime(), 0);
}

TEST(TimedLockTest, NegativeWaitsWithoutLimit) {
    FakeClock clock;
    HeldMutex held;
    auto result = LockElsewhere(held.mutex, -5);
    clock.Advance(std::chrono::hours(1000));
    EXPECT_EQ(result.wait_for(milliseconds(0)), std::future_status::timeout);
    EXPECT_EQ(clock.Waiting(), 0U);
    held.Release();
    EXPECT_EQ(result.get(), std::make_pair(0, -5));
}

TEST(TimedLockTest, RemainingTimeIsNeverNegative) {
    FakeClock clock(FakeClock::Mode::Frozen);
    std::timed_mutex mutex;
    TimedLock lock(mutex, 100);
    // Between the lock and the look at the clock, this thread has to wait for the processor.
    const ScopedHook delay(
        Call::ClockGettime, [&](const CallInfo &) { clock.Advance(milliseconds(150)); }, Where().Nth(2).ThisThread());
    EXPECT_EQ(lock.Lock(), 0);
    EXPECT_EQ(delay.Hits(), 1U);
    EXPECT_EQ(lock.GetRemainingTime(), 0);
}

} // namespace
} // namespace tarvo_test
