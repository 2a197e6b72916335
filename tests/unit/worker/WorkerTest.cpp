// Queueing, running and stopping.
#include "worker/Worker.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <numeric>

#include "WorkerFixture.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/SyslogCapture.h"

using namespace tarvo_test;
using namespace worker_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int CAPACITY = 1000;

TEST_F(WorkerTest, HasNoThreadBeforeStart) {
    const CallCounter threads(Call::PthreadCreate);
    Worker idle("8");
    EXPECT_EQ(threads.Count(), 0U);
    EXPECT_TRUE(idle.Start());
    EXPECT_EQ(threads.Count(), 1U);
}

TEST_F(WorkerTest, RunsTasksInOrderOneAtATime) {
    ASSERT_TRUE(worker.Start());
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(Assign(worker,
                         [&, i] {
                             most = std::max(most.load(), ++inside);
                             journal.Note(i);
                             --inside;
                         }),
                  0);
    }
    RunOn(worker, [] {});
    std::vector<int> expected(100);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(journal.Entries(), expected);
    EXPECT_EQ(most, 1);
}

TEST_F(WorkerTest, TasksQueuedBeforeStartRunAfterIt) {
    EXPECT_EQ(Assign(worker, [&] { journal.Note(1); }), 0);
    EXPECT_EQ(worker.WaitingTasks(), 1U);
    ASSERT_TRUE(worker.Start());
    RunOn(worker, [&] { journal.Note(2); });
    EXPECT_THAT(journal.Entries(), ElementsAre(1, 2));
}

TEST_F(WorkerTest, AssignTakesThePointerOnlyOnSuccess) {
    std::shared_ptr<const TarvoTask> task = MakeTask([] {});
    EXPECT_EQ(worker.Assign(task), 0);
    EXPECT_EQ(task, nullptr);
}

TEST_F(WorkerTest, TheThousandthTaskIsTakenAndTheNextRefused) {
    const UnrestrainedYet fresh;
    const SyslogCapture log;
    ASSERT_TRUE(worker.Start());
    Occupy();
    Tally ran;
    for (int i = 0; i < CAPACITY; ++i) {
        ASSERT_EQ(Assign(worker, [&] { ran.Add(); }), 0) << i;
    }
    EXPECT_THAT(log.Messages(), IsEmpty());
    std::shared_ptr<const TarvoTask> surplus = MakeTask([&] { ran.Add(); });
    EXPECT_EQ(worker.Assign(surplus), -EBUSY);
    EXPECT_EQ(worker.Assign(surplus), -EBUSY);
    EXPECT_NE(surplus, nullptr);
    EXPECT_EQ(worker.WaitingTasks(), static_cast<std::size_t>(CAPACITY));
    // Both refusals come from one call site and one thread: the line is restrained.
    EXPECT_EQ(log.CountExactly(LOG_WARNING, "Tasks exceeds worker's capacity(1000)"), 1U);
    EXPECT_EQ(log.Lines().size(), 1U);
    released.Open();
    ran.WaitFor(CAPACITY);
    RunOn(worker, [] {});
    EXPECT_EQ(ran.Count(), CAPACITY);
    EXPECT_EQ(worker.Assign(surplus), 0);
    ran.WaitFor(CAPACITY + 1);
}

TEST_F(WorkerTest, TellsWhetherATaskRuns) {
    EXPECT_FALSE(worker.IsWorking());
    ASSERT_TRUE(worker.Start());
    EXPECT_FALSE(worker.IsWorking());
    Occupy();
    EXPECT_TRUE(worker.IsWorking());
    EXPECT_EQ(worker.WaitingTasks(), 0U); // the one that runs does not wait
    released.Open();
    EXPECT_TRUE(Eventually([&] { return !worker.IsWorking(); }));
}

TEST_F(WorkerTest, StopDropsTheQueueAndLetsTheRunningTaskFinish) {
    ASSERT_TRUE(worker.Start());
    Occupy();
    std::atomic<int> dropped{0};
    for (int i = 0; i < 10; ++i) {
        const auto token = std::make_shared<OnDestruction>([&] { ++dropped; });
        ASSERT_EQ(Assign(worker, [&, token] { journal.Note(i); }), 0);
    }
    worker.Stop();
    EXPECT_EQ(dropped, 10);
    EXPECT_EQ(worker.WaitingTasks(), 0U);
    EXPECT_TRUE(worker.IsWorking());
    released.Open();
    worker.ThreadJoin();
    EXPECT_FALSE(worker.IsWorking());
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(WorkerTest, StopRoutineLetsTheQueueRunFirst) {
    ASSERT_TRUE(worker.Start());
    Occupy();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Assign(worker, [&, i] { journal.Note(i); }), 0);
    }
    worker.StopRoutine();
    released.Open();
    worker.ThreadJoin();
    EXPECT_THAT(journal.Entries(), ElementsAre(0, 1, 2));
}

TEST_F(WorkerTest, AStoppedThreadIsNotRestartedByATask) {
    ASSERT_TRUE(worker.Start());
    worker.Stop();
    worker.ThreadJoin();
    const CallCounter threads(Call::PthreadCreate);
    EXPECT_EQ(Assign(worker, [&] { journal.Note(1); }), 0);
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(worker.WaitingTasks(), 1U);
    EXPECT_EQ(threads.Count(), 0U);
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(WorkerTest, ClearDropsTheQueueAndTheThreadGoesOn) {
    ASSERT_TRUE(worker.Start());
    Occupy();
    ASSERT_EQ(Assign(worker, [&] { journal.Note(1); }), 0);
    worker.Clear();
    ASSERT_EQ(Assign(worker, [&] { journal.Note(2); }), 0);
    released.Open();
    RunOn(worker, [&] { journal.Note(3); });
    EXPECT_THAT(journal.Entries(), ElementsAre(2, 3));
}

TEST_F(WorkerTest, TheDestructorRunsWhatIsQueuedAndJoins) {
    {
        Worker leaving("8");
        ASSERT_TRUE(leaving.Start());
        Gate begun;
        ASSERT_EQ(Assign(leaving,
                         [&] {
                             begun.Open();
                             journal.Note(1);
                         }),
                  0);
        ASSERT_EQ(Assign(leaving, [&] { journal.Note(2); }), 0);
        begun.Wait();
    }
    EXPECT_THAT(journal.Entries(), ElementsAre(1, 2));
}

TEST_F(WorkerTest, TheDestructorReleasesWhatNeverRan) {
    bool dropped = false;
    {
        Worker neverStarted("8");
        const auto token = std::make_shared<OnDestruction>([&] { dropped = true; });
        ASSERT_EQ(Assign(neverStarted, [&, token] { journal.Note(1); }), 0);
    }
    EXPECT_TRUE(dropped);
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(WorkerTest, ARetiredWorkerRefusesTasks) {
    ASSERT_TRUE(worker.Start());
    worker.Retire();
    std::shared_ptr<const TarvoTask> task = MakeTask([&] { journal.Note(1); });
    EXPECT_EQ(worker.Assign(task), -1);
    EXPECT_NE(task, nullptr);
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), -1);
    EXPECT_FALSE(worker.IsWorking());
    EXPECT_EQ(worker.WaitingTasks(), 0U);
}

// A task is released with no lock held, so that what its callback held may come back to the worker when it goes.
TEST_F(WorkerTest, AFinishedTaskIsReleasedOutsideTheLocks) {
    ASSERT_TRUE(worker.Start());
    Gate gone;
    {
        auto token = std::make_shared<OnDestruction>([&] {
            journal.Note(static_cast<int>(worker.WaitingTasks()));
            EXPECT_FALSE(worker.IsWorking());
            EXPECT_EQ(Assign(worker, [&] { gone.Open(); }), 0);
        });
        ASSERT_EQ(Assign(worker, [token] {}), 0);
    }
    gone.Wait();
    EXPECT_THAT(journal.Entries(), ElementsAre(0));
}

TEST_F(WorkerTest, TasksThatAreDroppedWhileOthersAreBeingDroppedGoInTheirOrder) {
    ASSERT_TRUE(worker.Start());
    Occupy();
    {
        const auto last = std::make_shared<OnDestruction>([&] { journal.Note(2); });
        const auto late = std::make_shared<OnDestruction>([&] { journal.Note(3); });
        const auto first = std::make_shared<OnDestruction>([&, late] {
            EXPECT_EQ(Assign(worker, [late] {}), 0);
            worker.Clear();
            journal.Note(1);
        });
        ASSERT_EQ(Assign(worker, [first] {}), 0);
        ASSERT_EQ(Assign(worker, [last] {}), 0);
    }
    worker.Clear();
    EXPECT_EQ(worker.WaitingTasks(), 0U);
    released.Open();
    RunOn(worker, [] {});
    EXPECT_THAT(journal.Entries(), ElementsAre(2, 1, 3));
}

TEST_F(WorkerTest, ADroppedTaskIsReleasedOutsideTheLocks) {
    ASSERT_TRUE(worker.Start());
    Occupy();
    {
        auto token = std::make_shared<OnDestruction>([&] {
            worker.Clear();
            EXPECT_EQ(Assign(worker, [&] { journal.Note(1); }), 0);
        });
        ASSERT_EQ(Assign(worker, [token] {}), 0);
        ASSERT_EQ(Assign(worker, [&] { journal.Note(2); }), 0);
    }
    worker.Clear();
    released.Open();
    RunOn(worker, [&] { journal.Note(3); });
    EXPECT_THAT(journal.Entries(), ElementsAre(1, 3));
}

TEST_F(WorkerTest, AFinishedTaskIsReleasedBeforeTheNextBegins) {
    ASSERT_TRUE(worker.Start());
    Occupy();
    ASSERT_EQ(Assign(worker, [token = std::make_shared<OnDestruction>([&] { journal.Note(1); })] {}), 0);
    ASSERT_EQ(Assign(worker, [&] { journal.Note(2); }), 0);
    released.Open();
    RunOn(worker, [] {});
    EXPECT_THAT(journal.Entries(), ElementsAre(1, 2));
}

TEST_F(WorkerTest, ATaskMayAssignToItsOwnWorker) {
    ASSERT_TRUE(worker.Start());
    Gate done;
    RunOn(worker, [&] {
        EXPECT_EQ(Assign(worker,
                         [&] {
                             journal.Note(2);
                             done.Open();
                         }),
                  0);
        journal.Note(1);
    });
    done.Wait();
    EXPECT_THAT(journal.Entries(), ElementsAre(1, 2));
}

// The semaphore counts: a wake-up that finds the queue drained already sends the worker back to sleep, and none is
// lost.
TEST_F(WorkerTest, OneWakeUpIsEnoughForAWholeQueue) {
    ASSERT_TRUE(worker.Start());
    Occupy();
    const CallCounter signals(Call::SemPost, Where().ThisThread());
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(Assign(worker, [&] { journal.Note(1); }), 0);
    }
    EXPECT_EQ(signals.Count(), 0U); // nobody sleeps, so nobody is woken
    released.Open();
    RunOn(worker, [] {});
    EXPECT_EQ(journal.Entries().size(), 50U);
}

TEST_F(WorkerTest, ASleepingWorkerIsWokenOnce) {
    const CallCounter waits(Call::SemTimedwait);
    ASSERT_TRUE(worker.Start());
    ASSERT_TRUE(waits.WaitFor(1));
    const CallCounter signals(Call::SemPost, Where().ThisThread());
    RunOn(worker, [] {});
    EXPECT_EQ(signals.Count(), 1U);
}

} // namespace
