// Waiting for a free worker.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <set>
#include <vector>

#include "WorkerTestKit.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/SyslogCapture.h"
#include "worker/WorkerPool.h"

using namespace tarvo_test;
using namespace worker_test;
using testing::ElementsAre;

namespace {

// A thread that asks the pool for a worker.
class Request {
public:
    explicit Request(WorkerPool &pool)
        : thread([this, &pool] {
              worker = pool.GetWorker();
              served.Open();
          }) {}

    bool IsServed() { return served.IsOpen(); }
    Worker *Await() {
        served.Wait();
        return worker;
    }

private:
    Worker *worker = nullptr;
    Gate served;
    ScopedThread thread;
};

class WorkerPoolWaitTest : public LeakCheckedTest {
protected:
    CallCounter waits{Call::SemWait};
};

TEST_F(WorkerPoolWaitTest, ARequestWaitsUntilASlotIsGivenBack) {
    WorkerPool pool(2, 0);
    Worker *first = pool.GetWorker();
    ASSERT_NE(pool.GetWorker(), nullptr);
    Request third(pool);
    ASSERT_TRUE(waits.WaitFor(1));
    EXPECT_FALSE(third.IsServed());
    EXPECT_EQ(pool.FreeWorker(*first), 0);
    EXPECT_EQ(third.Await(), first);
}

TEST_F(WorkerPoolWaitTest, TheUrgentReserveIsThereWhileNormalRequestsWait) {
    constexpr unsigned normal = 1024;
    constexpr unsigned urgent = 20;
    WorkerPool pool(normal, urgent);
    std::vector<Worker *> workers;
    for (unsigned slot = 0; slot < normal; ++slot) {
        workers.push_back(pool.GetWorker());
    }
    EXPECT_EQ(pool.NumWorkers(), normal);
    Request late(pool);
    ASSERT_TRUE(waits.WaitFor(1));
    for (unsigned slot = normal; slot < normal + urgent; ++slot) {
        workers.push_back(pool.GetUrgentWorker());
        EXPECT_EQ(pool.NumWorkers(), slot + 1); // the slot is the next one
    }
    EXPECT_FALSE(late.IsServed());
    EXPECT_EQ(std::set<Worker *>(workers.begin(), workers.end()).size(), normal + urgent);

    // A release of an urgent slot is no help to a normal request.
    EXPECT_EQ(pool.FreeWorker(*workers.back()), 0);
    ASSERT_TRUE(waits.WaitFor(2));
    EXPECT_FALSE(late.IsServed());

    EXPECT_EQ(pool.FreeWorker(*workers[700]), 0);
    EXPECT_EQ(late.Await(), workers[700]);
    EXPECT_EQ(pool.NumWorkers(), normal + urgent);

    for (Worker *worker : workers) {
        EXPECT_EQ(pool.FreeWorker(*worker), 0);
    }
    // Idle again: a further release is ignored.
    const CallCounter posts(Call::SemPost);
    EXPECT_EQ(pool.FreeWorker(*workers.front()), 0);
    EXPECT_EQ(posts.Count(), 0U);
}

TEST_F(WorkerPoolWaitTest, AStaleReleaseLeadsToAnotherWait) {
    WorkerPool pool(1, 0);
    const UnrestrainedYet fresh;
    const SyslogCapture log;
    Worker *worker = pool.GetWorker();
    EXPECT_EQ(pool.FreeWorker(*worker), 0); // posted, and nobody waits
    ASSERT_EQ(pool.GetWorker(), worker);
    Request request(pool);
    ASSERT_TRUE(waits.WaitFor(2)); // the first ended at once
    EXPECT_FALSE(request.IsServed());
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Find free slot failed: err = -28"), 1U); // restrained: written once
    EXPECT_EQ(pool.FreeWorker(*worker), 0);
    EXPECT_EQ(request.Await(), worker);
    EXPECT_EQ(log.Lines().size(), 1U);
}

TEST_F(WorkerPoolWaitTest, AnInterruptedWaitIsRepeated) {
    WorkerPool pool(1, 0);
    ASSERT_EQ(pool.GetFreeSlot(1), 0);
    pool.FreeWorkerSlot(0);
    const ScopedFault interrupted(Call::SemWait, EINTR, Where().Times(3));
    EXPECT_EQ(pool.WaitForFreeWorker(), 0);
    EXPECT_EQ(waits.Count(), 4U);
}

TEST_F(WorkerPoolWaitTest, AFailedWaitIsReportedAndTheRequestGoesOn) {
    WorkerPool pool(1, 0);
    Worker *worker = pool.GetWorker();
    const SyslogCapture log;
    {
        const ScopedFault failed(Call::SemWait, EINVAL);
        EXPECT_EQ(pool.WaitForFreeWorker(), -EINVAL);
    }
    const ScopedFault failed(Call::SemWait, EINVAL);
    Request request(pool);
    ASSERT_TRUE(log.WaitFor(LOG_ERR, "Wait for free worker failed: err = -22"));
    EXPECT_EQ(pool.FreeWorker(*worker), 0);
    EXPECT_EQ(request.Await(), worker);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Wait for free worker failed: err = -22"), 1U);
}

TEST_F(WorkerPoolWaitTest, TheWaitCanBeCancelledAndNothingAfterIt) {
    WorkerPool pool(1, 0);
    ASSERT_EQ(pool.GetFreeSlot(1), 0);
    pool.FreeWorkerSlot(0);
    int state = -1;
    std::vector<int> states;
    {
        const ScopedHook calls(Call::PthreadSetcancelstate,
                               [&](const CallInfo &info) { states.push_back(info.number); });
        std::thread([&] {
            EXPECT_EQ(pool.WaitForFreeWorker(), 0);
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        }).join();
    }
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
    EXPECT_THAT(states, ElementsAre(PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_DISABLE));
}

TEST_F(WorkerPoolWaitTest, ACancelledWaiterTakesNothingWithIt) {
    WorkerPool pool(1, 0);
    Worker *worker = pool.GetWorker();
    pthread_t waiter{};
    ASSERT_EQ(pthread_create(
                  &waiter, nullptr,
                  [](void *argument) -> void * {
                      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
                      static_cast<WorkerPool *>(argument)->GetWorker();
                      return nullptr;
                  },
                  &pool),
              0);
    ASSERT_TRUE(waits.WaitFor(1));
    ASSERT_EQ(pthread_cancel(waiter), 0);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(waiter, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(pool.FreeWorker(*worker), 0);
    EXPECT_EQ(pool.GetWorker(), worker);
}

} // namespace
