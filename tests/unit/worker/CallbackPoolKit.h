// The callback pool as its tests use it.
#ifndef TARVO_UNIT_WORKER_CALLBACKPOOLKIT_H
#define TARVO_UNIT_WORKER_CALLBACKPOOLKIT_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "WorkerTestKit.h"
#include "support/LeakCheck.h"
#include "worker/CallbackPool.h"

namespace worker_test {

constexpr auto NORMAL = TARVO_PRIORITY_NORMAL;
constexpr auto URGENT = TARVO_PRIORITY_URGENT;

class CallbackPoolTest : public tarvo_test::LeakCheckedTest {
protected:
    explicit CallbackPoolTest(unsigned normal = 1024, unsigned urgent = 20)
        : workers(std::make_shared<WorkerPool>(normal, urgent)), pool(workers) {}

    void TearDown() override {
        released.Open();
        pool.Destroy();
    }

    // A callback that reports itself running and stays until `released` opens.
    std::function<void()> Block() {
        return [this] {
            running.Add();
            released.Wait();
        };
    }
    std::function<void()> Note(int what) {
        return [this, what] { journal.Note(what); };
    }
    void AwaitIdle(const std::string &name) {
        Gate done;
        ASSERT_EQ(pool.DropTo(
                      name, [&] { done.Open(); }, NORMAL),
                  0);
        done.Wait();
    }

    Gate released;
    Tally running;
    Journal journal;
    const std::shared_ptr<WorkerPool> workers;
    CallbackPool pool;
};

class OneWorkerTest : public CallbackPoolTest {
protected:
    OneWorkerTest() : CallbackPoolTest(1, 1) {}
};

} // namespace worker_test

#endif // TARVO_UNIT_WORKER_CALLBACKPOOLKIT_H
