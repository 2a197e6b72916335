// The thread of the receive monitor: what it does with events, and when it ends.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "MonitorFixture.h"
#include "diag/run_time_record.h"
#include "support/Eventually.h"

namespace tarvo_test {
namespace {

class MonitorThreadTest : public MonitorTest {};

TEST_F(MonitorThreadTest, MessageOfARegisteredPipeIsHandled) {
    ASSERT_EQ(Init(), 0);
    WatchedLine line(*this, 2);
    line.peer.Send(RawRequest(1, "x"));
    EXPECT_TRUE(observer.WaitFor(Report::RequestIn));
}

TEST_F(MonitorThreadTest, MessageTakesOneWaitAndTwoReads) {
    const CallCounter waits(Call::EpollWait);
    ASSERT_EQ(Init(), 0);
    WatchedLine line(*this, 2);
    const CallCounter reads(Call::Read, Where().Fd(line.readFd));
    constexpr unsigned MESSAGES = 50;
    ASSERT_TRUE(waits.WaitFor(1));
    for (unsigned i = 1; i <= MESSAGES; ++i) {
        line.peer.Send(RawRequest(i, "x"));
        ASSERT_TRUE(waits.WaitFor(i + 1));
    }
    EXPECT_EQ(reads.Count(), 2 * MESSAGES);
    EXPECT_EQ(waits.Count(), MESSAGES + 1);
    EXPECT_EQ(observer.Count(Report::RequestIn), MESSAGES);
}

TEST_F(MonitorThreadTest, MessagesWrittenTogetherAreHandledOneAfterTheOther) {
    ASSERT_EQ(Init(), 0);
    WatchedLine line(*this, 2);
    line.peer.Send(RawRequest(1, "x") + RawRequest(2, "y") + RawRequest(3, "z"));
    EXPECT_TRUE(observer.WaitFor(Report::RequestIn, 3));
}

// "name=value" in a line.
int64_t ValueIn(const std::string &text, const std::string &name) {
    const std::size_t at = text.find(" " + name + "=");
    return at == std::string::npos ? INT64_MIN : std::stoll(text.substr(at + name.size() + 2));
}

TEST_F(MonitorThreadTest, TimesOfABatchReachThePipe) {
    const CallCounter waits(Call::EpollWait);
    ASSERT_EQ(Init(), 0);
    Line first(*this, 2);
    Line late(*this, 3, true, "_heartbeat");
    ASSERT_EQ(monitor.Add(2, first.readFd, first.pipe), 0);
    ASSERT_EQ(monitor.Add(3, late.readFd, late.pipe), 0);
    ASSERT_TRUE(waits.WaitFor(1));
    // The start of the waiting is that of the thread, and not of this wait.
    fresh.clock.AdvanceMonotonic(std::chrono::seconds(100));
    std::atomic<bool> go{false};
    const ScopedHook hold(
        Call::EpollWait, [&go](const CallInfo &) { Eventually([&go] { return go.load(); }); }, Where());
    first.peer.Send(RawRequest(1, "x"));
    ASSERT_TRUE(waits.WaitFor(2));
    RawFrame frame = MakeRawFrame(3, 0, "beat");
    frame.writeStartTime = static_cast<int64_t>(Tarvo::GetCurrentTime()) - 3000000;
    first.peer.Send(RawRequest(2, "x"));
    late.peer.Send(EncodeRawFrame(frame));
    go = true;
    const std::optional<LogLine> line = log.WaitFor(LOG_WARNING, "Send too slow");
    ASSERT_TRUE(line.has_value());
    EXPECT_NE(line->message.find(" Ev:2of2,"), std::string::npos) << line->message;
    EXPECT_GE(ValueIn(line->message, "T"), 3000000);
    EXPECT_GE(ValueIn(line->message, "T0"), 3000000);
    EXPECT_GE(ValueIn(line->message, "T1"), 0);
    EXPECT_EQ(ValueIn(line->message, "T0") + ValueIn(line->message, "T1"), ValueIn(line->message, "T"));
    EXPECT_LT(ValueIn(line->message, "Tp"), -90000000) << line->message;
    EXPECT_EQ(monitor.Remove(2), 0);
    EXPECT_EQ(monitor.Remove(3), 0);
    monitor.Destroy();
}

TEST_F(MonitorThreadTest, PipeThatHungUpIsRemovedAfterItsEvent) {
    ASSERT_EQ(Init(), 0);
    Line line(*this, 2);
    ASSERT_EQ(monitor.Add(2, line.readFd, line.pipe), 0);
    bool registeredMeanwhile = false;
    observer.Do(Report::RequestIn, [&](const ObserverCall &) { registeredMeanwhile = Registered(2) != nullptr; });
    const CallCounter removals(Call::EpollCtl);
    line.peer.CloseWrite();
    ASSERT_TRUE(removals.WaitFor(1));
    monitor.Destroy();
    EXPECT_TRUE(registeredMeanwhile);
    EXPECT_EQ(Registered(2), nullptr);
}

TEST_F(MonitorThreadTest, PipeWithoutCallbackThatHungUpIsClosed) {
    ASSERT_EQ(Init(), 0);
    Line line(*this, 2, false);
    ASSERT_EQ(monitor.Add(2, line.readFd, line.pipe), 0);
    line.peer.CloseWrite();
    EXPECT_TRUE(observer.WaitFor(Report::RemoteClosed));
    line.peer.AwaitHangup();
    monitor.Destroy();
}

// What epoll_wait yields next, once: made-up events of pipe 2.
std::optional<Outcome> MakeUp(const CallInfo &info, const std::vector<uint32_t> &masks) {
    auto *const events = static_cast<epoll_event *>(info.data);
    for (std::size_t i = 0; i < masks.size(); ++i) {
        events[i].data.fd = 2;
        events[i].events = masks[i];
    }
    return Outcome{static_cast<long>(masks.size()), 0};
}

// A pipe that is closed and opened again keeps its index, here with another line behind it.
class MonitorReopenTest : public MonitorTest {
protected:
    // Hands the thread one batch, and puts `anew` in the place of `old` while its first event is handled.
    void HandleWhileReopened(const std::vector<uint32_t> &masks, Line &old, Line &anew) {
        const CallCounter waits(Call::EpollWait);
        ASSERT_EQ(Init(), 0);
        ASSERT_EQ(monitor.Add(2, old.readFd, old.pipe), 0);
        ASSERT_TRUE(waits.WaitFor(1));
        std::atomic<bool> go{false};
        const ScopedHook batch(
            Call::EpollWait,
            [&](const CallInfo &info) {
                Eventually([&go] { return go.load(); });
                return MakeUp(info, masks);
            },
            Where().Nth(1).Times(1));
        old.peer.Send(RawRequest(1, "x"));
        ASSERT_TRUE(observer.WaitFor(Report::RequestIn));
        observer.Do(Report::RequestIn, [&](const ObserverCall &) {
            EXPECT_EQ(monitor.Remove(2), 0);
            EXPECT_EQ(monitor.Add(2, anew.readFd, anew.pipe), 0);
            observer.Do(Report::RequestIn, nullptr);
        });
        old.peer.Send(RawRequest(2, "x"));
        go = true;
        ASSERT_TRUE(waits.WaitFor(3));
    }

    void ExpectHeard(Line &line) {
        const std::size_t before = observer.Count(Report::RequestIn);
        line.peer.Send(RawRequest(3, "x"));
        EXPECT_TRUE(observer.WaitFor(Report::RequestIn, before + 1));
    }
};

TEST_F(MonitorReopenTest, RemovalAfterAHangUpIsOfThePipeThatHungUp) {
    Line old(*this, 2);
    Line anew(*this, 2);
    HandleWhileReopened({EPOLLIN | EPOLLHUP}, old, anew);
    ExpectHeard(anew);
    EXPECT_EQ(monitor.Remove(2), 0);
    monitor.Destroy();
}

TEST_F(MonitorReopenTest, SecondEventOfABatchDoesNotCloseThePipeOpenedAnew) {
    Line old(*this, 2);
    Line anew(*this, 2);
    HandleWhileReopened({EPOLLIN, EPOLLIN | EPOLLHUP}, old, anew);
    ExpectHeard(anew);
    EXPECT_EQ(observer.Count(Report::RequestIn), 3U) << "no notice of a remote close";
    EXPECT_EQ(monitor.Remove(2), 0);
    monitor.Destroy();
    for (const LogLine &line : log.Lines()) {
        EXPECT_GT(line.level, LOG_ERR) << line.message;
    }
}

// ---- A remote in server mode that ends, or stops reading ----

TEST_F(MonitorThreadTest, RemoteThatStopsReadingIsStillHeard) {
    ASSERT_EQ(Init(), 0);
    WatchedLine line(*this, 2);
    line.peer.Send(RawRequest(1, "x"));
    ASSERT_TRUE(observer.WaitFor(Report::RequestIn));
    line.peer.CloseRead();
    for (unsigned i = 2; i <= 4; ++i) {
        line.peer.Send(RawRequest(i, "x"));
        ASSERT_TRUE(observer.WaitFor(Report::RequestIn, i));
    }
}

TEST_F(MonitorThreadTest, RemoteThatStopsReadingBeforeItsFirstWordIsStillHeard) {
    const CallCounter looks(Call::Poll);
    ASSERT_EQ(Init(), 0);
    Line line(*this, 2);
    ASSERT_EQ(monitor.Add(2, line.readFd, line.pipe), 0);
    line.peer.CloseRead();
    ASSERT_TRUE(looks.WaitFor(1));
    line.peer.Send(RawRequest(1, "x"));
    ASSERT_TRUE(observer.WaitFor(Report::RequestIn));
    line.peer.CloseWrite();
    EXPECT_TRUE(observer.WaitFor(Report::RequestIn, 2)) << "now it has closed";
    monitor.Destroy();
}

TEST_F(MonitorThreadTest, WriteEndIsWatchedUntilTheFirstEventOnly) {
    const CallCounter registrations(Call::EpollCtl);
    ASSERT_EQ(Init(), 0);
    Line line(*this, 2);
    ASSERT_EQ(monitor.Add(2, line.readFd, line.pipe), 0);
    const unsigned added = registrations.Count();
    for (unsigned i = 1; i <= 3; ++i) {
        line.peer.Send(RawRequest(i, "x"));
        ASSERT_TRUE(observer.WaitFor(Report::RequestIn, i));
        EXPECT_EQ(registrations.Count(), added + 1) << "taken out once";
    }
    EXPECT_EQ(monitor.Remove(2), 0);
    EXPECT_EQ(registrations.Count(), added + 2);
    monitor.Destroy();
}

// Both ends report at once, in one batch: the second event then finds the pipe gone.
TEST_F(MonitorThreadTest, OrdinaryEndOfARemoteWritesNoLine) {
    ASSERT_EQ(Init(), 0);
    Line bell(*this, 2);
    ASSERT_EQ(monitor.Add(2, bell.readFd, bell.pipe), 0);
    // As the pipe table does it.
    observer.Do(Report::RemoteClosed, [&](const ObserverCall &call) { monitor.Remove(call.fd); });
    for (int round = 0; round < 200; ++round) {
        Line line(*this, 3 + round, round % 2 == 0);
        std::atomic<bool> go{false};
        const CallCounter waits(Call::EpollWait);
        const ScopedHook hold(
            Call::EpollWait, [&go](const CallInfo &) { Eventually([&go] { return go.load(); }); },
            Where().Nth(1).Times(1));
        bell.peer.Send(RawRequest(1, "wakes the thread"));
        ASSERT_TRUE(waits.WaitFor(1));
        ASSERT_EQ(monitor.Add(line.handle, line.readFd, line.pipe), 0);
        line.peer.Send(RawRequest(1, "x") + RawRequest(2, "y"));
        line.peer.CloseRead();
        line.peer.CloseWrite();
        go = true;
        ASSERT_TRUE(waits.WaitFor(2));
        EXPECT_EQ(monitor.Remove(line.handle), -ENOENT) << "gone by itself";
        observer.DropTasks();
        ASSERT_TRUE(log.Lines().empty()) << log.Lines()[0].message;
    }
    EXPECT_EQ(monitor.Remove(2), 0);
    monitor.Destroy();
}

TEST_F(MonitorThreadTest, EventOfAnUnknownPipeIsReportedAndSkipped) {
    ASSERT_EQ(Init(), 0);
    WatchedLine line(*this, 2);
    // The index that comes with the first event is another one.
    const ScopedHook hook(
        Call::EpollWait,
        [](const CallInfo &info) {
            auto *const events = static_cast<epoll_event *>(info.data);
            events[0].data.fd = 77;
            events[0].events = EPOLLIN;
            return std::optional<Outcome>(Outcome{1, 0});
        },
        Where().Nth(1).Times(1));
    line.peer.Send(RawRequest(1, "x"));
    EXPECT_TRUE(observer.WaitFor(Report::RequestIn));
    line.peer.Send(RawRequest(2, "x"));
    EXPECT_TRUE(observer.WaitFor(Report::RequestIn, 2));
    EXPECT_TRUE(
        log.WaitFor(LOG_ERR, "DataMonitorImpl RecvRoutine pipe == nullptr, i=0, pipeIdx=77, events=1.").has_value());
}

TEST_F(MonitorThreadTest, FailingWaitIsReportedAndRepeated) {
    const ScopedFault fault(Call::EpollWait, EBADF, Where().Nth(1).Times(3));
    ASSERT_EQ(Init(), 0);
    WatchedLine line(*this, 2);
    line.peer.Send(RawRequest(1, "x"));
    EXPECT_TRUE(observer.WaitFor(Report::RequestIn));
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Monitor failed, ret = -1, errno(9): Bad file descriptor"), 1U)
        << "three times the same, restrained";
}

TEST_F(MonitorThreadTest, InterruptedWaitIsRepeatedSilently) {
    const ScopedFault fault(Call::EpollWait, EINTR, Where().Nth(1).Times(3));
    ASSERT_EQ(Init(), 0);
    ASSERT_TRUE(Eventually([&fault] { return fault.Hits() == 3; }));
    monitor.Destroy();
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "Monitor failed"));
}

// The eventfd of the monitor, as it is registered.
class MonitorStopTest : public MonitorTest {
protected:
    // The thread has begun to wait when this returns.
    void InitAndLearnEventFd() {
        const ScopedHook hook(Call::EpollCtl, [this](const CallInfo &info) { eventFd = info.fd; });
        const CallCounter waits(Call::EpollWait);
        ASSERT_EQ(Init(), 0);
        ASSERT_GE(eventFd, 0);
        ASSERT_TRUE(waits.WaitFor(1));
    }

    void WriteMessage(uint64_t message) {
        ASSERT_EQ(write(eventFd, &message, sizeof(message)), static_cast<ssize_t>(sizeof(message)));
    }

    static uint64_t ExitMessage(pid_t pid) { return static_cast<uint64_t>(pid | 0xA1B2); }

    int eventFd = -1;
};

TEST_F(MonitorStopTest, ForeignValueOnTheEventfdDoesNotStopTheThread) {
    InitAndLearnEventFd();
    uint64_t foreign = ExitMessage(getpid()) ^ 0x10000;
    WriteMessage(foreign);
    EXPECT_TRUE(
        log.WaitFor(LOG_WARNING, "Read unknown eventMsg: ret = 8, msg = " + std::to_string(foreign) + ", errno = 0.")
            .has_value());
    Line line(*this, 2);
    ASSERT_EQ(monitor.Add(2, line.readFd, line.pipe), 0);
    line.peer.Send(RawRequest(1, "x"));
    EXPECT_TRUE(observer.WaitFor(Report::RequestIn));
    EXPECT_EQ(monitor.Remove(2), 0);
    monitor.Destroy();
    EXPECT_EQ(log.CountExactly(LOG_NOTICE, "DataMonitorImpl RecvRoutine end"), 1U);
}

TEST_F(MonitorStopTest, EventfdThatCannotBeReadDoesNotStopTheThread) {
    InitAndLearnEventFd();
    {
        const ScopedFault fault(Call::Read, EIO, Where().Fd(eventFd));
        WriteMessage(ExitMessage(getpid()));
        EXPECT_TRUE(log.WaitFor(LOG_WARNING, "Read eventFd failed: ret = -1, msg = 0, errno = 5.").has_value());
    }
    // The message is still there, and read by the next round.
    EXPECT_TRUE(log.WaitFor(LOG_NOTICE, "DataMonitorImpl RecvRoutine end").has_value());
}

TEST_F(MonitorStopTest, ErrnoOfAnEarlierCallDecidesOnlyTheLogLine) {
    InitAndLearnEventFd();
    const ScopedHook hook(
        Call::Read,
        [](const CallInfo &info) {
            *static_cast<uint64_t *>(info.data) = ExitMessage(getpid());
            return std::optional<Outcome>(Outcome{8, EAGAIN});
        },
        Where().Fd(eventFd));
    monitor.Destroy();
    EXPECT_TRUE(log.ContainsExactly(LOG_NOTICE, "EventFd already cleared: ret = 8."));
    EXPECT_TRUE(log.ContainsExactly(LOG_NOTICE, "DataMonitorImpl RecvRoutine end"));
}

TEST_F(MonitorStopTest, ExitIsNotifiedOnceMoreInVainWhenTheEventfdIsFull) {
    InitAndLearnEventFd();
    {
        const ScopedFault fault(Call::Write, EAGAIN, Where().Fd(eventFd));
        monitor.NotifyDataMonitorExit();
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "NotifyDataMonitorExit (EVENTS_IN) failed: ret = -1, errno = 11."));
}

TEST_F(MonitorStopTest, ClosedEventfdCountsAsAStop) { EXPECT_TRUE(monitor.ClearEventFd()); }

TEST_F(MonitorStopTest, EventsOfTheSameBatchAreDeliveredBeforeTheThreadEnds) {
    InitAndLearnEventFd();
    Line before(*this, 2);
    Line after(*this, 3);
    // Both pipes and the request to stop become ready while the thread is held before its wait.
    std::atomic<bool> held{false};
    std::atomic<bool> go{false};
    const ScopedHook hold(
        Call::EpollWait,
        [&](const CallInfo &) {
            held = true;
            Eventually([&go] { return go.load(); });
        },
        Where().Nth(1).Times(1));
    ASSERT_EQ(monitor.Add(2, before.readFd, before.pipe), 0);
    before.peer.Send(RawRequest(1, "x"));
    ASSERT_TRUE(observer.WaitFor(Report::RequestIn));
    ASSERT_TRUE(Eventually([&held] { return held.load(); }));
    ASSERT_EQ(monitor.Add(3, after.readFd, after.pipe), 0);
    before.peer.Send(RawRequest(2, "x"));
    WriteMessage(ExitMessage(getpid()));
    after.peer.Send(RawRequest(3, "x"));
    go = true;
    EXPECT_TRUE(log.WaitFor(LOG_NOTICE, "DataMonitorImpl RecvRoutine end").has_value());
    EXPECT_EQ(observer.Count(Report::RequestIn), 3U);
    EXPECT_EQ(monitor.Remove(2), 0);
    EXPECT_EQ(monitor.Remove(3), 0);
    monitor.Destroy();
}

TEST_F(MonitorStopTest, DestroyWhileEventsArriveEnds) {
    for (int round = 0; round < 20; ++round) {
        DataMonitorImpl each("tarvo_monitor");
        ASSERT_EQ(each.Init(TARVO_PRIORITY_NORMAL, EXIT_ID, NORMAL_LOCAL), 0);
        Line line(*this, 2);
        ASSERT_EQ(each.Add(2, line.readFd, line.pipe), 0);
        std::thread sender([&line] {
            for (uint32_t i = 0; i < 50; ++i) {
                line.peer.TrySend(RawRequest(i, "x"));
            }
        });
        each.Destroy();
        sender.join();
        observer.DropTasks();
    }
}

// ---- Many pipes, and none that have anything to say ----

TEST_F(MonitorThreadTest, OneMonitorHearsAThousandPipesOnceEach) {
    ASSERT_EQ(Init(), 0);
    std::vector<std::unique_ptr<Line>> lines;
    for (int i = 0; i < 1000; ++i) {
        lines.push_back(std::make_unique<Line>(*this, 2 + i));
        ASSERT_EQ(monitor.Add(2 + i, lines.back()->readFd, lines.back()->pipe), 0);
    }
    for (const std::unique_ptr<Line> &line : lines) {
        line->peer.Send(RawRequest(1, "x"));
    }
    EXPECT_TRUE(observer.WaitFor(Report::RequestIn, lines.size()));
    std::vector<std::string> workers;
    for (const ObserverCall &call : observer.Calls(Report::RequestIn)) {
        workers.push_back(call.worker);
    }
    std::sort(workers.begin(), workers.end());
    EXPECT_EQ(std::unique(workers.begin(), workers.end()), workers.end()) << "each pipe exactly once";
    for (const std::unique_ptr<Line> &line : lines) {
        EXPECT_EQ(monitor.Remove(line->handle), 0);
    }
    monitor.Destroy();
    observer.DropTasks();
}

TEST_F(MonitorThreadTest, IdleMonitorDoesNotTurnBeforeOrAfterAHangUp) {
    const CallCounter waits(Call::EpollWait);
    ASSERT_EQ(Init(), 0);
    Line quiet(*this, 2);
    Line leaving(*this, 3);
    ASSERT_EQ(monitor.Add(2, quiet.readFd, quiet.pipe), 0);
    ASSERT_EQ(monitor.Add(3, leaving.readFd, leaving.pipe), 0);
    ASSERT_TRUE(waits.WaitFor(1));
    leaving.peer.CloseWrite();
    ASSERT_TRUE(waits.WaitFor(2));
    // A thread that turned in vain would use up the whole of this time.
    const auto used = [] {
        timespec time{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
        return time.tv_sec * 1000 + time.tv_nsec / 1000000;
    };
    const int64_t before = used();
    pollfd nothing{eventfd(0, 0), POLLIN, 0};
    EXPECT_EQ(poll(&nothing, 1, 300), 0);
    close(nothing.fd);
    EXPECT_LT(used() - before, 100);
    EXPECT_EQ(waits.Count(), 2U);
    EXPECT_EQ(monitor.Remove(2), 0);
    monitor.Destroy();
}

} // namespace
} // namespace tarvo_test
