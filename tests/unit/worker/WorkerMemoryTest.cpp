// What a hand-over allocates, and what happens when an allocation fails.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>

#include "WorkerTestKit.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/SyslogCapture.h"
#include "worker/CallbackPool.h"

using namespace tarvo_test;
using namespace worker_test;
using testing::ElementsAre;

namespace {

constexpr int TASKS = 320;
constexpr int TASKS_PER_BLOCK = 32; // of the queue, a std::deque of 16-byte pointers in blocks of 512 bytes
constexpr unsigned MANY = 1000;

class WorkerMemoryTest : public LeakCheckedTest {};

TEST_F(WorkerMemoryTest, AHandOverAllocatesTheTaskAndItsShareOfTheQueue) {
    const auto workers = std::make_shared<WorkerPool>(2, 0);
    CallbackPool pool(workers);
    Tally ran;
    const std::string name = "1";
    const std::function<void()> callback = [&ran] { ran.Add(); };
    ASSERT_EQ(pool.DropTo(name, callback, TARVO_PRIORITY_NORMAL), 0);
    const std::size_t before = ThreadAllocations();
    for (int i = 0; i < TASKS; ++i) {
        ASSERT_EQ(pool.DropTo(name, callback, TARVO_PRIORITY_NORMAL), 0);
    }
    EXPECT_LE(ThreadAllocations() - before, TASKS + TASKS / TASKS_PER_BLOCK + 1U);
    ran.WaitFor(TASKS + 1);

    ASSERT_EQ(pool.DropAsyncTask(callback, TARVO_PRIORITY_NORMAL), 0);
    std::size_t allocations = 0;
    for (int i = 0; i < TASKS; ++i) {
        // The one worker for them is free again: the line about a lack of free ones takes memory of its own.
        workers->FreeWorker(*workers->GetWorker());
        const std::size_t beforeOne = ThreadAllocations();
        ASSERT_EQ(pool.DropAsyncTask(callback, TARVO_PRIORITY_NORMAL), 0);
        allocations += ThreadAllocations() - beforeOne;
    }
    ran.WaitFor(2 * TASKS + 2);
    EXPECT_LE(allocations, TASKS + TASKS / TASKS_PER_BLOCK + 1U);
    pool.Destroy();
}

TEST_F(WorkerMemoryTest, TheWorkersThreadAllocatesNothing) {
    Worker worker("1");
    ASSERT_TRUE(worker.Start());
    std::size_t first = 0;
    std::size_t last = 0;
    RunOn(worker, [&] { first = ThreadAllocations(); });
    for (int i = 0; i < TASKS; ++i) {
        RunOn(worker, [] {});
    }
    RunOn(worker, [&] { last = ThreadAllocations(); });
    EXPECT_EQ(last, first);
}

// Fails each allocation of a submission in turn; the next submission must work, also with a single worker.
template <typename Submit>
void FailEachAllocation(Submit submit) {
    unsigned failures = 0;
    for (unsigned nth = 1; nth < MANY; ++nth) {
        SCOPED_TRACE(nth);
        CallbackPool pool(std::make_shared<WorkerPool>(1, 0));
        Tally ran;
        const std::function<void()> callback = [&ran] { ran.Add(); };
        int ret = 0;
        bool hit = false;
        {
            const AllocFault fault(nth);
            ret = submit(pool, callback);
            hit = fault.Hit();
        }
        EXPECT_TRUE(ret == 0 || ret == -ENOMEM) << ret;
        failures += ret == -ENOMEM ? 1 : 0;
        ASSERT_EQ(submit(pool, callback), 0);
        ran.WaitFor(ret == 0 ? 2 : 1);
        pool.Destroy();
        EXPECT_EQ(ran.Count(), ret == 0 ? 2 : 1); // what was refused never runs
        if (!hit) {
            EXPECT_EQ(ret, 0);
            EXPECT_GT(failures, 0U);
            return;
        }
    }
    FAIL() << "no end of allocations";
}

TEST_F(WorkerMemoryTest, ASerialSubmissionSurvivesEveryFailedAllocation) {
    const std::string name = "a name too long to be kept without an allocation";
    FailEachAllocation([&](CallbackPool &pool, const std::function<void()> &callback) {
        return pool.DropTo(name, callback, TARVO_PRIORITY_NORMAL);
    });
}

TEST_F(WorkerMemoryTest, AConcurrentSubmissionSurvivesEveryFailedAllocation) {
    FailEachAllocation([](CallbackPool &pool, const std::function<void()> &callback) {
        return pool.DropAsyncTask(callback, TARVO_PRIORITY_NORMAL);
    });
}

TEST_F(WorkerMemoryTest, AConcurrentTaskSurvivesEveryFailedAllocation) {
    FailEachAllocation([](CallbackPool &pool, const std::function<void()> &callback) {
        try {
            return pool.DropTask(std::make_shared<const SyncTask>(callback), TARVO_PRIORITY_NORMAL);
        } catch (const std::bad_alloc &) {
            return -ENOMEM;
        }
    });
}

TEST_F(WorkerMemoryTest, AQueueThatCannotGrowRefusesTheTaskAndKeepsTheOthers) {
    const UnrestrainedYet fresh;
    const SyslogCapture log;
    Worker worker("1");
    Journal journal;
    int queued = 0;
    std::shared_ptr<const TarvoTask> refused;
    {
        const AllocFault fault(1, 512); // a block of the queue
        while (!fault.Hit()) {
            std::shared_ptr<const TarvoTask> task = MakeTask([&journal, queued] { journal.Note(queued); });
            const int ret = worker.Assign(task);
            EXPECT_EQ(ret, fault.Hit() ? -ENOMEM : 0);
            queued += ret == 0 ? 1 : 0;
            refused = std::move(task);
            ASSERT_LT(queued, 1000);
        }
    }
    EXPECT_EQ(log.CountExactly(LOG_WARNING, "Tasks exceeds worker's capacity(1000)"), 1U);
    EXPECT_EQ(worker.WaitingTasks(), static_cast<std::size_t>(queued));
    ASSERT_NE(refused, nullptr); // still the caller's
    EXPECT_EQ(worker.Assign(refused), 0);
    ASSERT_TRUE(worker.Start());
    RunOn(worker, [] {});
    EXPECT_EQ(journal.Entries().size(), static_cast<std::size_t>(queued) + 1);
}

TEST_F(WorkerMemoryTest, AThreadWithoutMemoryIsMadeUpByTheNextTask) {
    const SyslogCapture log;
    Worker worker("1");
    {
        const AllocFault fault(1);
        EXPECT_FALSE(worker.Start());
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "start thread failed"), 1U);
    EXPECT_EQ(log.Lines().size(), 1U);
    Journal journal;
    RunOn(worker, [&] { journal.Note(1); });
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
}

// Giving back and ending work must not depend on memory.
TEST_F(WorkerMemoryTest, TheEndNeedsNoMemory) {
    CallbackPool pool(std::make_shared<WorkerPool>(8, 2));
    Gate released;
    Tally running;
    Tally finished;
    const std::function<void()> callback = [&] {
        running.Add();
        released.Wait();
        finished.Add();
    };
    for (const char *name : {"1", "2", "3"}) {
        ASSERT_EQ(pool.DropTo(name, callback, TARVO_PRIORITY_NORMAL), 0);
    }
    ASSERT_EQ(pool.DropAsyncTask(callback, TARVO_PRIORITY_NORMAL), 0);
    running.WaitFor(4);
    for (int i = 0; i < TASKS; ++i) {
        ASSERT_EQ(pool.DropTo("1", callback, TARVO_PRIORITY_NORMAL), 0);
        ASSERT_EQ(pool.DropTo("2", callback, TARVO_PRIORITY_NORMAL), 0);
    }
    const CallCounter joins(Call::PthreadJoin);
    ScopedThread opener([&] {
        EXPECT_TRUE(joins.WaitFor(1));
        released.Open();
    });
    const std::string name = "1";
    const std::size_t before = ThreadAllocations();
    EXPECT_EQ(pool.FreeWorker(name), 0);
    pool.Destroy();
    EXPECT_EQ(ThreadAllocations(), before);
    EXPECT_EQ(finished.Count(), 4);
}

} // namespace
