// The process-wide table: made on first use, once, and handed out until process exit begins.
#include "api/TableFactory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "ApiFixture.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/Threads.h"
#include "table/TarvoTable.h"

namespace tarvo_test {
namespace {

TEST_F(ApiTest, FirstCallOfAllMakesTheTable) {
    EXPECT_EQ(TarvoServiceIsExist(), 1);
    const auto table = TableFactory::GetInstance();
    ASSERT_TRUE(table);
    EXPECT_EQ(table->Size(), 0U);
    EXPECT_EQ(table->NumWorkers(), 0U);
    EXPECT_FALSE(table->GetIsDisable());
}

TEST_F(ApiTest, EverybodyGetsTheSameTable) {
    constexpr int THREADS = 16;
    std::vector<std::shared_ptr<TarvoTable>> tables(THREADS);
    OnThreads(THREADS, [&](int number) { tables[static_cast<std::size_t>(number)] = TableFactory::GetInstance(); });
    ASSERT_TRUE(tables.front());
    EXPECT_EQ(std::count(tables.begin(), tables.end(), tables.front()), THREADS);
}

// A task whose thread cannot be started keeps its worker, so that the slots can be used up without any thread.
TEST_F(ApiTest, ProcessHasA1024WorkersForAllAndTwentyMoreForUrgentTasks) {
    constexpr int NORMAL = 1024;
    constexpr int URGENT = 20;
    const auto table = TableFactory::GetInstance();
    const ScopedFault noThreads(Call::PthreadCreate, EAGAIN, Where().Always());
    EXPECT_EQ(table->OnRequestIn(
                  "named", [] {}, TARVO_PRIORITY_NORMAL),
              -1);
    // Whoever finds no free slot waits; that gives the named one back.
    const ScopedHook wait(Call::SemWait, [&](const CallInfo &) { table->OnFreeSelfWorker("named"); });
    for (int i = 1; i < NORMAL; ++i) {
        EXPECT_EQ(table->OnAsyncRequestIn([] {}, TARVO_PRIORITY_NORMAL), -1);
    }
    EXPECT_EQ(table->NumWorkers(), 1024U);
    for (int i = 0; i < URGENT; ++i) {
        EXPECT_EQ(table->OnAsyncRequestIn([] {}, TARVO_PRIORITY_URGENT), -1);
    }
    EXPECT_EQ(table->NumWorkers(), 1044U);
    EXPECT_EQ(wait.Hits(), 0U);
    EXPECT_EQ(table->OnAsyncRequestIn([] {}, TARVO_PRIORITY_URGENT), -1);
    EXPECT_EQ(wait.Hits(), 1U);
    EXPECT_EQ(table->NumWorkers(), 1044U);
}

TEST_F(ApiTest, DisabledTableIsStillHandedOut) {
    TarvoCfgFinishServer();
    ASSERT_TRUE(TableFactory::GetInstance());
    EXPECT_TRUE(TableFactory::GetInstance()->GetIsDisable());
    EXPECT_EQ(TarvoServiceIsExist(), 0);
}

TEST(TableFactoryTest, FirstUseWithoutMemoryIsTriedAgainByTheNext) {
    ChildProcess child([](Channel &) {
        unsigned failed = 0;
        for (unsigned nth = 1;; ++nth) {
            const AllocFault fault(nth);
            const int exists = TarvoServiceIsExist();
            if (!fault.Hit()) {
                EXPECT_EQ(exists, 1);
                break;
            }
            EXPECT_EQ(exists, 0);
            ++failed;
        }
        EXPECT_GE(failed, 4U) << "the pools, the table, the protector";
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

} // namespace
} // namespace tarvo_test
