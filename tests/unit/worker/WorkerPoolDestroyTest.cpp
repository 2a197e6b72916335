// The end of the pool.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "WorkerTestKit.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/SyslogCapture.h"
#include "worker/WorkerPool.h"

using namespace tarvo_test;
using namespace worker_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int QUEUED = 10;

class WorkerPoolDestroyTest : public LeakCheckedTest {
protected:
    void TearDown() override { released.Open(); }

    // Keeps `worker` busy until `released` opens, then runs `last`.
    void Occupy(
        Worker &worker, const std::function<void()> &last = [] {}) {
        Gate occupied;
        ASSERT_EQ(Assign(worker,
                         [&, last] {
                             occupied.Open();
                             released.Wait();
                             last();
                             ++finished;
                         }),
                  0);
        occupied.Wait();
    }

    void Queue(Worker &worker) {
        for (int i = 0; i < QUEUED; ++i) {
            const auto token = std::make_shared<OnDestruction>([this] { ++gone; });
            ASSERT_EQ(Assign(worker, [this, token] { ++ran; }), 0);
        }
    }

    // Begins Destroy on another thread and returns once it has stopped the workers.
    void BeginDestroy() {
        destroyer = std::make_unique<ScopedThread>([this] {
            pool.Destroy();
            destroyed.Open();
        });
        while (pool.GetFreeSlot(0) != -EACCES) {
            sched_yield();
        }
    }

    // Ends the tasks that run and waits for Destroy.
    void LetDestroyEnd() {
        released.Open();
        destroyed.Wait();
    }

    void ExpectNoThreadLeft() {
        if (destroyer) {
            destroyer->Join();
        }
        EXPECT_EQ(pool.NumWorkers(), 0U);
        ExpectThreadsAsBefore();
    }
    // A joined thread leaves the kernel's list a moment later.
    void ExpectThreadsAsBefore() {
        EXPECT_TRUE(Eventually([this] { return ThreadCount() == threadsBefore; }));
    }

    const std::size_t threadsBefore = ThreadCount();
    Gate released;
    Gate destroyed;
    std::atomic<int> finished{0};
    std::atomic<int> ran{0};
    std::atomic<int> gone{0};
    WorkerPool pool{1024, 20};
    std::unique_ptr<ScopedThread> destroyer;
};

TEST_F(WorkerPoolDestroyTest, AnUnusedPoolEndsAtOnce) {
    pool.Destroy();
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, APoolWithNothingAllocatedEndsAtOnce) {
    Worker *worker = pool.GetWorker();
    RunOn(*worker, [] {});
    pool.FillWorkersTo(5);
    EXPECT_EQ(pool.FreeWorker(*worker), 0);
    pool.Destroy();
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, IdleAllocatedWorkersAreNotWaitedFor) {
    ASSERT_NE(pool.GetWorker(), nullptr);       // as after a submission that failed
    ASSERT_NE(pool.GetUrgentWorker(), nullptr); //
    ASSERT_EQ(pool.AllocWorker("a"), 0);
    pool.Destroy();
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, ABusyAnonymousWorkerIsWaitedFor) {
    Worker *worker = pool.GetWorker();
    Occupy(*worker, [&] { pool.FreeWorker(*worker); });
    const CallCounter joins(Call::PthreadJoin);
    BeginDestroy();
    ASSERT_TRUE(joins.WaitFor(1)); // Destroy waits for the thread
    EXPECT_FALSE(destroyed.IsOpen());
    EXPECT_EQ(pool.NumWorkers(), 1U);
    LetDestroyEnd();
    EXPECT_EQ(finished, 1);
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, EveryBusyAnonymousWorkerIsWaitedFor) {
    constexpr int workers = 8;
    for (int i = 0; i < workers; ++i) {
        Worker *worker = pool.GetWorker();
        Occupy(*worker, [this, worker] { pool.FreeWorker(*worker); });
    }
    const CallCounter joins(Call::PthreadJoin);
    BeginDestroy();
    ASSERT_TRUE(joins.WaitFor(1));
    EXPECT_FALSE(destroyed.IsOpen());
    LetDestroyEnd();
    EXPECT_EQ(finished, workers);
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, TheQueuesOfNamedWorkersAreDroppedAndTheirRunningTasksFinish) {
    for (const char *name : {"a", "b", "c"}) {
        Worker *worker = pool.TryGetNamedWorker(name);
        Occupy(*worker);
        Queue(*worker);
    }
    const CallCounter joins(Call::PthreadJoin);
    BeginDestroy();
    ASSERT_TRUE(joins.WaitFor(1));
    EXPECT_FALSE(destroyed.IsOpen());
    EXPECT_EQ(gone, 3 * QUEUED) << "what is dropped waits for no task that runs";
    LetDestroyEnd();
    EXPECT_EQ(finished, 3);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(gone, 3 * QUEUED);
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, ATaskQueuedBehindAnotherOnAnAnonymousWorkerIsDropped) {
    Worker *worker = pool.TryGetNamedWorker("a");
    Occupy(*worker);
    ASSERT_EQ(pool.FreeWorker("a"), 0);
    ASSERT_EQ(pool.GetWorker(), worker); // behind the task of the former name
    Queue(*worker);
    BeginDestroy();
    LetDestroyEnd();
    EXPECT_EQ(finished, 1);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(gone, QUEUED);
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, NamedAndAnonymousWorkersEndTogether) {
    Worker *anonymous = pool.GetWorker();
    Worker *named = pool.TryGetNamedWorker("a");
    ASSERT_NE(pool.GetWorker(), nullptr);
    Occupy(*anonymous, [&] { pool.FreeWorker(*anonymous); });
    Occupy(*named);
    Queue(*named);
    BeginDestroy();
    LetDestroyEnd();
    EXPECT_EQ(finished, 2);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(gone, QUEUED);
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, AllNamesAreForgotten) {
    ASSERT_EQ(pool.AllocWorker("a"), 0);
    pool.Destroy();
    EXPECT_EQ(pool.WorkerOf("a"), nullptr);
    EXPECT_EQ(pool.FreeWorker("a"), 0);
    EXPECT_EQ(pool.NumUrgentWorkers(), 0U);
    EXPECT_FALSE(pool.HasBusyWorker());
}

TEST_F(WorkerPoolDestroyTest, SeveralCallersAllWaitForTheEnd) {
    Worker *worker = pool.GetWorker();
    Occupy(*worker, [&] { pool.FreeWorker(*worker); });
    BeginDestroy();
    Tally returned;
    ScopedThread second([&] {
        pool.Destroy();
        EXPECT_EQ(finished, 1);
        returned.Add();
    });
    ScopedThread third([&] {
        pool.Destroy();
        EXPECT_EQ(finished, 1);
        returned.Add();
    });
    EXPECT_EQ(returned.Count(), 0);
    released.Open();
    returned.WaitFor(2);
    destroyed.Wait();
    pool.Destroy();
    EXPECT_EQ(pool.NumWorkers(), 0U);
}

// Neither a dropped task nor one that still runs meets a lock of the pool, whatever it asks for.
TEST_F(WorkerPoolDestroyTest, DroppedTasksMayComeBackToThePool) {
    Worker *worker = pool.TryGetNamedWorker("a");
    Occupy(*worker);
    ASSERT_EQ(Assign(*worker, [token = std::make_shared<OnDestruction>([&] {
                                   pool.NumWorkers();
                                   pool.FreeWorker("a");
                                   EXPECT_EQ(pool.AllocWorker("b"), -EACCES);
                                   ++gone;
                               })] {}),
              0);
    BeginDestroy();
    LetDestroyEnd();
    EXPECT_EQ(gone, 1);
}

TEST_F(WorkerPoolDestroyTest, ARunningTaskMayComeBackToThePool) {
    Worker *worker = pool.TryGetNamedWorker("a");
    Occupy(*worker, [&] {
        pool.NumWorkers();
        pool.FreeWorker("a");
        pool.FreeWorker(*worker);
        EXPECT_EQ(pool.AllocWorker("b"), -EACCES);
    });
    BeginDestroy();
    LetDestroyEnd();
    EXPECT_EQ(finished, 1);
}

// A submitter that was handed a worker just before finds it refusing, not gone.
TEST_F(WorkerPoolDestroyTest, AWorkerInHandRefusesTasksAfterwards) {
    Worker *anonymous = pool.GetWorker();
    Worker *named = pool.TryGetNamedWorker("a");
    pool.Destroy();
    for (Worker *worker : {anonymous, named}) {
        EXPECT_EQ(worker->SetRTType(TARVO_PRIORITY_URGENT), -1);
        EXPECT_EQ(Assign(*worker, [&] { ++ran; }), -1);
        EXPECT_EQ(pool.FreeWorker(*worker), 0);
    }
    EXPECT_EQ(ran, 0);
    ExpectThreadsAsBefore();
}

TEST_F(WorkerPoolDestroyTest, NoWorkerIsCreatedAfterwards) {
    pool.Destroy();
    pool.FillWorkersTo(3);
    ExpectNoThreadLeft();
}

TEST_F(WorkerPoolDestroyTest, AnInterruptedWaitIsRepeated) {
    Worker *worker = pool.GetWorker();
    Occupy(*worker, [&] { pool.FreeWorker(*worker); });
    const CallCounter waits(Call::SemWait);
    const CallCounter joins(Call::PthreadJoin);
    const ScopedFault interrupted(Call::SemWait, EINTR, Where().Times(3));
    BeginDestroy();
    ASSERT_TRUE(joins.WaitFor(1)); // the worker was found busy
    LetDestroyEnd();
    EXPECT_EQ(finished, 1);
    EXPECT_EQ(waits.Count(), 4U);
}

TEST_F(WorkerPoolDestroyTest, TheDestructorJoinsWhatIsLeft) {
    {
        WorkerPool left(4, 0);
        Worker *worker = left.GetWorker();
        ASSERT_NE(left.GetWorker(), nullptr);
        released.Open();
        Occupy(*worker, [&] { left.NumWorkers(); });
        Queue(*worker);
    }
    EXPECT_EQ(finished, 1);
    EXPECT_EQ(gone, QUEUED);
    ExpectThreadsAsBefore();
}

TEST_F(WorkerPoolDestroyTest, AnOrderlyEndIsNotLogged) {
    const SyslogCapture log;
    Worker *worker = pool.TryGetNamedWorker("a");
    RunOn(*worker, [] {});
    pool.Destroy();
    EXPECT_THAT(log.Messages(), IsEmpty());
}

} // namespace
