// The remote closes, exits or is killed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <new>
#include <utility>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "support/Process.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

class PipeRemoteCloseTest : public PipeTest {
protected:
    // Notes the ids of the requests, -1 for the null one.
    TarvoAttr Recording(TarvoMode mode, bool concurrent = false) {
        TarvoAttr attr = Attr(mode);
        attr.isConcur = concurrent;
        attr.callback = [this](int fd, TarvoRequest *request) {
            EXPECT_EQ(fd, HANDLE);
            steps.push_back(request != nullptr ? "request " + std::to_string(request->id) : "null request");
        };
        return attr;
    }

    void RecordTheRest() {
        OnPublicClose([this](int fd) { steps.push_back("close " + std::to_string(fd)); });
        observer.Do(Report::FreeSelfWorker,
                    [this](const ObserverCall &call) { steps.push_back("free " + call.worker); });
    }

    std::vector<std::string> steps;
};

const std::vector<std::string> END_OF_A_PIPE = {"null request", "close 4711", "free 4711"};

TEST_F(PipeRemoteCloseTest, WithoutCallbackThePipeIsClosedAtOnce) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const CallCounter readEnd(Call::Close, Where().Fd(ReadFd()));
    unsigned closedBefore = 0;
    observer.Do(Report::RemoteClosed, [&](const ObserverCall &) { closedBefore = readEnd.Count(); });
    CloseRemote();
    EXPECT_EQ(HandleNextEvent(pipe) & EPOLLHUP, static_cast<uint32_t>(EPOLLHUP));
    ASSERT_EQ(observer.Count(Report::RemoteClosed), 1U);
    EXPECT_EQ(observer.Calls(Report::RemoteClosed)[0].fd, HANDLE);
    // The monitor must have let go of the descriptor before it is closed.
    EXPECT_EQ(closedBefore, 0U);
    EXPECT_EQ(readEnd.Count(), 1U);
    EXPECT_EQ(observer.Count(Report::RequestIn), 0U);
    EXPECT_EQ(observer.Count(Report::FreeSelfWorker), 0U);
    EXPECT_TRUE(PublicCloses().empty());
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(Troubles(), std::vector<std::string>());
    EXPECT_EQ(SendText(pipe, "x"), -1);
}

TEST_F(PipeRemoteCloseTest, WithoutCallbackWaitingCallersAreWoken) {
    FakeClock clock;
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    auto caller = InBackground([&] {
        TarvoRequest request{};
        TarvoResponse response{};
        EXPECT_EQ(pipe->RecordOutRequest(request, response, 60000), 0);
        return pipe->WaitForResponse(request, 60000);
    });
    ASSERT_TRUE(clock.WaitUntilWaiting(1));
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(caller.get(), -EPIPE);
}

TEST_F(PipeRemoteCloseTest, CallbackIsToldThenThePipeIsClosedThenItsWorkerGivenBack) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        const Pipe pipe = OpenPipe(Recording(mode));
        RecordTheRest();
        steps.clear();
        CloseRemote();
        HandleNextEvent(pipe);
        // Nothing happens on the receive thread.
        EXPECT_TRUE(steps.empty());
        EXPECT_EQ(observer.Calls().back().report, Report::RequestIn);
        EXPECT_EQ(observer.Calls().back().worker, "4711");
        EXPECT_TRUE(observer.RunTask());
        EXPECT_EQ(steps, END_OF_A_PIPE);
        EXPECT_EQ(observer.Count(Report::RemoteClosed), 0U);
        EXPECT_EQ(observer.PendingTasks(), 0U);
        pipe->DeInitPipe();
    }
}

TEST_F(PipeRemoteCloseTest, NoticeHasThePriorityOfThePipe) {
    TarvoAttr attr = Recording(TARVO_MODE_SERVER);
    attr.priority = TARVO_PRIORITY_URGENT;
    const Pipe pipe = OpenPipe(attr);
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.Calls().back().priority, TARVO_PRIORITY_URGENT);
}

TEST_F(PipeRemoteCloseTest, FlagIsSetDuringTheCallbackOnly) {
    std::weak_ptr<TarvoPipeImpl> watch;
    bool during = false;
    bool atClose = true;
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    attr.callback = [&](int, TarvoRequest *) { during = watch.lock()->IsCallbackHandleRemoteClose(); };
    const Pipe pipe = OpenPipe(attr);
    watch = pipe;
    OnPublicClose([&](int) { atClose = pipe->IsCallbackHandleRemoteClose(); });
    peer.Send(RawRequest(1, "plain"));
    HandleNextEvent(pipe);
    EXPECT_TRUE(observer.RunTask());
    EXPECT_FALSE(during);
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_FALSE(pipe->IsCallbackHandleRemoteClose());
    EXPECT_TRUE(observer.RunTask());
    EXPECT_TRUE(during);
    EXPECT_FALSE(atClose);
    EXPECT_FALSE(pipe->IsCallbackHandleRemoteClose());
}

TEST_F(PipeRemoteCloseTest, NoticeComesAfterEveryRequestThatIsQueued) {
    const Pipe pipe = OpenPipe(Recording(TARVO_MODE_SERVER));
    RecordTheRest();
    for (uint32_t id = 1; id <= 3; ++id) {
        peer.Send(RawRequest(id, "work"));
        HandleNextEvent(pipe);
    }
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.RunTasks(), 4U);
    EXPECT_EQ(steps, (std::vector<std::string>{"request 1", "request 2", "request 3", "null request", "close 4711",
                                               "free 4711"}));
    for (const ObserverCall &call : observer.Calls(Report::RequestIn)) {
        EXPECT_EQ(call.worker, "4711");
    }
}

TEST_F(PipeRemoteCloseTest, LastRequestAndHangUpInOneEventAreBothHandled) {
    const Pipe pipe = OpenPipe(Recording(TARVO_MODE_SERVER));
    RecordTheRest();
    peer.Send(RawRequest(9, "last words"));
    CloseRemote();
    EXPECT_EQ(HandleNextEvent(pipe), static_cast<uint32_t>(EPOLLIN | EPOLLHUP));
    EXPECT_EQ(observer.RunTasks(), 2U);
    EXPECT_EQ(steps, (std::vector<std::string>{"request 9", "null request", "close 4711", "free 4711"}));
}

TEST_F(PipeRemoteCloseTest, ConcurrentPipesAreToldOnAnyWorker) {
    const Pipe pipe = OpenPipe(Recording(TARVO_MODE_SERVER, true));
    RecordTheRest();
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.Calls().back().report, Report::AsyncRequestIn);
    EXPECT_TRUE(observer.RunTask());
    EXPECT_EQ(steps, END_OF_A_PIPE);
}

TEST_F(PipeRemoteCloseTest, NoticeThatCannotBeSubmittedClosesThePipe) {
    const FreshRestrainedLines fresh;
    const Pipe pipe = OpenPipe(Recording(TARVO_MODE_SERVER));
    observer.Answer(Report::RequestIn, -16);
    const int readFd = ReadFd();
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Observer handle request failed(-16) for readFd(" +
                                                 std::to_string(readFd) + ") remote(" + remote + ")"));
    EXPECT_EQ(observer.Count(Report::RemoteClosed), 1U);
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_TRUE(steps.empty());
}

// A callback that there is no memory to copy, once `full` says so.
struct Uncopyable {
    explicit Uncopyable(const bool &memoryIsFull) : full(memoryIsFull) {}
    Uncopyable(const Uncopyable &other) : full(other.full) {
        if (full) {
            throw std::bad_alloc();
        }
    }
    Uncopyable &operator=(const Uncopyable &) = delete;
    void operator()(int, TarvoRequest *) const {}

    const bool &full;
};

TEST_F(PipeRemoteCloseTest, WithoutMemoryForTheNoticeThePipeIsClosed) {
    const FreshRestrainedLines fresh;
    bool full = false;
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    attr.callback = Uncopyable(full);
    const Pipe pipe = OpenPipe(attr);
    CloseRemote();
    full = true;
    EXPECT_NO_THROW(HandleNextEvent(pipe));
    full = false;
    EXPECT_TRUE(log.Contains(LOG_ERR, "Observer handle request failed(-12)"));
    EXPECT_EQ(observer.Count(Report::RemoteClosed), 1U);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(PipeRemoteCloseTest, PipeThatIsBeingClosedIsNotToldAgain) {
    const Pipe pipe = OpenPipe(Recording(TARVO_MODE_SERVER));
    const std::size_t before = observer.Calls().size();
    pipe->DeInitPipe();
    pipe->HandleRemoteClosed();
    EXPECT_EQ(observer.Calls().size(), before);
    EXPECT_EQ(observer.PendingTasks(), 0U);
}

TEST_F(PipeRemoteCloseTest, CloseDuringTheSubmissionGivesTheWorkerBackAgain) {
    const Pipe pipe = OpenPipe(Recording(TARVO_MODE_SERVER));
    observer.Do(Report::RequestIn, [&](const ObserverCall &) { pipe->DeInitPipe(); });
    peer.Send(RawRequest(1, "racing"));
    HandleNextEvent(pipe);
    ASSERT_EQ(observer.Count(Report::FreeSelfWorker), 1U);
    EXPECT_EQ(observer.Calls(Report::FreeSelfWorker)[0].worker, "4711");
}

TEST_F(PipeRemoteCloseTest, ReadyEventsAreThoseOfTheReadEndAndTheLossOfTheReader) {
    constexpr auto NOTHING = 0U;
    constexpr auto IN = static_cast<uint32_t>(EPOLLIN);
    constexpr auto HUP = static_cast<uint32_t>(EPOLLHUP);
    constexpr auto ERR = static_cast<uint32_t>(EPOLLERR);
    peer.CreateFiles();
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_CLIENT));
    EXPECT_EQ(pipe->ReadyEvents(), NOTHING) << "not open";
    ASSERT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(pipe->ReadyEvents(), NOTHING);
    peer.OpenWrite();
    peer.Send(RawRequest(1, "x"));
    EXPECT_EQ(pipe->ReadyEvents(), IN);
    HandleNextEvent(pipe);
    EXPECT_EQ(pipe->ReadyEvents(), NOTHING);
    peer.CloseRead();
    EXPECT_EQ(pipe->ReadyEvents(), ERR);
    peer.CloseWrite();
    EXPECT_EQ(pipe->ReadyEvents(), HUP | ERR);
    pipe->DeInitPipe();
    EXPECT_EQ(pipe->ReadyEvents(), NOTHING) << "closed";
}

TEST_F(PipeRemoteCloseTest, InterruptedLookAtBothEndsIsRepeated) {
    peer.CreateFiles();
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_CLIENT));
    ASSERT_EQ(pipe->TimedOpen(100), 0);
    peer.OpenWrite();
    peer.Send(RawRequest(1, "x"));
    const CallCounter looks(Call::Poll, Where().ThisThread());
    const ScopedFault interrupted(Call::Poll, EINTR, Where().ThisThread().Times(2));
    EXPECT_EQ(pipe->ReadyEvents(), static_cast<uint32_t>(EPOLLIN));
    EXPECT_EQ(interrupted.Hits(), 2U);
    EXPECT_EQ(looks.Count(), 3U);
}

TEST_F(PipeRemoteCloseTest, LookThatFindsNothingIsNotRepeatedForAnEarlierInterruption) {
    peer.CreateFiles();
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_CLIENT));
    ASSERT_EQ(pipe->TimedOpen(100), 0);
    const CallCounter looks(Call::Poll, Where().ThisThread());
    errno = EINTR;
    EXPECT_EQ(pipe->ReadyEvents(), 0U);
    EXPECT_EQ(looks.Count(), 1U);
}

TEST_F(PipeRemoteCloseTest, RemoteIsLostWhenNobodyWritesAndNotWhenItIsSilent) {
    Tarvo::EpollTimeRecord record;
    peer.CreateFiles();
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_CLIENT));
    ASSERT_EQ(pipe->TimedOpen(100), 0);
    peer.CloseRead();
    EXPECT_TRUE(pipe->HasLostRemote(record)) << "never had a writer";
    peer.OpenWrite();
    EXPECT_FALSE(pipe->HasLostRemote(record)) << "has a writer";
    peer.Send(RawRequest(7, "came just then"));
    EXPECT_FALSE(pipe->HasLostRemote(record));
    EXPECT_EQ(pipe->GetInReqList().size(), 1U) << "and is handled";
    peer.CloseWrite();
    EXPECT_TRUE(pipe->HasLostRemote(record));
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeRemoteCloseTest, EndOfOneOpeningDoesNotCloseTheNext) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        const Pipe pipe = OpenPipe(Attr(mode));
        const uint32_t before = pipe->Opening();
        CloseRemote();
        HandleNextEvent(pipe);
        OpenWithRemote(pipe, mode);
        ASSERT_NE(pipe->Opening(), before);
        const std::size_t reported = observer.Count(Report::RemoteClosed);
        pipe->HandleRemoteClosed(before);
        EXPECT_EQ(observer.Count(Report::RemoteClosed), reported);
        EXPECT_EQ(SendText(pipe, "still open"), 0);
        EXPECT_EQ(peer.Receive().payload, "still open");
        pipe->DeInitPipe();
        CloseRemote();
    }
}

TEST_F(PipeRemoteCloseTest, OpenDuringARemoteCloseComesAfterIt) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        const Pipe pipe = OpenPipe(Attr(mode));
        std::future<int> opening;
        const std::size_t opened = observer.Count(Report::PipeOpened);
        // The pipe has left its monitor, and its descriptors are still open.
        observer.Do(Report::RemoteClosed, [&](const ObserverCall &) {
            const CallCounter asks(Call::ClockGettime);
            opening = InBackground([&] { return pipe->TimedOpen(30000); });
            ASSERT_TRUE(asks.WaitFor(1));
            EXPECT_EQ(observer.Count(Report::PipeOpened), opened);
        });
        CloseRemote();
        HandleNextEvent(pipe);
        observer.Do(Report::RemoteClosed, nullptr);
        if (mode == TARVO_MODE_CLIENT) {
            peer.OpenRead();
        }
        EXPECT_EQ(opening.get(), 0);
        EXPECT_EQ(observer.Count(Report::PipeOpened), opened + 1) << "registered anew";
        pipe->DeInitPipe();
        observer.DropTasks();
        peer.CloseRead();
    }
}

TEST_F(PipeRemoteCloseTest, RetiredPipeIsNotRegisteredByAnOpenUnderWay) {
    const FreshRestrainedLines fresh;
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    const ScopedHook retire(
        Call::Open, [&](const CallInfo &) { pipe->Retire(); }, Where().PathHas(readFile));
    EXPECT_EQ(pipe->TimedOpen(100), -ECANCELED);
    EXPECT_EQ(observer.Count(Report::PipeOpened), 0U);
    pipe->DeInitPipe();
    EXPECT_TRUE(OwnFifoFiles().empty());
}

// Whether a copy of the user's callback came into being or went while the pipe could not be closed by its remote.
struct CopiesUnderLock {
    explicit CopiesUnderLock(std::function<void()> onCopy) : copied(std::move(onCopy)) {}
    CopiesUnderLock(const CopiesUnderLock &other) : copied(other.copied) { copied(); }
    CopiesUnderLock &operator=(const CopiesUnderLock &) = delete;
    ~CopiesUnderLock() = default;
    void operator()(int, TarvoRequest *) const {}

    std::function<void()> copied;
};

TEST_F(PipeRemoteCloseTest, CallbackObjectIsNotCopiedUnderALock) {
    std::weak_ptr<TarvoPipeImpl> watch;
    std::atomic<int> copies{0};
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    // A copy that waits for another thread, which wants every lock of the pipe.
    attr.callback = CopiesUnderLock([&] {
        const Pipe owner = watch.lock();
        if (owner && ++copies == 1) {
            InBackground([&] {
                owner->HandleRemoteClosed(owner->Opening() + 1);
                owner->Retire();
            }).get();
        }
    });
    for (const bool concurrent : {false, true}) {
        attr.isConcur = concurrent;
        const Pipe pipe = OpenPipe(attr);
        watch = pipe;
        copies = 0;
        CloseRemote();
        HandleNextEvent(pipe);
        EXPECT_GE(copies, 1);
        watch.reset();
        observer.DropTasks();
        pipe->DeInitPipe();
    }
}

TEST_F(PipeRemoteCloseTest, ReopenedPipeWorksWithTheRemotesNextRun) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    CloseRemote();
    HandleNextEvent(pipe);
    OpenWithRemote(pipe, TARVO_MODE_SERVER);
    EXPECT_EQ(SendText(pipe, "anew"), 0);
    EXPECT_EQ(peer.Receive().payload, "anew");
    EXPECT_EQ(TryCall(pipe), 0);
}

// The remote is another process with the library: it opens its end, sends a request, and stays until it is told.
class RemoteProcessTest : public PipeRemoteCloseTest {
protected:
    int BeTheRemote(Channel &channel, TarvoMode mode) {
        RecordingObserver table;
        TarvoAttr attr;
        attr.selfName = remote.c_str();
        attr.targetName = self.c_str();
        attr.timeout = 30000;
        attr.mode = mode;
        const auto end = std::make_shared<TarvoPipeImpl>(attr, table);
        if (!channel.Await() || end->TimedOpen(30000) != 0 || !channel.Signal() || !channel.Await()) {
            return 1;
        }
        char data[] = "from afar";
        if (end->Send(TarvoRequest{77, data, 9}, 0) != 0 || !channel.Signal()) {
            return 2;
        }
        // Leaves without closing anything, as a process does that exits with open pipes.
        static_cast<void>(channel.Await());
        _exit(0);
    }

    // The two open the pipe, and the remote's request is taken in.
    Pipe Meet(ChildProcess &process, const TarvoAttr &attr) {
        const Pipe pipe = MakePipe(attr);
        if (attr.mode == TARVO_MODE_SERVER) {
            EXPECT_EQ(pipe->TimedOpen(100), 0);
            EXPECT_TRUE(process.Signal() && process.Await());
            EXPECT_TRUE(observer.RunTask());
        } else {
            EXPECT_TRUE(process.Signal() && process.Await());
            EXPECT_EQ(pipe->TimedOpen(100), 0);
        }
        EXPECT_TRUE(process.Signal() && process.Await());
        EXPECT_EQ(HandleNextEvent(pipe), static_cast<uint32_t>(EPOLLIN));
        return pipe;
    }

    static TarvoMode Opposite(TarvoMode mode) {
        return mode == TARVO_MODE_SERVER ? TARVO_MODE_CLIENT : TARVO_MODE_SERVER;
    }

    void RemoteEnds(TarvoMode mode, bool withCallback, bool killed) {
        steps.clear();
        ChildProcess process([&](Channel &channel) { return BeTheRemote(channel, Opposite(mode)); });
        const Pipe pipe = Meet(process, withCallback ? Recording(mode) : Attr(mode));
        RecordTheRest();
        const std::size_t remoteClosed = observer.Count(Report::RemoteClosed);
        if (killed) {
            process.Kill();
        } else {
            process.Signal();
        }
        EXPECT_EQ(process.Wait(), killed ? 128 + SIGKILL : 0);
        EXPECT_EQ(HandleNextEvent(pipe), static_cast<uint32_t>(EPOLLHUP));
        char data[] = "x";
        if (withCallback) {
            // Still open, and it shows at once that nobody reads.
            EXPECT_EQ(pipe->Send(TarvoRequest{1, data, 1}, 0), -EPIPE);
            EXPECT_EQ(observer.RunTasks(), 2U);
            EXPECT_EQ(steps, (std::vector<std::string>{"request 77", "null request", "close 4711", "free 4711"}));
            pipe->DeInitPipe();
        } else {
            EXPECT_EQ(pipe->Send(TarvoRequest{1, data, 1}, 0), -1);
            EXPECT_EQ(observer.Count(Report::RemoteClosed), remoteClosed + 1);
        }
        // A remote that created the files and ended without closing has left them behind.
        EXPECT_EQ(OwnFifoFiles().size(), mode == TARVO_MODE_SERVER ? 0U : 2U);
        RemoveOwnFifoFiles();
    }
};

TEST_F(RemoteProcessTest, ExitIsNoticed) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        RemoteEnds(mode, false, false);
        RemoteEnds(mode, true, false);
    }
}

TEST_F(RemoteProcessTest, KillIsNoticed) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        RemoteEnds(mode, false, true);
        RemoteEnds(mode, true, true);
    }
}

} // namespace
} // namespace tarvo_test
