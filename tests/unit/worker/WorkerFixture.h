// One worker and a task that keeps it busy.
#ifndef TARVO_UNIT_WORKER_WORKERFIXTURE_H
#define TARVO_UNIT_WORKER_WORKERFIXTURE_H

#include <gtest/gtest.h>

#include "WorkerTestKit.h"
#include "support/LeakCheck.h"
#include "worker/Worker.h"

namespace worker_test {

class WorkerTest : public tarvo_test::LeakCheckedTest {
protected:
    // Keeps the worker busy until `released` opens.
    void Occupy() {
        ASSERT_EQ(Assign(worker,
                         [this] {
                             occupied.Open();
                             released.Wait();
                         }),
                  0);
        occupied.Wait();
    }
    void TearDown() override { released.Open(); }

    Journal journal;
    Gate occupied;
    Gate released;
    Worker worker{"7"};
};

} // namespace worker_test

#endif // TARVO_UNIT_WORKER_WORKERFIXTURE_H
