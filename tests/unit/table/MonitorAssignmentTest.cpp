// Receive monitors of the table: one for each kind of pipe, made on demand, retried after a failure.
#include <fcntl.h>
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "TableFixture.h"
#include "api/EnvManager.h"
#include "monitor/DataMonitorImpl.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

constexpr int MONITOR_TYPES = 6;

TEST_F(TableTest, PipesOfOnePriorityShareAMonitor) {
    EXPECT_EQ(OpenNew(TARVO_PRIORITY_URGENT), 2);
    EXPECT_EQ(OpenNew(TARVO_PRIORITY_URGENT), 3);
    EXPECT_TRUE(MonitorThreadsBecome(1));
    // The next number goes to the monitor of the other priority.
    EXPECT_EQ(OpenNew(TARVO_PRIORITY_NORMAL), 5);
    EXPECT_TRUE(MonitorThreadsBecome(2));
}

TEST_F(TableTest, CrossDomainPipeGoesToTheMonitorOfItsType) {
    EXPECT_EQ(OpenNew(TARVO_PRIORITY_URGENT), 2);
    const int fd = OpenNew(TARVO_PRIORITY_URGENT, TARVO_DOMAIN_ORLA);
    const DataMonitorType type = table->GetPipe(fd)->GetPipeDataMonitorType();
    // Only the second domain sets cross-domain pipes apart.
    EXPECT_EQ(type, GetCurrDomain() == TARVO_DOMAIN_ORLA ? 5 : 2);
    EXPECT_TRUE(MonitorThreadsBecome(type == 5 ? 2 : 1));
    EXPECT_EQ(fd, type == 5 ? 4 : 3);
}

TEST_F(TableTest, EveryTypeHasAMonitorOfItsOwnAndAllEndWithTheTable) {
    for (DataMonitorType type = 0; type < MONITOR_TYPES; ++type) {
        EXPECT_EQ(table->PrepareMonitor(TARVO_PRIORITY_NORMAL, type), 0);
        EXPECT_TRUE(MonitorThreadsBecome(type + 1));
    }
    EXPECT_EQ(table->PrepareMonitor(TARVO_PRIORITY_URGENT, 4), 0);
    EXPECT_TRUE(MonitorThreadsBecome(MONITOR_TYPES));
    EXPECT_EQ(table->AllocateFd(), MONITOR_TYPES + 1);
    table.reset();
    EXPECT_TRUE(MonitorThreadsBecome(0));
}

TEST_F(TableTest, OpensOfANewKindAtOnceMakeOneMonitor) {
    constexpr int THREADS = 8;
    OnThreads(THREADS, [this](int) { EXPECT_GT(OpenNew(), 1); });
    EXPECT_TRUE(MonitorThreadsBecome(1));
    EXPECT_EQ(table->Size(), 8U);
    EXPECT_EQ(table->AllocateFd(), THREADS + 2);
}

TEST_F(TableTest, ClosedPipeLeavesTheMonitorOfItsKind) {
    for (const TarvoPriority priority : {TARVO_PRIORITY_URGENT, TARVO_PRIORITY_NORMAL, TARVO_PRIORITY_URGENT}) {
        const int fd = OpenNew(priority);
        const CallCounter removals(Call::EpollCtl, Where().Number(EPOLL_CTL_DEL));
        table->CloseTarvoPipe(fd);
        EXPECT_EQ(removals.Count(), 1U) << priority;
    }
}

TEST_F(TableTest, MonitorOutlivesItsLastPipe) {
    table->CloseTarvoPipe(OpenNew());
    EXPECT_TRUE(MonitorThreadsBecome(1));
    EXPECT_EQ(OpenNew(), 3);
    EXPECT_TRUE(MonitorThreadsBecome(1));
}

// A step of setting a monitor up, and the result that it gives the open.
struct FailingStep {
    const char *name;
    Call call;
    int error;
    int result;
};

void PrintTo(const FailingStep &step, std::ostream *stream) { *stream << step.name; }

class MonitorFailureTest : public TableTest, public testing::WithParamInterface<FailingStep> {};

TEST_P(MonitorFailureTest, IsReportedAndTheNextOpenTriesAgain) {
    const std::string code = std::to_string(GetParam().result);
    {
        const ScopedFault fault(GetParam().call, GetParam().error, Where().Times(2));
        EXPECT_EQ(OpenNew(), GetParam().result);
        EXPECT_EQ(OpenNew(), GetParam().result);
        EXPECT_EQ(fault.Hits(), 2U);
    }
    for (const std::string &message :
         {"Init dataMonitor(type = 1) failed, ret = " + code, "Init monitor failed for RTType 1, ret " + code + " ",
          "Prepare Monitor failed, ret is " + code}) {
        EXPECT_EQ(log.CountExactly(LOG_ERR, message), 2U) << message;
        EXPECT_EQ(log.WaitFor(LOG_ERR, message)->file, "TarvoTable");
    }
    EXPECT_TRUE(MonitorThreadsBecome(0));
    EXPECT_EQ(table->Size(), 0U);
    // The failed monitors have drawn a number too.
    EXPECT_EQ(OpenNew(), 4);
    EXPECT_TRUE(MonitorThreadsBecome(1));
}

INSTANTIATE_TEST_SUITE_P(Of, MonitorFailureTest,
                         testing::Values(FailingStep{"Epoll", Call::EpollCreate, EMFILE, -EMFILE},
                                         FailingStep{"StopEvent", Call::Eventfd, ENFILE, -ENFILE},
                                         FailingStep{"Registration", Call::EpollCtl, ENOSPC, -ENOSPC},
                                         FailingStep{"Thread", Call::PthreadCreate, EAGAIN, -ENOSPC}),
                         [](const auto &step) { return step.param.name; });

TEST_F(TableTest, PriorityWithoutASchedulingClassFailsTheOpen) {
    EXPECT_EQ(OpenNew(TARVO_PRIORITY_NONE), -EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Init dataMonitor(type = 0) failed, ret = -22"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Init monitor failed for RTType 0, ret -22 "));
    EXPECT_TRUE(MonitorThreadsBecome(0));
}

TEST_F(TableTest, MonitorWithoutMemoryIsReported) {
    {
        const AllocFault fault(1, sizeof(DataMonitorImpl));
        EXPECT_EQ(table->PrepareMonitor(TARVO_PRIORITY_URGENT, 2), -ENOMEM);
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Make dataMonitor(type = 2) alloc failed"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Init monitor failed for RTType 2, ret -12 "));
    EXPECT_EQ(table->PrepareMonitor(TARVO_PRIORITY_URGENT, 2), 0);
}

TEST_F(TableTest, PipeWithoutAMonitorIsNotRegistered) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    const auto pipe = table->MakePipe(attr, TARVO_NORMAL_PIPE);
    EXPECT_EQ(table->OnPipeOpened(0, 9, pipe), -ESPIPE);
    EXPECT_EQ(table->OnPipeOpened(0, 9, nullptr), -ESPIPE);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "DataMonitor memory problem"), 2U);
}

TEST_F(TableTest, OpenWhoseMonitorIsGoneFails) {
    const std::string remote = UniqueName("remote");
    const TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    const auto pipe = table->MakePipe(attr, TARVO_NORMAL_PIPE);
    EXPECT_EQ(pipe->TimedOpen(0), -ESPIPE);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "DataMonitor memory problem"));
    EXPECT_TRUE(log.Contains(LOG_ERR, "Notify observer to add readFd("));
    pipe->DeInitPipe();
}

TEST_F(TableTest, MissingPipeFallsBackToTheMonitorOfNormalLocalPipes) {
    ASSERT_EQ(table->PrepareMonitor(TARVO_PRIORITY_NORMAL, 1), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    // That monitor refuses it, but is there to do so.
    EXPECT_EQ(table->OnPipeOpened(ends[0], 9, nullptr), -ENOMEM);
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "DataMonitor memory problem"));
    close(ends[0]);
    close(ends[1]);
}

// The process may have resolved its name already.
void NameAgain(const std::string &name) {
    EnvManager::ProcName();
    const MutexLock lock(EnvManager::Instance());
    EnvManager::SetProcName(name);
}

// A process without a name that can be used receives nothing, whatever its pipes are called.
void ExpectUnavailableName(const std::string &name) {
    ChildProcess child([name](Channel &) {
        NameAgain(name);
        const SyslogCapture log;
        const auto callbacks = std::make_shared<CallbackPool>(std::make_shared<WorkerPool>(1024, 20));
        TarvoTable table(callbacks);
        const std::string self = UniqueName("self");
        const TarvoAttr attr = MakeAttr(self, self, TARVO_MODE_SERVER);
        EXPECT_EQ(table.MakeAndAddPipe(&attr, TARVO_NORMAL_PIPE), -EINVAL);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "PROC_NAME is not available"));
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Init monitor failed for RTType 1, ret -22 "));
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Prepare Monitor failed, ret is -22"));
        EXPECT_EQ(table.AllocateFd(), 1);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST(ProcessNameTest, EmptyNameFailsEveryOpen) { ExpectUnavailableName(""); }

TEST(ProcessNameTest, NameThatIsTooLongFailsEveryOpen) { ExpectUnavailableName(std::string(101, 'x')); }

TEST(ProcessNameTest, NameOfAHundredCharactersIsFine) {
    ChildProcess child([](Channel &) {
        NameAgain(std::string(100, 'x'));
        const auto callbacks = std::make_shared<CallbackPool>(std::make_shared<WorkerPool>(1024, 20));
        TarvoTable table(callbacks);
        return table.PrepareMonitor(TARVO_PRIORITY_NORMAL, 1);
    });
    EXPECT_EQ(child.Wait(), 0);
}

} // namespace
} // namespace tarvo_test
