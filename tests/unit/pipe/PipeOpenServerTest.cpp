// Opening when this side creates the files; the write end follows in the background once the remote reads.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <future>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

using std::chrono::microseconds;

class PipeOpenServerTest : public PipeTest {
protected:
    TarvoAttr Server(int timeout = 100) const {
        TarvoAttr attr = Attr(TARVO_MODE_SERVER);
        attr.timeout = timeout;
        return attr;
    }

    static ino_t Inode(const std::string &file) {
        struct stat state {};
        EXPECT_EQ(stat(file.c_str(), &state), 0);
        EXPECT_TRUE(S_ISFIFO(state.st_mode));
        return state.st_ino;
    }

    bool HasWriteEnd() const {
        for (const auto &[fd, file] : OpenDescriptors()) {
            if (file == writeFile && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY) {
                return true;
            }
        }
        return false;
    }

    // The background task of `pipe` on a thread; it sleeps by the clock when this returns.
    static std::future<int> StartTask(const Pipe &pipe, const FakeClock &clock) {
        auto task = InBackground([pipe] { return TarvoPipeImpl::HandleServerOpen(pipe); });
        EXPECT_TRUE(clock.WaitUntilWaiting(1));
        return task;
    }
};

TEST_F(PipeOpenServerTest, CreatesBothFilesAndWaitsForNobody) {
    const RecordedSleeps sleeps;
    TarvoAttr attr = Server();
    attr.priority = TARVO_PRIORITY_URGENT;
    const Pipe pipe = MakePipe(attr);
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_TRUE(sleeps.Sleeps().empty());
    struct stat state {};
    ASSERT_EQ(stat(writeFile.c_str(), &state), 0);
    EXPECT_EQ(state.st_mode, static_cast<mode_t>(S_IFIFO | 0660));
    ASSERT_EQ(stat(readFile.c_str(), &state), 0);
    EXPECT_EQ(state.st_mode, static_cast<mode_t>(S_IFIFO | 0660));

    const std::vector<ObserverCall> calls = observer.Calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].report, Report::PipeOpened);
    EXPECT_EQ(calls[0].fd, HANDLE);
    EXPECT_EQ(calls[0].pipe.lock(), pipe);
    EXPECT_EQ(OpenDescriptors().at(calls[0].readFd), readFile);
    EXPECT_EQ(fcntl(calls[0].readFd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(fcntl(calls[0].readFd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(calls[1].report, Report::AsyncRequestIn);
    EXPECT_EQ(calls[1].priority, TARVO_PRIORITY_URGENT);
    EXPECT_FALSE(HasWriteEnd());
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeOpenServerTest, WriteFileIsThereBeforeTheReadFile) {
    std::vector<std::string> published;
    const ScopedHook link(Call::Link, [&](const CallInfo &info) { published.emplace_back(info.path2); });
    const Pipe pipe = MakePipe(Server());
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(published, (std::vector<std::string>{writeFile, readFile}));
}

TEST_F(PipeOpenServerTest, GroupOfTheAttributeIsSet) {
    const CallCounter group(Call::Chown, Where().If([](const CallInfo &info) { return info.size == 4321; }));
    TarvoAttr attr = Server();
    attr.gid = 4321;
    const Pipe pipe = MakePipe(attr);
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_GE(group.Count(), 2U);
}

TEST_F(PipeOpenServerTest, FilesAreCreatedAsTheAttributeSays) {
    TarvoAttr attr = Server(0);
    attr.gid = 4321;
    attr.targetPid = 815;
    attr.domain = TARVO_DOMAIN_DP;
    for (const char *context : {"u:r:t:s", static_cast<const char *>(nullptr)}) {
        attr.targetCon = context;
        const FifoCreations creations;
        const Pipe pipe = MakePipe(attr);
        EXPECT_EQ(pipe->TimedOpen(100), 0);
        const std::vector<FifoCreations::Creation> all = creations.All();
        ASSERT_EQ(all.size(), 2U);
        EXPECT_EQ(all[0].name, writeFile);
        EXPECT_EQ(all[1].name, readFile);
        for (const FifoCreations::Creation &creation : all) {
            EXPECT_EQ(creation.gid, 4321U);
            EXPECT_EQ(creation.targetPid, 815);
            EXPECT_EQ(creation.domain, TARVO_DOMAIN_DP);
            EXPECT_EQ(creation.targetCon, context != nullptr ? context : "");
        }
    }
}

TEST_F(PipeOpenServerTest, BackgroundTaskOpensTheWriteEndOnceTheRemoteReads) {
    const Pipe pipe = MakePipe(Server());
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    peer.OpenRead();
    EXPECT_FALSE(HasWriteEnd());
    EXPECT_TRUE(observer.RunTask());
    EXPECT_TRUE(HasWriteEnd());
}

TEST_F(PipeOpenServerTest, BackgroundTaskKeepsThePipeAlive) {
    Pipe pipe = MakePipe(Server());
    const std::weak_ptr<TarvoPipeImpl> watch = pipe;
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    pipe.reset();
    EXPECT_FALSE(watch.expired());
    observer.DropTasks();
    EXPECT_TRUE(watch.expired());
}

TEST_F(PipeOpenServerTest, WithoutABudgetThereIsNoBackgroundTask) {
    for (const int timeout : {0, -1}) {
        const Pipe pipe = MakePipe(Server(timeout));
        EXPECT_EQ(pipe->TimedOpen(100), 0);
    }
    EXPECT_EQ(observer.Count(Report::AsyncRequestIn), 0U);
    const Pipe pipe = MakePipe(Server(1));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_EQ(observer.Count(Report::AsyncRequestIn), 1U);
}

TEST_F(PipeOpenServerTest, RefusedBackgroundTaskLeavesThePipeOpen) {
    const FreshRestrainedLines fresh;
    observer.Answer(Report::AsyncRequestIn, -28);
    const Pipe pipe = MakePipe(Server());
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Observer handle request failed(-28) for readFd(" +
                                                 std::to_string(ReadFd()) + ") remote(" + remote + ")"));
    EXPECT_EQ(observer.Count(Report::OpenFailed), 0U);
    // The first send opens the write end then.
    peer.OpenBoth();
    EXPECT_EQ(SendText(pipe, "x"), 0);
}

TEST_F(PipeOpenServerTest, BackgroundTaskTriesEveryHalfSecondWithinTheBudget) {
    const RecordedSleeps sleeps;
    const Pipe pipe = MakePipe(Server(1200));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_TRUE(observer.RunTask());
    EXPECT_EQ(sleeps.Sleeps(), (std::vector<int64_t>{500000, 500000, 200000}));
}

TEST_F(PipeOpenServerTest, RemoteThatReadsBetweenTwoAttemptsIsFound) {
    const RecordedSleeps sleeps;
    const ScopedHook late(
        Call::CondTimedwait, [this](const CallInfo &) { peer.OpenRead(); }, Where().Nth(3));
    const Pipe pipe = MakePipe(Server(10000));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_TRUE(observer.RunTask());
    EXPECT_EQ(sleeps.Sleeps(), (std::vector<int64_t>{500000, 500000, 500000}));
    EXPECT_TRUE(HasWriteEnd());
    EXPECT_EQ(observer.Count(Report::RemoteClosed), 0U);
}

TEST_F(PipeOpenServerTest, RemoteThatNeverReadsCountsAsClosed) {
    const RecordedSleeps sleeps;
    const Pipe pipe = MakePipe(Server(100));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_TRUE(observer.RunTask());
    EXPECT_EQ(sleeps.Sleeps(), std::vector<int64_t>{100000});
    EXPECT_EQ(Troubles(),
              std::vector<std::string>{"Self=>Remote:" + self + "=>" + remote + " open pipe failed, ret=-110."});
    EXPECT_TRUE(log.Contains(LOG_ERR, "Self=>Remote:"));
    ASSERT_EQ(observer.Count(Report::RemoteClosed), 1U);
    EXPECT_EQ(observer.Calls(Report::RemoteClosed)[0].fd, HANDLE);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(PipeOpenServerTest, RemoteThatNeverReadsIsToldToTheCallback) {
    const RecordedSleeps sleeps;
    TarvoAttr attr = Server(100);
    attr.callback = [](int, TarvoRequest *) {};
    const Pipe pipe = MakePipe(attr);
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_TRUE(observer.RunTask());
    EXPECT_EQ(observer.Count(Report::RequestIn), 1U);
    EXPECT_EQ(observer.Count(Report::RemoteClosed), 0U);
}

TEST_F(PipeOpenServerTest, PipeClosedBeforeTheBackgroundTaskIsNotReopened) {
    const Pipe pipe = MakePipe(Server(100));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_EQ(pipe->CloseFd(), 0);
    log.Clear();
    const CallCounter opens(Call::Open, Where().PathHas(self));
    const RecordedSleeps sleeps;
    EXPECT_TRUE(observer.RunTask());
    EXPECT_EQ(opens.Count(), 0U);
    EXPECT_TRUE(sleeps.Sleeps().empty());
    EXPECT_EQ(Troubles(), std::vector<std::string>());
    EXPECT_EQ(observer.Count(Report::RemoteClosed), 1U);
}

TEST_F(PipeOpenServerTest, BackgroundTaskYieldsTheWriteEndOrWhyThereIsNone) {
    const RecordedSleeps sleeps;
    const Pipe unread = MakePipe(Server(100));
    EXPECT_EQ(unread->TimedOpen(0), 0);
    EXPECT_EQ(TarvoPipeImpl::HandleServerOpen(unread), -ETIMEDOUT);
    EXPECT_EQ(TarvoPipeImpl::HandleServerOpen(unread), -1) << "closed meanwhile";
    const Pipe pipe = MakePipe(Server(100));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    peer.OpenRead();
    const int fd = TarvoPipeImpl::HandleServerOpen(pipe);
    ASSERT_TRUE(HasWriteEnd());
    EXPECT_EQ(OpenDescriptors().at(fd), writeFile);
}

// The task sleeps half a second at a time: news must end that sleep.
TEST_F(PipeOpenServerTest, CloseEndsTheBackgroundTaskAtOnce) {
    const FakeClock frozen(FakeClock::Mode::Frozen);
    const Pipe pipe = MakePipe(Server(2000));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    auto task = StartTask(pipe, frozen);
    pipe->DeInitPipe();
    EXPECT_EQ(task.get(), -1);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeOpenServerTest, SendThatOpensTheWriteEndEndsTheBackgroundTask) {
    const FakeClock frozen(FakeClock::Mode::Frozen);
    const Pipe pipe = MakePipe(Server(2000));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    auto task = StartTask(pipe, frozen);
    peer.OpenBoth();
    EXPECT_EQ(SendText(pipe, "x"), 0);
    const int fd = task.get();
    EXPECT_EQ(OpenDescriptors().at(fd), writeFile);
}

TEST_F(PipeOpenServerTest, BackgroundTaskOfAnEarlierOpeningEndsAndClosesNothing) {
    const FakeClock frozen(FakeClock::Mode::Frozen);
    const Pipe pipe = MakePipe(Server(2000));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    auto task = StartTask(pipe, frozen);
    // The task sees neither: the pipe is open again before it has got the mutex.
    pipe->DeInitPipe();
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_EQ(task.get(), -1);
    peer.OpenBoth();
    EXPECT_EQ(SendText(pipe, "x"), 0);
}

TEST_F(PipeOpenServerTest, FilesOfAnEarlierRunAreReplaced) {
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0600), 0);
    const ino_t old = Inode(writeFile);
    // Keeps the inode in use, and holds what was left unread.
    const int reader = open(writeFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int plain = open(readFile.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    const Pipe pipe = MakePipe(Server());
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_NE(Inode(writeFile), old);
    Inode(readFile);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
    close(reader);
    close(plain);
}

TEST_F(PipeOpenServerTest, FileThatCannotBeCreatedFailsTheOpen) {
    for (const std::string *file : {&writeFile, &readFile}) {
        const FreshRestrainedLines fresh;
        const ScopedFault denied(Call::Mkfifo, EACCES, Where().Path(*file));
        const Pipe pipe = MakePipe(Server());
        EXPECT_EQ(pipe->TimedOpen(100), -EACCES);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Create FIFO (" + *file + ") failed."));
        EXPECT_EQ(pipe->TimedOpen(100), 0);
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe to " + remote + " failed, err = -13, errno = 13."));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe readFd failed, ret = -13, pipeName = " + readFile + "."));
    EXPECT_EQ(observer.Count(Report::OpenFailed), 2U);
    EXPECT_EQ(observer.Count(Report::PipeOpened), 2U);
}

TEST_F(PipeOpenServerTest, ProcessWithoutSpareDescriptorsOpensOnceItHasOne) {
    const FreshRestrainedLines fresh;
    const Pipe pipe = MakePipe(Server());
    {
        const DescriptorLimit limit(0);
        EXPECT_EQ(pipe->TimedOpen(100), -EMFILE);
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open fifoFd with flag(" +
                                                 std::to_string(O_RDONLY | O_NONBLOCK | O_CLOEXEC) + ") of fifo(" +
                                                 readFile + ") failed, err = -24, remote is " + remote));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe readFd failed, ret = -24, pipeName = " + readFile + "."));
    ASSERT_EQ(observer.Calls().size(), 1U);
    EXPECT_EQ(observer.Calls()[0].report, Report::OpenFailed);
    EXPECT_EQ(observer.Calls()[0].fd, HANDLE);

    OpenWithRemote(pipe, TARVO_MODE_SERVER);
    EXPECT_EQ(SendText(pipe, "recovered"), 0);
    EXPECT_EQ(peer.Receive().payload, "recovered");
}

TEST_F(PipeOpenServerTest, BackgroundTaskWaitsForADescriptor) {
    const RecordedSleeps sleeps;
    const Pipe pipe = MakePipe(Server(1000));
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    peer.OpenRead();
    const ScopedFault crowded(Call::Open, EMFILE, Where().PathHas(writeFile));
    EXPECT_TRUE(observer.RunTask());
    EXPECT_EQ(sleeps.Sleeps(), std::vector<int64_t>{500000});
    EXPECT_TRUE(HasWriteEnd());
}

TEST_F(PipeOpenServerTest, RefusedRegistrationFailsTheOpen) {
    const FreshRestrainedLines fresh;
    observer.Answer(Report::PipeOpened, -29);
    const Pipe pipe = MakePipe(Server());
    EXPECT_EQ(pipe->TimedOpen(100), -29);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Notify observer to add readFd(" + std::to_string(ReadFd()) +
                                                 ") failed, remote(" + remote + ")."));
    EXPECT_EQ(observer.Count(Report::OpenFailed), 1U);
    EXPECT_EQ(observer.Count(Report::AsyncRequestIn), 0U);
}

TEST_F(PipeOpenServerTest, CallsAreAcceptedFromTheOpenOn) {
    const FreshRestrainedLines fresh;
    const Pipe pipe = MakePipe(Server());
    // Before the pipe is known to others, whose calls would be refused.
    observer.Do(Report::PipeOpened, [&](const ObserverCall &) { EXPECT_EQ(TryCall(pipe), 0); });
    EXPECT_EQ(TryCall(pipe), -EPIPE);
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(TryCall(pipe), 0);
}

// With the file's name in front, as the two records are told apart by it.
TEST_F(PipeOpenServerTest, SlowCreationIsReportedFromFiftyMillisecondsOn) {
    FreshRestrainedLines fresh(FakeClock::Mode::Frozen);
    for (const auto &[file, what] : {std::make_pair(writeFile, std::string("CreateWriteFifo ")),
                                     std::make_pair(readFile, std::string("CreateReadFifo "))}) {
        for (const int64_t taken : {49999, 50000, 70001}) {
            log.Clear();
            const Pipe pipe = MakePipe(Server(0));
            const ScopedHook slow(
                Call::Mkfifo, [&, taken = taken](const CallInfo &) { fresh.clock.Advance(microseconds(taken)); },
                Where().Path(file).Always());
            EXPECT_EQ(pipe->TimedOpen(0), 0);
            const std::string time = std::to_string(taken);
            const std::string line =
                what + file + " takes more than 50ms t10 = " + time + "us,totalTime=" + time + "us";
            EXPECT_EQ(log.CountExactly(LOG_NOTICE, line), taken >= 50000 ? 1U : 0U) << line;
            EXPECT_EQ(log.Lines().size(), taken >= 50000 ? 1U : 0U);
        }
    }
}

TEST_F(PipeOpenServerTest, SlowCreationThatFailsIsReportedToo) {
    FreshRestrainedLines fresh(FakeClock::Mode::Frozen);
    const Pipe pipe = MakePipe(Server(0));
    const ScopedHook slow(Call::Mkfifo, [&](const CallInfo &) {
        fresh.clock.Advance(std::chrono::milliseconds(60));
        return std::optional<Outcome>(Outcome{-1, ENOSPC});
    });
    EXPECT_EQ(pipe->TimedOpen(0), -ENOSPC);
    EXPECT_TRUE(log.Contains(LOG_NOTICE, "CreateWriteFifo " + writeFile + " takes more than 50ms"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Create FIFO (" + writeFile + ") failed."));
}

TEST_F(PipeOpenServerTest, ReadEndOfDescriptorZeroIsRegistered) {
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ASSERT_GE(input, 0);
    close(STDIN_FILENO);
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(ReadFd(), STDIN_FILENO);
    EXPECT_EQ(TryCall(pipe), 0);
    pipe->DeInitPipe();
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(input, STDIN_FILENO);
    close(input);
}

} // namespace
} // namespace tarvo_test
