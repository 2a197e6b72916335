// Names and the creation of workers.
#include "worker/WorkerPool.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "WorkerTestKit.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/SyslogCapture.h"

using namespace tarvo_test;
using namespace worker_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class WorkerPoolTest : public LeakCheckedTest {
protected:
    void TearDown() override { released.Open(); }

    // Keeps `worker` busy until the test ends or opens the gate.
    void Occupy(Worker &worker) {
        Gate occupied;
        ASSERT_EQ(Assign(worker,
                         [&] {
                             occupied.Open();
                             released.Wait();
                         }),
                  0);
        occupied.Wait();
    }

    Gate released;
    Journal journal;
};

TEST_F(WorkerPoolTest, WorkersComeWithTheirSlots) {
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    const CallCounter threads(Call::PthreadCreate);
    for (int slot = 0; slot < 5; ++slot) {
        ASSERT_EQ(pool.GetFreeSlot(NORMAL_SLOTS), slot);
    }
    EXPECT_EQ(pool.NumWorkers(), 0U);
    EXPECT_EQ(threads.Count(), 0U);
    EXPECT_EQ(pool.PickupWorker(NORMAL_SLOTS), 5);
    EXPECT_EQ(pool.NumWorkers(), 6U);
    EXPECT_EQ(threads.Count(), 6U);
    pool.FreeWorkerSlot(2);
    EXPECT_EQ(pool.PickupWorker(NORMAL_SLOTS), 2); // exists already
    EXPECT_EQ(pool.NumWorkers(), 6U);
    EXPECT_EQ(threads.Count(), 6U);
}

TEST_F(WorkerPoolTest, FillWorkersToKeepsToTheMaximum) {
    const SyslogCapture log;
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    pool.FillWorkersTo(1045);
    EXPECT_EQ(pool.NumWorkers(), 0U);
    pool.FillWorkersTo(3);
    EXPECT_EQ(pool.NumWorkers(), 3U);
    pool.FillWorkersTo(1045);
    pool.FillWorkersTo(2);
    pool.FillWorkersTo(3);
    EXPECT_EQ(pool.NumWorkers(), 3U);
    EXPECT_THAT(log.Messages(), ElementsAre("Extended size 1045(total new size 1045) exceeds max workers 1044",
                                            "Extended size 1042(total new size 1045) exceeds max workers 1044"));
    EXPECT_EQ(log.Count(LOG_ERR, "Extended size"), 2U);
}

TEST_F(WorkerPoolTest, SeveralThreadsFillOnlyWhatIsMissing) {
    WorkerPool pool(64, 0);
    for (int size = 8; size <= 64; size += 8) {
        ScopedThread first([&] { pool.FillWorkersTo(size); });
        ScopedThread second([&] { pool.FillWorkersTo(size - 3); });
        pool.FillWorkersTo(size);
        EXPECT_EQ(pool.NumWorkers(), static_cast<std::size_t>(size));
    }
}

TEST_F(WorkerPoolTest, AWorkerWhoseThreadCannotStartIsThereAllTheSame) {
    WorkerPool pool(2, 0);
    Worker *worker = nullptr;
    {
        const ScopedFault refused(Call::PthreadCreate, EAGAIN);
        worker = pool.GetWorker();
        EXPECT_EQ(refused.Hits(), 1U);
    }
    ASSERT_NE(worker, nullptr);
    EXPECT_EQ(pool.NumWorkers(), 1U);
    RunOn(*worker, [&] { journal.Note(1); });
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
}

TEST_F(WorkerPoolTest, ANameKeepsItsWorkerUntilItIsFreed) {
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    EXPECT_EQ(pool.WorkerOf("a"), nullptr);
    ASSERT_EQ(pool.AllocWorker("a"), 0);
    ASSERT_EQ(pool.AllocWorker("b"), 0);
    Worker *a = pool.WorkerOf("a");
    Worker *b = pool.WorkerOf("b");
    ASSERT_NE(a, nullptr);
    EXPECT_NE(a, b);
    EXPECT_EQ(pool.WorkerOf("a"), a);
    EXPECT_EQ(pool.FreeWorker("a"), 0);
    EXPECT_EQ(pool.WorkerOf("a"), nullptr);
    EXPECT_EQ(pool.WorkerOf("b"), b);
    ASSERT_EQ(pool.AllocWorker("c"), 0);
    EXPECT_EQ(pool.WorkerOf("c"), a); // the slot, and with it the worker, is used again
    EXPECT_EQ(pool.NumWorkers(), 2U);
}

TEST_F(WorkerPoolTest, AnExistingNameIsNotReplaced) {
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    ASSERT_EQ(pool.AllocWorker("a"), 0);
    Worker *first = pool.WorkerOf("a");
    EXPECT_EQ(pool.AllocWorker("a"), 0);
    EXPECT_EQ(pool.WorkerOf("a"), first);
    EXPECT_EQ(pool.NumWorkers(), 2U);
    Worker *third = pool.TryGetNamedWorker("a");
    EXPECT_NE(third, nullptr);
    EXPECT_NE(third, first);
    EXPECT_EQ(pool.WorkerOf("a"), first);
}

TEST_F(WorkerPoolTest, WithoutAFreeSlotANameIsRefused) {
    WorkerPool pool(1, 1);
    ASSERT_EQ(pool.AllocWorker("a"), 0);
    const UnrestrainedYet fresh;
    const SyslogCapture log;
    EXPECT_EQ(pool.AllocWorker("b"), -ENOSPC); // the urgent slot is not for names
    EXPECT_EQ(pool.TryGetNamedWorker("b"), nullptr);
    EXPECT_EQ(pool.WorkerOf("b"), nullptr);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Find free slot failed: err = -28"), 1U); // restrained
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Pickup worker failed: -28"), 2U);
    EXPECT_EQ(log.Lines().size(), 3U);
    EXPECT_EQ(pool.FreeWorker("a"), 0);
    EXPECT_NE(pool.TryGetNamedWorker("b"), nullptr);
    EXPECT_NE(pool.WorkerOf("b"), nullptr);
}

TEST_F(WorkerPoolTest, FreeingAnUnknownNameIsNoFault) {
    const SyslogCapture log;
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    EXPECT_EQ(pool.FreeWorker("nobody"), 0);
    EXPECT_THAT(log.Messages(), IsEmpty()); // reported at a level that is not written
}

TEST_F(WorkerPoolTest, FreeingANameDropsItsQueueAndNotTheTaskThatRuns) {
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    Worker *worker = pool.TryGetNamedWorker("a");
    ASSERT_NE(worker, nullptr);
    Occupy(*worker);
    bool dropped = false;
    ASSERT_EQ(Assign(*worker, [token = std::make_shared<OnDestruction>([&] { dropped = true; })] {}), 0);
    ASSERT_EQ(Assign(*worker, [&] { journal.Note(1); }), 0);
    EXPECT_EQ(pool.FreeWorker("a"), 0);
    EXPECT_TRUE(dropped);
    EXPECT_TRUE(worker->IsWorking());
    ASSERT_EQ(pool.TryGetNamedWorker("b"), worker); // still busy, yet free to be allocated
    ASSERT_EQ(Assign(*worker, [&] { journal.Note(2); }), 0);
    released.Open();
    RunOn(*worker, [] {});
    EXPECT_THAT(journal.Entries(), ElementsAre(2));
}

// What the slot is used for next runs behind the task that gave it back, on the same thread.
TEST_F(WorkerPoolTest, ATaskMayFreeItsOwnName) {
    WorkerPool pool(1, 0);
    Worker *worker = pool.TryGetNamedWorker("a");
    ASSERT_NE(worker, nullptr);
    Gate freed;
    ASSERT_EQ(Assign(*worker,
                     [&] {
                         pool.FreeWorker("a");
                         freed.Open();
                         released.Wait();
                         journal.Note(1);
                     }),
              0);
    freed.Wait();
    ASSERT_EQ(pool.TryGetNamedWorker("b"), worker);
    ASSERT_EQ(Assign(*worker, [&] { journal.Note(2); }), 0);
    released.Open();
    RunOn(*worker, [] {});
    EXPECT_THAT(journal.Entries(), ElementsAre(1, 2));
}

TEST_F(WorkerPoolTest, FreeingAWorkerForgetsItsNameAndKeepsItsQueue) {
    WorkerPool pool(2, 0);
    Worker *worker = pool.TryGetNamedWorker("a");
    ASSERT_NE(worker, nullptr);
    ASSERT_NE(pool.TryGetNamedWorker("b"), nullptr);
    Occupy(*worker);
    ASSERT_EQ(Assign(*worker, [&] { journal.Note(1); }), 0);
    EXPECT_EQ(pool.FreeWorker(*worker), 0);
    EXPECT_EQ(pool.WorkerOf("a"), nullptr);
    EXPECT_NE(pool.WorkerOf("b"), nullptr);
    EXPECT_EQ(worker->WaitingTasks(), 1U);
    EXPECT_EQ(pool.GetFreeSlot(2), 0);
    released.Open();
    RunOn(*worker, [] {});
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
}

TEST_F(WorkerPoolTest, FreeingAForeignWorkerDoesNothing) {
    WorkerPool pool(2, 0);
    ASSERT_NE(pool.GetWorker(), nullptr);
    Worker stranger("0");
    const CallCounter posts(Call::SemPost);
    EXPECT_EQ(pool.FreeWorker(stranger), 0);
    EXPECT_EQ(posts.Count(), 0U);
    EXPECT_TRUE(HasAllocated(pool));
}

TEST_F(WorkerPoolTest, BusyWorkersAreToldAndIdleOnesGivenBack) {
    WorkerPool pool(3, 0);
    Worker *busy = pool.GetWorker();
    ASSERT_NE(pool.GetWorker(), nullptr);
    ASSERT_NE(pool.GetWorker(), nullptr);
    Occupy(*busy);
    EXPECT_TRUE(pool.HasBusyWorker());
    EXPECT_EQ(pool.GetFreeSlot(3), 1);
    EXPECT_EQ(pool.GetFreeSlot(3), 2);
    EXPECT_EQ(pool.GetFreeSlot(3), -ENOSPC); // slot 0 is still allocated
    released.Open();
}

TEST_F(WorkerPoolTest, CountsTheWorkersThatWereAskedToBeUrgent) {
    const ScopedFault refused(Call::PthreadSetschedparam, EPERM, Where().Always());
    WorkerPool pool(NORMAL_SLOTS, URGENT_SLOTS);
    Worker *first = pool.GetWorker();
    Worker *second = pool.GetUrgentWorker();
    EXPECT_EQ(pool.NumWorkers(), 2U);
    EXPECT_EQ(pool.NumUrgentWorkers(), 0U);
    EXPECT_EQ(second->SetRTType(TARVO_PRIORITY_URGENT), 0);
    EXPECT_EQ(pool.NumUrgentWorkers(), 1U); // also where the system refuses
    EXPECT_EQ(first->SetRTType(TARVO_PRIORITY_URGENT), 0);
    EXPECT_EQ(second->SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(pool.NumUrgentWorkers(), 1U);
}

} // namespace
