// The receive monitor: its set-up, its end, and what it watches.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "MonitorFixture.h"
#include "support/AllocFaults.h"
#include "support/Eventually.h"

namespace tarvo_test {
namespace {

class DataMonitorTest : public MonitorTest {};

TEST_F(DataMonitorTest, StartsAndStopsItsThread) {
    const std::size_t before = ThreadCount();
    ASSERT_EQ(Init(), 0);
    EXPECT_EQ(ThreadCount(), before + 1);
    monitor.Destroy();
    // The kernel wakes the joiner before it takes the thread off the process's list.
    EXPECT_TRUE(Eventually([before] { return ThreadCount() == before; }));
    EXPECT_EQ(log.CountExactly(LOG_NOTICE, "DataMonitorImpl RecvRoutine end"), 1U);
}

TEST_F(DataMonitorTest, ThreadCarriesTheNameOfTheMonitor) {
    std::string name;
    const ScopedHook hook(Call::EpollWait, [&name](const CallInfo &) {
        char buffer[16] = "";
        prctl(PR_GET_NAME, buffer);
        name = buffer;
    });
    ASSERT_EQ(Init(), 0);
    monitor.Destroy();
    EXPECT_EQ(name, "tarvo_monitor");
}

TEST_F(DataMonitorTest, ThreadThatCannotBeNamedRunsAllTheSame) {
    const ScopedFault fault(Call::Prctl, EINVAL);
    ASSERT_EQ(Init(), 0);
    monitor.Destroy();
    EXPECT_EQ(fault.Hits(), 1U);
    EXPECT_TRUE(log.ContainsExactly(LOG_NOTICE, "DataMonitorImpl RecvRoutine end"));
}

TEST_F(DataMonitorTest, DescriptorsAreClosedOnce) {
    ASSERT_EQ(Init(), 0);
    monitor.Destroy();
    const CallCounter closes(Call::Close);
    EXPECT_TRUE(monitor.ClearEventFd()) << "as without an eventfd";
    monitor.Destroy();
    EXPECT_EQ(closes.Count(), 0U);
}

TEST_F(DataMonitorTest, FailedJoinIsReportedAndTheRestEnded) {
    ASSERT_EQ(Init(), 0);
    {
        const ScopedHook failed(
            Call::PthreadJoin,
            [this](const CallInfo &) {
                // The descriptors go next: the thread must not wait on them any more.
                EXPECT_TRUE(log.WaitFor(LOG_NOTICE, "DataMonitorImpl RecvRoutine end").has_value());
                return std::optional<Outcome>(Outcome{EDEADLK, 0});
            },
            Where());
        const CallCounter closes(Call::Close, Where().ThisThread());
        monitor.Destroy();
        EXPECT_EQ(failed.Hits(), 1U);
        EXPECT_EQ(closes.Count(), 2U);
    }
    EXPECT_TRUE(log.Contains(LOG_ERR, "Join recv routine failed, system error: Resource deadlock avoided."));
}

TEST_F(DataMonitorTest, ThreadCanBeCancelledInItsWaitOnly) {
    std::vector<int> states;
    std::size_t changesBeforeTheWait = 0;
    const ScopedHook changes(Call::PthreadSetcancelstate,
                             [&states](const CallInfo &info) { states.push_back(info.number); });
    const ScopedHook wait(Call::EpollWait, [&](const CallInfo &info) {
        changesBeforeTheWait = states.size();
        EXPECT_EQ(info.size, 1024U);
        EXPECT_EQ(info.number, -1) << "without a time limit";
    });
    ASSERT_EQ(Init(), 0);
    monitor.Destroy();
    EXPECT_EQ(states, (std::vector<int>{PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}));
    EXPECT_EQ(changesBeforeTheWait, 2U);
    EXPECT_EQ(wait.Hits(), 1U);
}

TEST_F(DataMonitorTest, TypesAboveTwoReadOtherDomains) {
    for (DataMonitorType type = 0; type <= 5; ++type) {
        DataMonitorImpl each("tarvo_monitor");
        ASSERT_EQ(each.Init(TARVO_PRIORITY_NORMAL, EXIT_ID, type), 0);
        EXPECT_EQ(each.IsDataMonitorRemoteMode(), type >= 3) << type;
        each.Destroy();
    }
}

// ---- Failing set-up ----

TEST_F(DataMonitorTest, FailingEpollCreateIsReported) {
    const ScopedFault fault(Call::EpollCreate, EMFILE);
    EXPECT_EQ(Init(), -EMFILE);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Create epoll instance failed, err = -1, errno = -24"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "NotifyDataMonitorExit (EVENTS_IN) failed: ret = -1, errno = 9."));
}

TEST_F(DataMonitorTest, FailingEventfdIsReported) {
    const ScopedFault fault(Call::Eventfd, ENFILE);
    EXPECT_EQ(Init(), -ENFILE);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Create eventFd failed, errno = 23"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Create epoll instance failed, err = -23"));
}

TEST_F(DataMonitorTest, FailingRegistrationOfTheStopEventIsReported) {
    const ScopedFault fault(Call::EpollCtl, ENOSPC);
    EXPECT_EQ(Init(), -ENOSPC);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Create epoll instance failed, err = -28"));
}

TEST_F(DataMonitorTest, ThreadThatCannotBeStartedIsReported) {
    const ScopedFault fault(Call::PthreadCreate, EAGAIN);
    EXPECT_EQ(Init(), -ENOSPC);
    EXPECT_TRUE(log.Contains(LOG_ERR, "start RecThread failed, system error: Resource temporarily unavailable."));
}

TEST_F(DataMonitorTest, MonitorWithoutMemoryForItsEventsIsReported) {
    {
        const AllocFault fault(1, 1024 * sizeof(epoll_event));
        EXPECT_EQ(Init(), -ENOSPC);
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "start RecThread failed."));
    EXPECT_EQ(Init(), 0);
}

TEST_F(DataMonitorTest, PriorityWithoutASchedulingClassIsRefused) {
    const std::size_t before = ThreadCount();
    EXPECT_EQ(Init(TARVO_PRIORITY_NONE), -EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Set thread priority failed, type = 0, ret = -22"));
    EXPECT_EQ(ThreadCount(), before);
}

TEST_F(DataMonitorTest, MonitorWhoseInitFailedCanBeTriedAgain) {
    {
        const ScopedFault fault(Call::Eventfd, ENFILE);
        EXPECT_EQ(Init(), -ENFILE);
    }
    EXPECT_EQ(Init(), 0);
}

// ---- Adding and removing ----

TEST_F(DataMonitorTest, SameIndexTwiceKeepsTheFirst) {
    ASSERT_EQ(Init(), 0);
    const Line first(*this, 2);
    const Line second(*this, 2);
    EXPECT_EQ(monitor.Add(2, first.readFd, first.pipe), 0);
    EXPECT_EQ(monitor.Add(2, second.readFd, second.pipe), 0);
    EXPECT_EQ(Registered(2), first.pipe);
    EXPECT_EQ(monitor.Remove(2), 0);
    monitor.Destroy();
}

TEST_F(DataMonitorTest, UnknownIndexCannotBeRemoved) {
    EXPECT_EQ(monitor.Remove(9), -ENOENT);
    EXPECT_EQ(Registered(9), nullptr);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Find pipe(9) in minitorTable unfinished, table size = 0."));
}

TEST_F(DataMonitorTest, DescriptorThatCannotBeWatchedIsRefused) {
    ASSERT_EQ(Init(), 0);
    const Line line(*this, 2);
    const ScopedFault fault(Call::EpollCtl, ENOMEM);
    EXPECT_EQ(monitor.Add(2, line.readFd, line.pipe), -ENOMEM);
    EXPECT_TRUE(log.ContainsExactly(
        LOG_ERR, "DataMonitorImpl AddFd failed. pipeIdx = 2, readFd = " + std::to_string(line.readFd) + "."));
    EXPECT_EQ(Registered(2), nullptr);
    monitor.Destroy();
}

TEST_F(DataMonitorTest, EntryWithoutAPipeIsTakenOutAgain) {
    ASSERT_EQ(Init(), 0);
    const int fd = eventfd(0, EFD_NONBLOCK);
    EXPECT_EQ(monitor.Add(2, fd, nullptr), -ENOMEM);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Find pipe(2) is nullptr in DataMonitorImpl::GetPipe."));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "DataMonitorImpl AddItemToTable failed. pipeIdx = 2, readFd = " +
                                                 std::to_string(fd) + ", removeFd ret 0"));
    close(fd);
}

TEST_F(DataMonitorTest, FailingRemovalLeavesTheEntry) {
    ASSERT_EQ(Init(), 0);
    const Line line(*this, 2);
    ASSERT_EQ(monitor.Add(2, line.readFd, line.pipe), 0);
    {
        const ScopedFault fault(Call::EpollCtl, EPERM);
        EXPECT_EQ(monitor.Remove(2), -EPERM);
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "DataMonitorImpl RemoveFd unfinished. pipeIdx = 2, readFd = " +
                                                 std::to_string(line.readFd) + ", ret = -1."));
    EXPECT_EQ(Registered(2), line.pipe);
    EXPECT_EQ(monitor.Remove(2), 0);
    EXPECT_EQ(Registered(2), nullptr);
    monitor.Destroy();
}

TEST_F(DataMonitorTest, RegisteredPipeIsKeptAlive) {
    ASSERT_EQ(Init(), 0);
    Line line(*this, 2);
    ASSERT_EQ(monitor.Add(2, line.readFd, line.pipe), 0);
    const std::weak_ptr<TarvoPipeImpl> alive = line.pipe;
    line.pipe.reset();
    EXPECT_FALSE(alive.expired());
    EXPECT_EQ(monitor.Remove(2), 0);
    EXPECT_TRUE(alive.expired());
    monitor.Destroy();
}

} // namespace
} // namespace tarvo_test
