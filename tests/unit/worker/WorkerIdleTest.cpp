// The end of an idle thread, its restart, and the priority that tasks run at.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>

#include "WorkerTestKit.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/SyslogCapture.h"
#include "support/Unprivileged.h"
#include "worker/Worker.h"

using namespace std::chrono_literals;
using namespace tarvo_test;
using namespace worker_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr auto IDLE_TIMEOUT = 60s;

std::optional<Outcome> Succeed(const CallInfo &) { return Outcome{0, 0}; }

class WorkerIdleTest : public LeakCheckedTest {
protected:
    void SetUp() override { ASSERT_TRUE(worker.Start()); }

    void AwaitSleep() { ASSERT_TRUE(clock.WaitUntilWaiting(1)); }

    // Lets the thread run into its time-out and end.
    void LetThreadEnd() {
        AwaitSleep();
        clock.Advance(IDLE_TIMEOUT);
        ASSERT_TRUE(Eventually([this] { return ThreadCount() == threadsBefore; }));
    }

    const std::size_t threadsBefore = ThreadCount();
    FakeClock clock{FakeClock::Mode::Frozen};
    CallCounter threads{Call::PthreadCreate};
    Journal journal;
    Worker worker{"7"};
};

TEST_F(WorkerIdleTest, TheThreadStaysForAMinuteAndNoLonger) {
    AwaitSleep();
    clock.Advance(IDLE_TIMEOUT - 1ms);
    RunOn(worker, [&] { journal.Note(1); });
    AwaitSleep();
    clock.Advance(IDLE_TIMEOUT - 1ms); // the minute began anew with the task
    AwaitSleep();
    EXPECT_EQ(ThreadCount(), threadsBefore + 1);
    clock.Advance(1ms);
    EXPECT_TRUE(Eventually([this] { return ThreadCount() == threadsBefore; }));
    EXPECT_EQ(threads.Count(), 1U);
}

TEST_F(WorkerIdleTest, TheWallClockHasNoPartInIt) {
    AwaitSleep();
    clock.AdvanceWall(24h);
    AwaitSleep();
    RunOn(worker, [&] { journal.Note(1); });
    EXPECT_EQ(threads.Count(), 1U);
}

TEST_F(WorkerIdleTest, TheNextTaskRestartsTheThread) {
    const SyslogCapture log;
    for (unsigned round = 1; round <= 3; ++round) {
        LetThreadEnd();
        RunOn(worker, [&] { journal.Note(1); });
        EXPECT_EQ(threads.Count(), round + 1);
    }
    EXPECT_EQ(journal.Entries().size(), 3U);
    EXPECT_THAT(log.Messages(), IsEmpty()); // the idle end and the restart are no faults
}

TEST_F(WorkerIdleTest, TheNextPriorityRestartsTheThread) {
    LetThreadEnd();
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(threads.Count(), 2U);
    RunOn(worker, [&] { journal.Note(1); });
    EXPECT_EQ(threads.Count(), 2U);
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
}

TEST_F(WorkerIdleTest, AFailedRestartIsTriedAgain) {
    LetThreadEnd();
    const SyslogCapture log;
    {
        const ScopedFault refused(Call::PthreadCreate, EAGAIN, Where().Always());
        EXPECT_EQ(Assign(worker, [&] { journal.Note(1); }), -1);
        EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), -1);
        EXPECT_EQ(refused.Hits(), 2U);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "restart thread failed"), 2U);
    RunOn(worker, [&] { journal.Note(2); });
    EXPECT_THAT(journal.Entries(), ElementsAre(2));
}

TEST_F(WorkerIdleTest, AStoppedWorkerWhoseThreadHasEndedStaysDown) {
    LetThreadEnd();
    worker.Stop();
    EXPECT_EQ(Assign(worker, [&] { journal.Note(1); }), 0);
    EXPECT_EQ(threads.Count(), 1U);
    EXPECT_EQ(worker.WaitingTasks(), 1U);
}

TEST_F(WorkerIdleTest, TasksPostedWhileItWorksPastAMinuteAreRun) {
    Gate begun;
    Gate goOn;
    ASSERT_EQ(Assign(worker,
                     [&] {
                         begun.Open();
                         goOn.Wait();
                         journal.Note(1);
                     }),
              0);
    begun.Wait();
    clock.Advance(10 * IDLE_TIMEOUT); // a long task is no idleness
    ASSERT_EQ(Assign(worker, [&] { journal.Note(2); }), 0);
    goOn.Open();
    RunOn(worker, [&] { journal.Note(3); });
    EXPECT_THAT(journal.Entries(), ElementsAre(1, 2, 3));
    EXPECT_EQ(threads.Count(), 1U);
}

// Aims at the moment at which the thread decides to end: each round lets the minute run out and posts at once.
TEST_F(WorkerIdleTest, ATaskPostedAtTheMomentOfTheIdleEndIsNeverLost) {
    Rounds rounds(4000, 3s);
    Tally begun;
    Tally advanced;
    std::atomic<bool> enough{false};
    ScopedThread timeKeeper([&] {
        for (int round = 1;; ++round) {
            begun.WaitFor(round);
            if (enough) {
                return;
            }
            clock.Advance(IDLE_TIMEOUT);
            advanced.Add();
        }
    });
    int restarts = 0;
    // Of the task; follows the end of the thread: later after a miss, earlier after a hit. It spans the millisecond
    // within which a moved clock ends the wait.
    unsigned delay = 0;
    while (rounds.Next()) {
        AwaitSleep();
        const unsigned threadsUntilNow = threads.Count();
        begun.Add();
        Spin(delay);
        Gate ran;
        ASSERT_EQ(Assign(worker, [&] { ran.Open(); }), 0);
        ran.Wait();
        const bool restarted = threads.Count() > threadsUntilNow;
        restarts += restarted ? 1 : 0;
        delay = restarted ? delay - std::min(delay, 14000U) : (delay + 10000U) % 1000000U;
        advanced.WaitFor(rounds.Done());
        RunOn(worker, [] {}); // back to a thread that is up and about to sleep
    }
    enough = true;
    begun.Add();
    RecordProperty("rounds", rounds.Done());
    RecordProperty("restarts", restarts);
    if (rounds.Done() >= 500) {
        EXPECT_GT(restarts, 0) << "every task came before the end of the thread";
        EXPECT_LT(restarts, rounds.Done()) << "every task came after the end of the thread";
    }
}

TEST_F(WorkerIdleTest, ThePriorityIsRecordedAndAppliedToTheThread) {
    std::vector<int> policies;
    const ScopedHook allow(Call::PthreadSetschedparam, [&](const CallInfo &info) {
        policies.push_back(info.number);
        return Succeed(info);
    });
    EXPECT_EQ(worker.GetRTType(), TARVO_PRIORITY_NORMAL);
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_URGENT), 0);
    EXPECT_EQ(worker.GetRTType(), TARVO_PRIORITY_URGENT);
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_URGENT), 0);
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(worker.GetRTType(), TARVO_PRIORITY_NORMAL);
    EXPECT_THAT(policies, ElementsAre(SCHED_FIFO, SCHED_OTHER));
}

TEST_F(WorkerIdleTest, AnUnknownPriorityIsRefused) {
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NONE), -EINVAL);
    EXPECT_EQ(worker.SetRTType(static_cast<TarvoPriority>(3)), -EINVAL);
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), 0);
}

TEST_F(WorkerIdleTest, AnUrgentTaskRunsUnderFifo50AndTheNextNormalOneDoesNot) {
    TARVO_SKIP_WITHOUT_REALTIME();
    for (int round = 0; round < 3; ++round) {
        Scheduling seen;
        ASSERT_EQ(worker.SetRTType(TARVO_PRIORITY_URGENT), 0);
        RunOn(worker, [&] { seen = OwnScheduling(); });
        EXPECT_EQ(seen.policy, SCHED_FIFO);
        EXPECT_EQ(seen.priority, 50);
        ASSERT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), 0);
        RunOn(worker, [&] { seen = OwnScheduling(); });
        EXPECT_EQ(seen.policy, SCHED_OTHER);
    }
}

// The new thread is normal, whatever the ended one was.
TEST_F(WorkerIdleTest, AnUrgentTaskIsUrgentOnARestartedThreadToo) {
    TARVO_SKIP_WITHOUT_REALTIME();
    Scheduling seen;
    ASSERT_EQ(worker.SetRTType(TARVO_PRIORITY_URGENT), 0);
    RunOn(worker, [&] { seen = OwnScheduling(); });
    ASSERT_EQ(seen.policy, SCHED_FIFO);
    LetThreadEnd();
    ASSERT_EQ(worker.SetRTType(TARVO_PRIORITY_URGENT), 0);
    RunOn(worker, [&] { seen = OwnScheduling(); });
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    LetThreadEnd(); // here the thread ends between the priority and the task
    RunOn(worker, [&] { seen = OwnScheduling(); });
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    ASSERT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    RunOn(worker, [&] { seen = OwnScheduling(); });
    EXPECT_EQ(seen.policy, SCHED_OTHER);
}

TEST_F(WorkerIdleTest, WithoutTheRightAnUrgentTaskRunsAtNormalPriority) {
    const SyslogCapture log;
    const ScopedFault refused(Call::PthreadSetschedparam, EPERM, Where().Always());
    Scheduling seen;
    for (unsigned round = 1; round <= 2; ++round) {
        EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_URGENT), 0);
        RunOn(worker, [&] { seen = OwnScheduling(); });
        EXPECT_EQ(seen.policy, SCHED_OTHER);
        EXPECT_EQ(refused.Hits(), round); // tried again each time
        EXPECT_EQ(log.Count(LOG_ERR, "setSchedParam 2 ret(" + std::to_string(EPERM) + ")."), round);
    }
    EXPECT_EQ(worker.GetRTType(), TARVO_PRIORITY_URGENT);
}

} // namespace
