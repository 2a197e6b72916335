// The end of the callback pool.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>

#include "CallbackPoolKit.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/SyslogCapture.h"
#include "worker/CallbackPool.h"

using namespace tarvo_test;
using namespace worker_test;
using testing::IsEmpty;

namespace {

TEST_F(CallbackPoolTest, AfterDestroyConcurrentCallbacksAreRefused) {
    pool.Destroy();
    const SyslogCapture log;
    EXPECT_EQ(pool.DropAsyncTask(Note(1), NORMAL), -EACCES);
    EXPECT_EQ(pool.DropAsyncTask(Note(1), URGENT), -EACCES);
    EXPECT_EQ(log.CountExactly(LOG_WARNING, "Using thread pool after destroy."), 2U);
    EXPECT_EQ(log.Lines().size(), 2U);
    EXPECT_EQ(pool.NumWorkers(), 0U);
    pool.Destroy();
}

TEST(CallbackPoolLateTest, AfterDestroyASerialCallbackWaitsForEver) {
    ChildProcess child([](Channel &) -> int {
        const CallCounter waits(Call::SemWait);
        CallbackPool pool(std::make_shared<WorkerPool>(4, 0));
        pool.Destroy();
        std::atomic<bool> returned{false};
        std::thread([&] {
            pool.DropTo(
                "1", [] {}, NORMAL);
            returned = true;
        }).detach();
        const bool waited = waits.WaitFor(1);
        std::exit(waited && !returned ? 0 : 1); // the thread never ends
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST_F(CallbackPoolTest, DestroyDropsWhatIsQueuedAndWaitsForWhatRuns) {
    std::atomic<int> finished{0};
    std::atomic<int> dropped{0};
    const auto block = [&] {
        running.Add();
        released.Wait();
        ++finished;
    };
    ASSERT_EQ(pool.DropTo("1", block, NORMAL), 0);
    ASSERT_EQ(pool.DropAsyncTask(block, NORMAL), 0);
    ASSERT_EQ(pool.DropAsyncTask(block, URGENT), 0);
    running.WaitFor(3);
    for (int i = 0; i < 10; ++i) {
        const auto token = std::make_shared<OnDestruction>([&] { ++dropped; });
        ASSERT_EQ(pool.DropTo(
                      "1", [this, token] { journal.Note(1); }, NORMAL),
                  0);
    }
    const CallCounter joins(Call::PthreadJoin);
    ScopedThread destroyer([&] {
        pool.Destroy();
        EXPECT_EQ(finished, 3);
        EXPECT_EQ(dropped, 10);
        EXPECT_EQ(pool.NumWorkers(), 0U);
    });
    ASSERT_TRUE(joins.WaitFor(1));
    released.Open();
    destroyer.Join();
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

// The worker of a freed name is handed out again while its last callback still runs. What waits behind that is dropped
// with its slot, for which nobody else would ever tell the pool that it is free.
TEST_F(OneWorkerTest, DestroyIsNotHeldUpByACallbackDroppedBehindAForeignOne) {
    ASSERT_EQ(pool.DropTo("1", Block(), NORMAL), 0);
    running.WaitFor(1);
    ASSERT_EQ(pool.FreeWorker("1"), 0);
    ASSERT_EQ(pool.DropAsyncTask(Note(1), NORMAL), 0);
    const CallCounter joins(Call::PthreadJoin);
    ScopedThread destroyer([&] { pool.Destroy(); });
    ASSERT_TRUE(joins.WaitFor(1));
    released.Open();
    destroyer.Join();
    EXPECT_THAT(journal.Entries(), IsEmpty());
    EXPECT_EQ(pool.NumWorkers(), 0U);
}

TEST_F(CallbackPoolTest, SubmissionAndWorkAreNotLogged) {
    const SyslogCapture log;
    AwaitIdle("1");
    Gate done;
    ASSERT_EQ(pool.DropAsyncTask([&] { done.Open(); }, NORMAL), 0);
    done.Wait();
    EXPECT_EQ(pool.FreeWorker("1"), 0);
    EXPECT_EQ(pool.FreeWorker("2"), 0);
    pool.Destroy();
    EXPECT_THAT(log.Messages(), IsEmpty());
}

} // namespace
