// Who is woken by a slot that becomes free, and what those who are woken in vain do.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "CallbackPoolKit.h"
#include "WorkerTestKit.h"
#include "support/Asleep.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/SyslogCapture.h"
#include "worker/CallbackPool.h"
#include "worker/WorkerPool.h"

using namespace tarvo_test;
using namespace worker_test;

namespace {

// A thread that can be seen asleep.
class Sleeper {
public:
    explicit Sleeper(const std::function<void()> &body)
        : thread([this, body] {
              id.set_value(gettid());
              body();
          }) {}

    // Whether it comes to rest, once it has begun the wait that the caller has seen.
    bool ComesToRest() {
        if (task.empty()) {
            task = "/proc/self/task/" + std::to_string(id.get_future().get());
        }
        return Eventually([this] { return IsAsleep(task); });
    }
    void Join() { thread.Join(); }

private:
    std::promise<pid_t> id;
    std::string task;
    ScopedThread thread;
};

class WorkerPoolWakeTest : public LeakCheckedTest {
protected:
    // A pool that is full, an ordinary request that waits first, and an urgent one behind it.
    void ReservedSlotGoesToTheUrgentOne(unsigned normal, unsigned urgent) {
        WorkerPool pool(normal, urgent);
        const unsigned all = normal + urgent;
        for (unsigned slot = 0; slot < all; ++slot) { // without workers, which are of no interest here
            ASSERT_EQ(pool.GetFreeSlot(all), static_cast<int>(slot));
        }
        const CallCounter waits(Call::SemWait);
        Gate gotOrdinary;
        Gate gotUrgent;
        Sleeper ordinary([&] {
            EXPECT_NE(pool.GetWorker(), nullptr);
            gotOrdinary.Open();
        });
        ASSERT_TRUE(waits.WaitFor(1) && ordinary.ComesToRest());
        Sleeper urgentOne([&] {
            EXPECT_NE(pool.GetUrgentWorker(), nullptr);
            gotUrgent.Open();
        });
        ASSERT_TRUE(waits.WaitFor(2) && urgentOne.ComesToRest());
        pool.FreeWorkerSlot(all - 1);
        gotUrgent.Wait();
        EXPECT_FALSE(gotOrdinary.IsOpen());
        pool.FreeWorkerSlot(0);
        gotOrdinary.Wait();
    }
};

TEST_F(WorkerPoolWakeTest, AReservedSlotGivenBackWakesTheUrgentRequest) {
    for (Rounds rounds(300, std::chrono::seconds(2)); rounds.Next();) {
        ReservedSlotGoesToTheUrgentOne(1, 1);
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST_F(WorkerPoolWakeTest, AReservedSlotOfTheWholePoolGivenBackWakesTheUrgentRequest) {
    const ScopedFault noThreads(Call::PthreadCreate, EAGAIN, Where().If([](const CallInfo &) {
        static thread_local const bool isTest = getpid() == gettid();
        return !isTest; // the two requests are made by the test itself
    }));
    ReservedSlotGoesToTheUrgentOne(1024, 20);
}

// Every kind of request finds a slot again and again while more want one than there are.
TEST_F(WorkerPoolWakeTest, NoWakeUpIsLostBetweenOrdinaryUrgentAndNamedRequests) {
    CallbackPool pool(std::make_shared<WorkerPool>(2, 1));
    std::vector<std::unique_ptr<ScopedThread>> threads;
    Tally ran;
    std::atomic<int> accepted{0};
    for (int id = 0; id < 6; ++id) {
        threads.push_back(std::make_unique<ScopedThread>([&, id] {
            const auto priority = id < 3 ? TARVO_PRIORITY_URGENT : TARVO_PRIORITY_NORMAL;
            for (Rounds rounds(2000, std::chrono::seconds(2)); rounds.Next(); ++accepted) {
                if (id < 5) {
                    ASSERT_EQ(pool.DropAsyncTask([&] { ran.Add(); }, priority), 0);
                    continue;
                }
                Gate done;
                ASSERT_EQ(pool.DropTo(
                              "name",
                              [&] {
                                  ran.Add();
                                  done.Open();
                              },
                              priority),
                          0);
                done.Wait();
                EXPECT_EQ(pool.FreeWorker("name"), 0);
            }
        }));
    }
    threads.clear();
    ran.WaitFor(accepted);
    pool.Destroy();
    EXPECT_EQ(ran.Count(), accepted);
}

TEST_F(WorkerPoolWakeTest, ACancelledWaiterLeavesTheSlotToTheNextOne) {
    for (Rounds rounds(300, std::chrono::seconds(2)); rounds.Next();) {
        WorkerPool pool(1, 0);
        Worker *worker = pool.GetWorker();
        const CallCounter waits(Call::SemWait);
        pthread_t first{};
        ASSERT_EQ(pthread_create(
                      &first, nullptr,
                      [](void *argument) -> void * {
                          WorkerPool &own = *static_cast<WorkerPool *>(argument);
                          own.FreeWorker(*own.GetWorker());
                          return nullptr;
                      },
                      &pool),
                  0);
        ASSERT_TRUE(waits.WaitFor(1));
        Sleeper second([&] { EXPECT_EQ(pool.GetWorker(), worker); });
        ASSERT_TRUE(waits.WaitFor(2) && second.ComesToRest());
        ScopedThread releaser([&] { pool.FreeWorker(*worker); });
        ASSERT_EQ(pthread_cancel(first), 0);
        ASSERT_EQ(pthread_join(first, nullptr), 0);
        second.Join();
    }
}

TEST_F(WorkerPoolWakeTest, CallbacksThatHaveEndedDoNotKeepALaterWaiterAwake) {
    constexpr unsigned normal = 1024;
    const auto workers = std::make_shared<WorkerPool>(normal, 20);
    CallbackPool pool(workers);
    for (int i = 0; i < 20000; ++i) {
        Gate done;
        ASSERT_EQ(pool.DropAsyncTask([&] { done.Open(); }, TARVO_PRIORITY_NORMAL), 0);
        done.Wait();
    }
    int taken = 0;
    ASSERT_TRUE(Eventually([&] { // the last callback gives its slot back a little after it has opened the gate
        while (workers->GetFreeSlot(normal) >= 0) {
            ++taken;
        }
        return taken == static_cast<int>(normal);
    }));
    const UnrestrainedYet fresh;
    const SyslogCapture log;
    const CallCounter waits(Call::SemWait);
    Gate ran;
    Sleeper submitter([&] {
        EXPECT_EQ(pool.DropTo(
                      "1", [&] { ran.Open(); }, TARVO_PRIORITY_NORMAL),
                  0);
    });
    ASSERT_TRUE(waits.WaitFor(1) && submitter.ComesToRest());
    workers->FreeWorkerSlot(0);
    ran.Wait();
    submitter.Join();
    EXPECT_LE(waits.Count(), 3U);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Find free slot failed: err = -28"), 1U);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Pickup worker failed: -28"), 1U);
    EXPECT_EQ(log.Lines().size(), 2U);
    for (unsigned slot = 1; slot < normal; ++slot) { // the end waits for slots that no worker has
        workers->FreeWorkerSlot(slot);
    }
    pool.Destroy();
}

TEST_F(OneWorkerTest, AWaiterThatIsWokenInVainLogsNothingNew) {
    ASSERT_NE(pool.FindWorker("1"), nullptr);
    const UnrestrainedYet fresh;
    const SyslogCapture log;
    const CallCounter waits(Call::SemWait);
    Gate ran;
    ScopedThread submitter([&] {
        EXPECT_EQ(pool.DropTo(
                      "2", [&] { ran.Open(); }, NORMAL),
                  0);
    });
    ASSERT_TRUE(waits.WaitFor(1));
    for (unsigned round = 0; round < 5; ++round) {
        Gate done;
        const UnrestrainedYet again; // the limiter would let the same line pass
        ASSERT_EQ(pool.DropAsyncTask([&] { done.Open(); }, URGENT), 0);
        done.Wait();
        ASSERT_TRUE(waits.WaitFor(round + 2)); // of no use to an ordinary request, which waits on
    }
    EXPECT_FALSE(ran.IsOpen());
    EXPECT_EQ(pool.FreeWorker("1"), 0);
    ran.Wait();
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Find free slot failed: err = -28"), 1U);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Pickup worker failed: -28"), 1U);
    EXPECT_EQ(log.Lines().size(), 2U);
}

} // namespace
