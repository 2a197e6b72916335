// Submission.
#include "worker/CallbackPool.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <numeric>
#include <set>
#include <string>

#include "CallbackPoolKit.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/SyslogCapture.h"

using namespace tarvo_test;
using namespace worker_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST_F(CallbackPoolTest, AnEmptyCallbackIsRefused) {
    const SyslogCapture log;
    EXPECT_EQ(pool.DropTo("1", nullptr, NORMAL), -EINVAL);
    EXPECT_EQ(pool.DropAsyncTask(nullptr, NORMAL), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input parameter invalid"), 2U);
    EXPECT_EQ(log.Lines().size(), 2U);
    EXPECT_EQ(pool.NumWorkers(), 0U);
}

TEST_F(CallbackPoolTest, CallbacksOfOneNameRunInOrderOnOneThread) {
    std::set<std::thread::id> threads;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(pool.DropTo(
                      "1",
                      [&, i] {
                          threads.insert(std::this_thread::get_id());
                          journal.Note(i);
                      },
                      NORMAL),
                  0);
    }
    AwaitIdle("1");
    EXPECT_EQ(threads.size(), 1U);
    std::vector<int> expected(20);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(journal.Entries(), expected);
    EXPECT_EQ(pool.NumWorkers(), 1U);
}

TEST_F(CallbackPoolTest, TheSecondCallbackOfANameWaitsForTheFirst) {
    ASSERT_EQ(pool.DropTo("1", Block(), NORMAL), 0);
    ASSERT_EQ(pool.DropTo("1", Note(1), NORMAL), 0);
    running.WaitFor(1);
    AwaitIdle("2"); // other names are not held up
    EXPECT_THAT(journal.Entries(), IsEmpty());
    released.Open();
    AwaitIdle("1");
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
}

TEST_F(CallbackPoolTest, ANameKeepsItsWorker) {
    Worker *worker = pool.FindWorker("1");
    ASSERT_NE(worker, nullptr);
    EXPECT_EQ(pool.FindWorker("1"), worker);
    EXPECT_NE(pool.FindWorker("2"), worker);
    EXPECT_EQ(pool.FreeWorker("1"), 0);
    EXPECT_EQ(pool.FindWorker("3"), worker);
    EXPECT_EQ(pool.NumWorkers(), 2U);
}

TEST_F(CallbackPoolTest, ConcurrentCallbacksRunAtTheSameTimeOnWorkersOfTheirOwn) {
    std::mutex mutex;
    std::set<std::thread::id> threads;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(pool.DropAsyncTask(
                      [&] {
                          {
                              std::lock_guard<std::mutex> lock(mutex);
                              threads.insert(std::this_thread::get_id());
                          }
                          running.Add();
                          released.Wait();
                      },
                      NORMAL),
                  0);
    }
    running.WaitFor(5);
    EXPECT_EQ(threads.size(), 5U);
    EXPECT_EQ(pool.NumWorkers(), 5U);
    released.Open();
    // The slots come back one by one, the workers stay.
    std::set<int> slots;
    EXPECT_TRUE(Eventually([&] {
        const int slot = workers->GetFreeSlot(5);
        slots.insert(slot >= 0 ? slot : 0);
        return slots.size() == 5;
    }));
    EXPECT_EQ(pool.NumWorkers(), 5U);
}

TEST_F(OneWorkerTest, AWorkerIsFreeAgainOnceItsCallbackHasReturned) {
    Tally done;
    for (int i = 0; i < 100; ++i) { // each but the first waits for the one before
        ASSERT_EQ(pool.DropAsyncTask([&] { done.Add(); }, NORMAL), 0);
    }
    done.WaitFor(100);
    EXPECT_EQ(pool.NumWorkers(), 1U);
}

TEST_F(OneWorkerTest, AWorkerIsFreeAgainOnceATaskMadeBeforeHasRun) {
    Tally done;
    const auto task = std::make_shared<const SyncTask>([&] { done.Add(); });
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(pool.DropTask(task, NORMAL), 0);
    }
    done.WaitFor(100);
    EXPECT_EQ(pool.NumWorkers(), 1U);
    pool.Destroy();
    EXPECT_EQ(task.use_count(), 1);
}

TEST_F(CallbackPoolTest, UrgentCallbacksRunWhileAllNormalWorkersAreTaken) {
    for (int slot = 0; slot < 1024; ++slot) { // without their threads, which are of no interest here
        ASSERT_EQ(workers->GetFreeSlot(1024), slot);
    }
    const ScopedFault refused(Call::PthreadCreate, EAGAIN, Where().Times(1024));
    Gate ran;
    ASSERT_EQ(pool.DropAsyncTask([&] { ran.Open(); }, URGENT), 0);
    ran.Wait();
    EXPECT_EQ(pool.NumWorkers(), 1025U);
    EXPECT_EQ(pool.NumUrgentWorkers(), 1U);
}

TEST_F(OneWorkerTest, OnlyUrgentCallbacksUseTheReserve) {
    ASSERT_EQ(pool.DropAsyncTask(Block(), NORMAL), 0);
    running.WaitFor(1);
    const CallCounter waits(Call::SemWait);
    Gate ran;
    Gate urgentRan;
    ScopedThread submitter([&] { EXPECT_EQ(pool.DropAsyncTask([&] { ran.Open(); }, NORMAL), 0); });
    ASSERT_TRUE(waits.WaitFor(1));
    ASSERT_EQ(pool.DropAsyncTask([&] { urgentRan.Open(); }, URGENT), 0);
    urgentRan.Wait();
    EXPECT_FALSE(ran.IsOpen());
    released.Open();
    ran.Wait();
}

TEST_F(CallbackPoolTest, ThePriorityOfTheCallbackIsThatOfTheThread) {
    TARVO_SKIP_WITHOUT_REALTIME();
    const auto policyOf = [&](TarvoPriority priority, bool serial) {
        Scheduling seen;
        Gate done;
        const auto look = [&] {
            seen = OwnScheduling();
            done.Open();
        };
        EXPECT_EQ(serial ? pool.DropTo("1", look, priority) : pool.DropAsyncTask(look, priority), 0);
        done.Wait();
        return seen.policy;
    };
    for (const bool serial : {true, false}) {
        EXPECT_EQ(policyOf(URGENT, serial), SCHED_FIFO);
        EXPECT_EQ(policyOf(NORMAL, serial), SCHED_OTHER);
        EXPECT_EQ(policyOf(URGENT, serial), SCHED_FIFO);
    }
}

TEST_F(CallbackPoolTest, ABadPriorityIsReportedAndNothingRuns) {
    const SyslogCapture log;
    EXPECT_EQ(pool.DropTo("1", Note(1), TARVO_PRIORITY_NONE), -EINVAL);
    AwaitIdle("1");
    EXPECT_THAT(journal.Entries(), IsEmpty());
    EXPECT_THAT(log.Messages(),
                ElementsAre("No such TarvoPriority, input is 0", "Set worker attribute failed, ret = -22"));
    EXPECT_EQ(log.Count(LOG_ERR, ""), 2U);
}

// Nothing was queued that could give the worker back.
TEST_F(OneWorkerTest, AFailedConcurrentSubmissionKeepsItsWorker) {
    const SyslogCapture log;
    EXPECT_EQ(pool.DropAsyncTask(Note(1), TARVO_PRIORITY_NONE), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Set worker attribute failed, ret = -22"), 1U);
    EXPECT_EQ(workers->GetFreeSlot(1), -ENOSPC);
    EXPECT_EQ(pool.NumWorkers(), 1U);
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(OneWorkerTest, AThreadThatCannotBeStartedIsReportedAndTriedAgain) {
    const SyslogCapture log;
    {
        const ScopedFault refused(Call::PthreadCreate, EAGAIN, Where().Always());
        EXPECT_EQ(pool.DropTo("1", Note(1), NORMAL), -1);
        EXPECT_EQ(pool.DropAsyncTask(Note(2), URGENT), -1);
        EXPECT_EQ(refused.Hits(), 4U);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Set worker attribute failed, ret = -1"), 2U);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "restart thread failed"), 2U);
    EXPECT_EQ(log.Count(LOG_ERR, "start thread failed, system error: "), 4U);
    EXPECT_EQ(pool.DropTo("1", Note(3), NORMAL), 0);
    AwaitIdle("1");
    EXPECT_THAT(journal.Entries(), ElementsAre(3));
    EXPECT_EQ(workers->GetFreeSlot(2), -ENOSPC); // the failed concurrent one keeps its slot
}

TEST_F(CallbackPoolTest, AFullQueueIsReported) {
    const UnrestrainedYet fresh;
    const SyslogCapture log;
    ASSERT_EQ(pool.DropTo("1", Block(), NORMAL), 0);
    running.WaitFor(1);
    Tally ran;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(pool.DropTo(
                      "1", [&] { ran.Add(); }, NORMAL),
                  0);
    }
    EXPECT_EQ(pool.DropTo("1", Note(1), NORMAL), -EBUSY);
    EXPECT_EQ(log.CountExactly(LOG_WARNING, "Tasks exceeds worker's capacity(1000)"), 1U);
    EXPECT_EQ(log.Lines().size(), 1U);
    released.Open();
    ran.WaitFor(1000);
    AwaitIdle("1");
    EXPECT_EQ(ran.Count(), 1000);
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(CallbackPoolTest, FreeingANameDropsItsQueuedCallbacks) {
    ASSERT_EQ(pool.DropTo("1", Block(), NORMAL), 0);
    running.WaitFor(1);
    std::atomic<int> dropped{0};
    for (int i = 0; i < 5; ++i) {
        const auto token = std::make_shared<OnDestruction>([&] { ++dropped; });
        ASSERT_EQ(pool.DropTo(
                      "1", [this, token] { journal.Note(1); }, NORMAL),
                  0);
    }
    EXPECT_EQ(pool.FreeWorker("1"), 0);
    EXPECT_EQ(dropped, 5);
    EXPECT_EQ(pool.FreeWorker("1"), 0);
    released.Open();
    AwaitIdle("1");
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(OneWorkerTest, ACallbackMayFreeItsOwnName) {
    Gate done;
    ASSERT_EQ(pool.DropTo(
                  "1",
                  [&] {
                      EXPECT_EQ(pool.FreeWorker("1"), 0);
                      EXPECT_EQ(pool.DropTo(
                                    "2",
                                    [&] {
                                        journal.Note(2);
                                        done.Open();
                                    },
                                    NORMAL),
                                0);
                      journal.Note(1);
                  },
                  NORMAL),
              0);
    done.Wait();
    EXPECT_THAT(journal.Entries(), ElementsAre(1, 2));
}

TEST_F(CallbackPoolTest, ACallbackMaySubmitToItsOwnName) {
    Gate done;
    ASSERT_EQ(pool.DropTo(
                  "1",
                  [&] {
                      EXPECT_EQ(pool.DropTo(
                                    "1", [&] { done.Open(); }, NORMAL),
                                0);
                      journal.Note(1);
                  },
                  NORMAL),
              0);
    done.Wait();
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
}

TEST_F(OneWorkerTest, NewNamesWaitOneBehindTheOtherForAWorker) {
    const CallCounter waits(Call::SemWait);
    ASSERT_NE(pool.FindWorker("1"), nullptr);
    Tally found;
    const auto find = [&](const char *name) {
        EXPECT_NE(pool.FindWorker(name), nullptr);
        found.Add();
        EXPECT_EQ(pool.FreeWorker(name), 0);
    };
    ScopedThread second([&] { find("2"); });
    ASSERT_TRUE(waits.WaitFor(1));
    ScopedThread third([&] { find("3"); });
    EXPECT_NE(pool.FindWorker("1"), nullptr); // known names do not wait
    EXPECT_EQ(found.Count(), 0);
    EXPECT_EQ(pool.FreeWorker("1"), 0);
    found.WaitFor(2);
}

TEST_F(OneWorkerTest, AFailedWaitIsReportedAndTheSearchGoesOn) {
    ASSERT_NE(pool.FindWorker("1"), nullptr);
    const SyslogCapture log;
    const ScopedFault failed(Call::SemWait, EINVAL);
    Gate found;
    ScopedThread seeker([&] {
        EXPECT_NE(pool.FindWorker("2"), nullptr);
        found.Open();
    });
    ASSERT_TRUE(log.WaitFor(LOG_ERR, "Wait for free worker failed: err = -22"));
    EXPECT_FALSE(found.IsOpen());
    EXPECT_EQ(pool.FreeWorker("1"), 0);
    found.Wait();
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Wait for free worker failed: err = -22"), 1U);
}

} // namespace
