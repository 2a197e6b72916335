#include "base/ForkLock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/FakeClock.h"
#include "support/ThreadSanitizer.h"
#include "support/Threads.h"

namespace {

using tarvo_test::FakeClock;

// What the analysis cannot follow: a lock that one thread tries to take, and one that its holder never gives back.
bool TryAndLeave(Mutex &mutex) NO_THREAD_SAFETY_ANALYSIS {
    const bool free = mutex.try_lock();
    if (free) {
        mutex.unlock();
    }
    return free;
}

void TakeForGood(Mutex &mutex) NO_THREAD_SAFETY_ANALYSIS { mutex.lock(); }

// From another thread: a lock may not be tried by the one that has it.
bool IsFree(Mutex &mutex) {
    return tarvo_test::InBackground([&mutex] { return TryAndLeave(mutex); }).get();
}

TEST(ForkLock, IsHeldAcrossTheForkAndFreeAfterwardsOnBothSides) {
    Mutex mutex;
    ForkLock lock;
    lock.Take(mutex);
    EXPECT_FALSE(IsFree(mutex));
    lock.ReleaseInParent(mutex);
    EXPECT_TRUE(IsFree(mutex));
    lock.Take(mutex);
    lock.ReleaseInChild(mutex);
    EXPECT_TRUE(IsFree(mutex));
}

// What a signal handler's fork meets that has interrupted the holder.
TEST(ForkLock, ThatIsNotGotInTimeIsLeftToItsHolderAndNewInTheChild) {
    Mutex mutex;
    ForkLock lock;
    FakeClock clock;
    TakeForGood(mutex);
    std::thread forking([&] { lock.Take(mutex); });
    EXPECT_TRUE(clock.WaitUntilWaiting(1, std::chrono::seconds(1)));
    clock.Advance(std::chrono::seconds(5));
    forking.join();
    lock.ReleaseInParent(mutex);
    EXPECT_FALSE(IsFree(mutex)) << "its holder's";
#ifndef TARVO_THREAD_SANITIZER // takes the mutex that is made anew for the locked one, as it would not in a child
    lock.ReleaseInChild(mutex);
    EXPECT_TRUE(IsFree(mutex)) << "whose holder is not there";
#endif
}

TEST(MutexLock, CanBeLetGoOfAndTakenAgain) {
    Mutex mutex;
    MutexLock lock(mutex);
    EXPECT_FALSE(IsFree(mutex));
    lock.Unlock();
    EXPECT_TRUE(IsFree(mutex));
    lock.Lock();
    EXPECT_FALSE(IsFree(mutex));
}

} // namespace
