// The slot layer of the pool and its states, without any worker.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "unit/worker/WorkerTestKit.h"
#include "worker/WorkerPool.h"
#include "worker/WorkerPoolState.h"

using namespace tarvo_test;
using namespace worker_test;

namespace {

constexpr unsigned ALL_SLOTS = NORMAL_SLOTS + URGENT_SLOTS;

class SlotTest : public LeakCheckedTest {};

TEST_F(SlotTest, TheLowestFreeSlotIsHandedOut) {
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    for (int slot = 0; slot < 200; ++slot) {
        ASSERT_EQ(pool.GetFreeSlot(NORMAL_SLOTS), slot);
    }
    for (const unsigned slot : {130U, 64U, 63U, 5U}) {
        pool.FreeWorkerSlot(slot);
    }
    for (const int slot : {5, 63, 64, 130, 200}) {
        EXPECT_EQ(pool.GetFreeSlot(NORMAL_SLOTS), slot);
    }
    EXPECT_EQ(pool.NumWorkers(), 0U);
}

TEST_F(SlotTest, UrgentSlotsLieBehindAllNormalOnesAndNothingLiesBehindThem) {
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    for (int slot = 0; slot < static_cast<int>(NORMAL_SLOTS); ++slot) {
        ASSERT_EQ(pool.GetFreeSlot(NORMAL_SLOTS), slot);
    }
    EXPECT_EQ(pool.GetFreeSlot(NORMAL_SLOTS), -ENOSPC);
    for (int slot = NORMAL_SLOTS; slot < static_cast<int>(ALL_SLOTS); ++slot) {
        ASSERT_EQ(pool.GetFreeSlot(ALL_SLOTS), slot);
    }
    // The bits above the last slot are set and stay so.
    for (int round = 0; round < 100; ++round) {
        EXPECT_EQ(pool.GetFreeSlot(ALL_SLOTS), -ENOSPC);
        EXPECT_EQ(pool.GetFreeSlot(ALL_SLOTS + 500), -ENOSPC);
    }
    pool.FreeWorkerSlot(1040);
    EXPECT_EQ(pool.GetFreeSlot(NORMAL_SLOTS), -ENOSPC);
    EXPECT_EQ(pool.GetFreeSlot(ALL_SLOTS), 1040);
    EXPECT_TRUE(HasAllocated(pool));
    for (unsigned slot = 0; slot < ALL_SLOTS; ++slot) {
        pool.FreeWorkerSlot(slot);
    }
    EXPECT_FALSE(HasAllocated(pool));
}

TEST_F(SlotTest, AnUrgentRequestTakesANormalSlotWhileThereIsOne) {
    WorkerPool pool(2, 1);
    EXPECT_EQ(pool.GetFreeSlot(3), 0);
    EXPECT_EQ(pool.GetFreeSlot(2), 1);
    EXPECT_EQ(pool.GetFreeSlot(2), -ENOSPC);
    EXPECT_EQ(pool.GetFreeSlot(3), 2);
    EXPECT_EQ(pool.GetFreeSlot(3), -ENOSPC);
}

TEST_F(SlotTest, EachReleaseIsPostedOnceAndNoneWhileIdle) {
    WorkerPool pool(4, 0);
    const CallCounter posts(Call::SemPost);
    pool.FreeWorkerSlot(0); // idle: ignored
    EXPECT_EQ(posts.Count(), 0U);
    ASSERT_EQ(pool.GetFreeSlot(4), 0);
    ASSERT_EQ(pool.GetFreeSlot(4), 1);
    pool.FreeWorkerSlot(0);
    EXPECT_EQ(posts.Count(), 1U);
    pool.FreeWorkerSlot(0); // working: counted, even though nobody had it
    EXPECT_EQ(posts.Count(), 2U);
    pool.FreeWorkerSlot(1); // the last: idle again
    EXPECT_EQ(posts.Count(), 3U);
    pool.FreeWorkerSlot(1);
    EXPECT_EQ(posts.Count(), 3U);
    EXPECT_EQ(pool.GetFreeSlot(4), 0); // and working again
    pool.FreeWorkerSlot(0);
    EXPECT_EQ(posts.Count(), 4U);
}

TEST_F(SlotTest, AFailedRequestMakesThePoolWorkingToo) {
    WorkerPool pool(4, 0);
    EXPECT_EQ(pool.GetFreeSlot(0), -ENOSPC);
    const CallCounter posts(Call::SemPost);
    pool.FreeWorkerSlot(2);
    EXPECT_EQ(posts.Count(), 1U); // not ignored, as it would be while idle
}

TEST_F(SlotTest, AnInterruptedPostIsRepeated) {
    WorkerPool pool(1, 0);
    ASSERT_EQ(pool.GetFreeSlot(1), 0);
    const CallCounter posts(Call::SemPost);
    const ScopedFault interrupted(Call::SemPost, EINTR, Where().Times(2));
    pool.FreeWorkerSlot(0);
    EXPECT_EQ(posts.Count(), 3U);
    EXPECT_EQ(pool.WaitForFreeWorker(), 0);
}

TEST_F(SlotTest, AfterDestroyThereIsNoSlot) {
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    ASSERT_EQ(pool.GetFreeSlot(NORMAL_SLOTS), 0);
    pool.FreeWorkerSlot(0);
    pool.Destroy();
    EXPECT_EQ(pool.GetFreeSlot(NORMAL_SLOTS), -EACCES);
    EXPECT_EQ(pool.GetFreeSlot(ALL_SLOTS), -EACCES);
    EXPECT_EQ(pool.PickupWorker(NORMAL_SLOTS), -EACCES);
    EXPECT_EQ(pool.AllocWorker("1"), -EACCES);
    EXPECT_EQ(pool.TryGetNamedWorker("1"), nullptr);
}

TEST_F(SlotTest, EveryStateIsOneObject) {
    EXPECT_EQ(PoolIdleState::Instance(), PoolIdleState::Instance());
    const std::set<const WorkerPoolState *> states = {PoolIdleState::Instance(), PoolWorkingState::Instance(),
                                                      PoolStoppingState::Instance()};
    EXPECT_EQ(states.size(), 3U);
}

} // namespace
