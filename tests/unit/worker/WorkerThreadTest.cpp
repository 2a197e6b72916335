// The thread of a worker: its name, its log lines, and what happens when it cannot be had.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>

#include "WorkerFixture.h"
#include "api/EnvManager.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/SyslogCapture.h"

using namespace tarvo_test;
using namespace worker_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using WorkerThreadTest = WorkerTest;

TEST_F(WorkerThreadTest, TheThreadCarriesTheProcessName) {
    ASSERT_TRUE(worker.Start());
    char name[16] = "";
    RunOn(worker, [&] { prctl(PR_GET_NAME, name); });
    EXPECT_EQ(std::string(name), ("tv_" + std::string(EnvManager::ProcName())).substr(0, 15));
}

TEST_F(WorkerThreadTest, AThreadThatCannotBeNamedWorksAllTheSame) {
    const SyslogCapture log;
    const ScopedFault refused(Call::Prctl, EPERM, Where().Number(PR_SET_NAME));
    ASSERT_TRUE(worker.Start());
    RunOn(worker, [&] { journal.Note(1); });
    EXPECT_EQ(refused.Hits(), 1U);
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
    EXPECT_THAT(log.Messages(), IsEmpty()); // reported at a level that is not written
}

TEST_F(WorkerThreadTest, OrdinaryWorkIsNotLogged) {
    const SyslogCapture log;
    ASSERT_TRUE(worker.Start());
    RunOn(worker, [] {});
    worker.Stop();
    worker.ThreadJoin();
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(WorkerThreadTest, AFailedStartIsMadeUpByTheNextTask) {
    const SyslogCapture log;
    {
        const ScopedFault refused(Call::PthreadCreate, EAGAIN, Where().Always());
        EXPECT_FALSE(worker.Start());
        EXPECT_EQ(log.Count(LOG_ERR, "start thread failed, system error: "), 1U);
        EXPECT_EQ(log.Lines().size(), 1U);

        std::shared_ptr<const TarvoTask> task = MakeTask([&] { journal.Note(1); });
        EXPECT_EQ(worker.Assign(task), -1);
        EXPECT_NE(task, nullptr);
        EXPECT_EQ(worker.WaitingTasks(), 0U);
        EXPECT_EQ(log.Count(LOG_ERR, "start thread failed, system error: "), 2U);
        EXPECT_EQ(log.CountExactly(LOG_ERR, "restart thread failed"), 1U);

        EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), -1);
        EXPECT_EQ(log.CountExactly(LOG_ERR, "restart thread failed"), 2U);
        EXPECT_EQ(log.Lines().size(), 5U);
        EXPECT_EQ(refused.Hits(), 3U);
    }
    RunOn(worker, [&] { journal.Note(2); });
    EXPECT_THAT(journal.Entries(), ElementsAre(2));
    EXPECT_EQ(log.Lines().size(), 5U);
}

TEST_F(WorkerThreadTest, AFailedStartIsMadeUpByTheNextPriority) {
    {
        const ScopedFault refused(Call::PthreadCreate, EAGAIN);
        EXPECT_FALSE(worker.Start());
    }
    const CallCounter threads(Call::PthreadCreate);
    EXPECT_EQ(worker.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(threads.Count(), 1U);
    RunOn(worker, [&] { journal.Note(1); });
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
    EXPECT_EQ(threads.Count(), 1U);
}

TEST_F(WorkerThreadTest, AFailedJoinIsLoggedAndNotPassedOn) {
    const SyslogCapture log;
    ASSERT_TRUE(worker.Start());
    {
        const ScopedFault failed(Call::PthreadJoin, EDEADLK);
        worker.ThreadJoin();
        EXPECT_EQ(failed.Hits(), 1U);
    }
    EXPECT_EQ(log.Count(LOG_ERR, "Join worker failed, system error: "), 1U);
    EXPECT_EQ(log.Lines().size(), 1U);
    RunOn(worker, [&] { journal.Note(1); });
    EXPECT_THAT(journal.Entries(), ElementsAre(1));
}

TEST_F(WorkerThreadTest, JoiningWithoutAThreadDoesNothing) {
    const SyslogCapture log;
    worker.ThreadJoin();
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST_F(WorkerThreadTest, AnExceptionOutOfATaskEndsTheProcess) {
    ChildProcess child([](Channel &) {
        Worker doomed("8");
        doomed.Start();
        Assign(doomed, [] { throw std::runtime_error("out of a callback"); });
        Gate never;
        never.Wait();
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
}

} // namespace
