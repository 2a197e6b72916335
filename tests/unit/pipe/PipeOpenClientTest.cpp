// Opening when the remote creates the files: waiting for them, and for somebody to read what this side writes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// From 40 us, doubled up to 20 ms; the last one is what is left of the budget.
const std::vector<int64_t> SLEEPS_OF_100_MS = {40,   80,    160,   320,   640,   1280, 2560,
                                               5120, 10240, 20000, 20000, 20000, 19560};
const std::vector<int64_t> SLEEPS_OF_1_MS = {40, 80, 160, 320, 400};

class PipeOpenClientTest : public PipeTest {
protected:
    Pipe MakeClientPipe(int timeout = 100) {
        TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
        attr.timeout = timeout;
        return MakePipe(attr);
    }

    // Another FIFO takes the place of the remote's for as long as it is being opened.
    void OpenWhileAnotherTakesItsPlace(const std::string &file) {
        peer.CreateFiles();
        const std::string aside = file + "aside";
        std::atomic<int> reader{-1};
        const ScopedHook swap(
            Call::Open,
            [&](const CallInfo &) {
                EXPECT_EQ(rename(file.c_str(), aside.c_str()), 0);
                EXPECT_EQ(mkfifo(file.c_str(), 0660), 0);
                reader = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            },
            Where().Path(file));
        const ScopedHook swapBack(
            Call::Lstat, [&](const CallInfo &) { EXPECT_EQ(rename(aside.c_str(), file.c_str()), 0); },
            Where().Path(file).If([&](const CallInfo &) { return reader >= 0; }));
        const Pipe pipe = MakeClientPipe(20000);
        EXPECT_EQ(pipe->TimedOpen(20000), 0);
        EXPECT_EQ(swapBack.Hits(), 1U);
        EXPECT_EQ(Troubles(), std::vector<std::string>());
        close(reader);
    }

    std::string WaitLine(int ret) const {
        return "Wait write FIFO (" + writeFile + ") timeout. ret = " + std::to_string(ret) + ".";
    }

    std::string OpenWriteLine(int ret) const {
        return "OpenWriteFifo (" + writeFile + ") failed. ret = " + std::to_string(ret) + ".";
    }
};

TEST_F(PipeOpenClientTest, FilesThatAreThereAreOpenedWithoutSleeping) {
    const RecordedSleeps sleeps;
    peer.CreateFiles();
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_TRUE(sleeps.Sleeps().empty());
    const std::vector<ObserverCall> calls = observer.Calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].report, Report::PipeOpened);
    EXPECT_EQ(calls[0].fd, HANDLE);
    EXPECT_EQ(calls[0].pipe.lock(), pipe);
    EXPECT_EQ(OpenDescriptors().at(calls[0].readFd), readFile);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeOpenClientTest, BothEndsNeverBlockAndAreNotInherited) {
    peer.CreateFiles();
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    int checked = 0;
    for (const auto &[fd, file] : OpenDescriptors()) {
        const int access = file == readFile ? O_RDONLY : O_WRONLY;
        if (file == readFile || (file == writeFile && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY)) {
            EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), access | O_NONBLOCK);
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
            ++checked;
        }
    }
    EXPECT_EQ(checked, 2);
}

TEST_F(PipeOpenClientTest, MissingRemoteTimesOutAfterExactlyTheBudget) {
    const RecordedSleeps sleeps;
    const Pipe pipe = MakeClientPipe();
    const auto start = Clock::now();
    EXPECT_EQ(pipe->TimedOpen(100), -ETIMEDOUT);
    EXPECT_EQ(Clock::now() - start, milliseconds(100));
    EXPECT_EQ(sleeps.Sleeps(), SLEEPS_OF_100_MS);
    EXPECT_EQ(Troubles(), std::vector<std::string>{WaitLine(-ETIMEDOUT)});
    EXPECT_TRUE(log.ContainsExactly(LOG_WARNING, WaitLine(-ETIMEDOUT)));
    const std::vector<ObserverCall> calls = observer.Calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].report, Report::OpenFailed);
    EXPECT_EQ(calls[0].fd, HANDLE);
}

TEST_F(PipeOpenClientTest, MissingRemoteTimesOutInRealTimeToo) {
    const Pipe pipe = MakeClientPipe();
    const auto start = Clock::now();
    EXPECT_EQ(pipe->TimedOpen(100), -ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, milliseconds(100));
}

TEST_F(PipeOpenClientTest, OneMillisecondIsABudget) {
    const RecordedSleeps sleeps;
    const Pipe pipe = MakeClientPipe(1);
    EXPECT_EQ(pipe->TimedOpen(1), -ETIMEDOUT);
    EXPECT_EQ(sleeps.Sleeps(), SLEEPS_OF_1_MS);
}

TEST_F(PipeOpenClientTest, OnlyRealTimeThreadsSleepAfterTheFirstLook) {
    const std::vector<std::pair<int, unsigned>> looksBefore = {
        {SCHED_OTHER, 10}, {SCHED_BATCH, 10}, {SCHED_FIFO, 0}, {SCHED_RR, 0}};
    for (const auto &entry : looksBefore) {
        const int policy = entry.first;
        const ScopedHook scheduled(Call::SchedGetscheduler, [policy](const CallInfo &) {
            return std::optional<Outcome>(Outcome{policy, 0});
        });
        const RecordedSleeps sleeps;
        const CallCounter looks(Call::Access, Where().Path(writeFile));
        EXPECT_EQ(MakeClientPipe(1)->TimedOpen(1), -ETIMEDOUT);
        EXPECT_EQ(sleeps.Sleeps(), SLEEPS_OF_1_MS);
        EXPECT_EQ(looks.Count(), entry.second + SLEEPS_OF_1_MS.size() + 1) << policy;
    }
}

TEST_F(PipeOpenClientTest, FileThatAppearsDuringTheLastSleepIsUsed) {
    const RecordedSleeps sleeps;
    const ScopedHook late(
        Call::Sleep, [this](const CallInfo &) { peer.CreateFiles(); },
        Where().Nth(static_cast<unsigned>(SLEEPS_OF_100_MS.size())));
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(sleeps.Sleeps(), SLEEPS_OF_100_MS);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeOpenClientTest, BelowOneMillisecondWaitsWithoutLimitAndSaysSoEveryThousandAttempts) {
    for (const int timeout : {0, -1}) {
        RecordedSleeps sleeps;
        log.Clear();
        RawPeer latePeer(remote, self);
        std::vector<unsigned> attemptsAtLine;
        const CallCounter attempts(Call::Access, Where().Path(writeFile));
        const ScopedHook line(Call::Syslog, [&](const CallInfo &) { attemptsAtLine.push_back(attempts.Count()); });
        // The line itself is written once in 600 s only: not at the second thousand.
        const ScopedHook later(
            Call::Sleep, [&sleeps](const CallInfo &) { sleeps.clock.Advance(std::chrono::seconds(600)); },
            Where().Nth(2500));
        const ScopedHook late(
            Call::Sleep, [&latePeer](const CallInfo &) { latePeer.CreateFiles(); }, Where().Nth(3500));
        const Pipe pipe = MakeClientPipe(timeout);
        EXPECT_EQ(pipe->TimedOpen(timeout), 0);
        EXPECT_EQ(sleeps.Sleeps().size(), 3500U);
        EXPECT_EQ(sleeps.Sleeps().back(), 20000);
        EXPECT_EQ(attemptsAtLine, (std::vector<unsigned>{1000, 3000}));
        EXPECT_EQ(log.CountExactly(LOG_WARNING,
                                   "AppWaitForPipeReady fifoName(" + writeFile + ") not exist, remote(" + remote + ")"),
                  2U);
    }
}

TEST_F(PipeOpenClientTest, RemoteThatComesLateIsWaitedFor) {
    const Pipe pipe = MakeClientPipe(30000);
    const CallCounter attempts(Call::Access, Where().Path(writeFile));
    auto opening = InBackground([&] { return pipe->TimedOpen(30000); });
    ASSERT_TRUE(attempts.WaitFor(5));
    peer.CreateFiles();
    EXPECT_EQ(opening.get(), 0);
    peer.OpenWrite();
    EXPECT_EQ(SendText(pipe, "late"), 0);
    EXPECT_EQ(peer.Receive().payload, "late");
}

TEST_F(PipeOpenClientTest, FilesOfADeadRemoteTimeOut) {
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0660), 0);
    ASSERT_EQ(mkfifo(readFile.c_str(), 0660), 0);
    const RecordedSleeps sleeps;
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), -ETIMEDOUT);
    EXPECT_EQ(sleeps.Sleeps(), SLEEPS_OF_100_MS);
    EXPECT_EQ(Troubles(), std::vector<std::string>{OpenWriteLine(-ETIMEDOUT)});
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, OpenWriteLine(-ETIMEDOUT)));
    EXPECT_EQ(observer.Count(Report::OpenFailed), 1U);
    RemoveOwnFifoFiles();
}

TEST_F(PipeOpenClientTest, FilesOfADeadRemoteThatComesBackAreUsedThen) {
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0660), 0);
    ASSERT_EQ(mkfifo(readFile.c_str(), 0660), 0);
    const Pipe pipe = MakeClientPipe(30000);
    const CallCounter attempts(Call::Open, Where().PathHas(writeFile));
    auto opening = InBackground([&] { return pipe->TimedOpen(30000); });
    ASSERT_TRUE(attempts.WaitFor(5));
    peer.CreateFiles();
    EXPECT_EQ(opening.get(), 0);
    EXPECT_FALSE(log.Contains(LOG_ERR, "OpenWriteFifo"));
}

TEST_F(PipeOpenClientTest, ReaderIsWaitedForWithoutLimitBelowOneMillisecond) {
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0660), 0);
    ASSERT_EQ(mkfifo(readFile.c_str(), 0660), 0);
    const RecordedSleeps sleeps;
    const ScopedHook late(
        Call::Sleep, [this](const CallInfo &) { peer.CreateFiles(); }, Where().Nth(1500));
    const Pipe pipe = MakeClientPipe(0);
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    EXPECT_EQ(sleeps.Sleeps().size(), 1500U);
}

// The wait for the file to write to follows the argument, all else the attribute.
TEST_F(PipeOpenClientTest, ArgumentLimitsTheWaitForTheWriteFileOnly) {
    const RecordedSleeps sleeps;
    const Pipe pipe = MakeClientPipe(100);
    EXPECT_EQ(pipe->TimedOpen(1), -ETIMEDOUT);
    EXPECT_EQ(sleeps.Sleeps(), SLEEPS_OF_1_MS);
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0660), 0);
    EXPECT_EQ(pipe->TimedOpen(1), -ETIMEDOUT);
    EXPECT_EQ(sleeps.Total(), 1000 + 100000);
    RemoveOwnFifoFiles();
}

TEST_F(PipeOpenClientTest, MissingReadFileTimesOutWithinTheAttributesBudget) {
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0660), 0);
    peer.OpenRead();
    const RecordedSleeps sleeps;
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(0), -ETIMEDOUT);
    EXPECT_EQ(sleeps.Sleeps(), SLEEPS_OF_100_MS);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Wait FIFO (" + readFile + ") failed."));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe readFd failed, ret = -110, pipeName = " + readFile + "."));
    EXPECT_EQ(Troubles().size(), 2U);
    EXPECT_EQ(observer.Count(Report::OpenFailed), 1U);

    // Nothing was torn down; the next open goes on from there.
    ASSERT_EQ(mkfifo(readFile.c_str(), 0660), 0);
    EXPECT_EQ(pipe->TimedOpen(0), 0);
    RemoveOwnFifoFiles();
}

TEST_F(PipeOpenClientTest, HardErrorOfTheWriteEndEndsTheOpenAtOnce) {
    peer.CreateFiles();
    const RecordedSleeps sleeps;
    const ScopedFault denied(Call::Open, EACCES, Where().PathHas(writeFile));
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), -EACCES);
    EXPECT_TRUE(sleeps.Sleeps().empty());
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, OpenWriteLine(-EACCES)));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe to " + remote + " failed, err = -13, errno = 13."));
    EXPECT_EQ(observer.Count(Report::OpenFailed), 1U);
    EXPECT_EQ(pipe->TimedOpen(100), 0);
}

TEST_F(PipeOpenClientTest, ReportedErrnoIsOfThisOpen) {
    const FreshRestrainedLines fresh;
    TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
    attr.selfName = "";
    const Pipe pipe = MakePipe(attr);
    errno = EPERM;
    EXPECT_EQ(pipe->TimedOpen(100), -EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe to " + remote + " failed, err = -22, errno = 0."));
}

TEST_F(PipeOpenClientTest, FileThatIsNoFifoIsReportedWithTheErrnoOfItsRefusal) {
    const FreshRestrainedLines fresh;
    close(open(writeFile.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), -EACCES);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe to " + remote + " failed, err = -13, errno = 13."));
    RemoveOwnFifoFiles();
}

TEST_F(PipeOpenClientTest, WriteEndIsTriedAgainWhileSomethingMayStillComeRight) {
    peer.CreateFiles();
    const RecordedSleeps sleeps;
    // The first look and ten more, without a sleep before them.
    const ScopedFault missing(Call::Open, ENOENT, Where().PathHas(writeFile).Times(11));
    const ScopedFault unread(Call::Open, ENXIO, Where().PathHas(writeFile).Nth(12));
    const ScopedFault crowded(Call::Open, EMFILE, Where().PathHas(writeFile).Nth(13));
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(sleeps.Sleeps(), (std::vector<int64_t>{40, 80, 160}));
}

TEST_F(PipeOpenClientTest, LastErrorOfTheWriteEndIsTheResult) {
    peer.CreateFiles();
    for (const int error : {ENOENT, EMFILE}) {
        const RecordedSleeps sleeps;
        const ScopedFault fault(Call::Open, error, Where().PathHas(writeFile).Always());
        const Pipe pipe = MakeClientPipe();
        EXPECT_EQ(pipe->TimedOpen(100), -error);
        EXPECT_EQ(sleeps.Sleeps(), SLEEPS_OF_100_MS);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe to " + remote + " failed, err = -" + std::to_string(error) +
                                                     ", errno = " + std::to_string(error) + "."));
    }
}

TEST_F(PipeOpenClientTest, ProcessWithoutSpareDescriptorsOpensOnceItHasOne) {
    peer.CreateFiles();
    const FreshRestrainedLines fresh;
    const Pipe pipe = MakeClientPipe(50);
    {
        const DescriptorLimit limit(0);
        EXPECT_EQ(pipe->TimedOpen(50), -EMFILE);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, OpenWriteLine(-EMFILE)));
    }
    {
        const DescriptorLimit limit(1);
        EXPECT_EQ(pipe->TimedOpen(50), -EMFILE);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe readFd failed, ret = -24, pipeName = " + readFile + "."));
    }
    EXPECT_EQ(pipe->TimedOpen(50), 0);
    EXPECT_EQ(observer.Count(Report::OpenFailed), 2U);
    EXPECT_EQ(observer.Count(Report::PipeOpened), 1U);
}

TEST_F(PipeOpenClientTest, ReadEndThatCannotBeOpenedIsTold) {
    peer.CreateFiles();
    const FreshRestrainedLines fresh;
    const ScopedFault denied(Call::Open, EACCES, Where().PathHas(readFile));
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), -EACCES);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open fifoFd with flag(" +
                                                 std::to_string(O_RDONLY | O_NONBLOCK | O_CLOEXEC) + ") of fifo(" +
                                                 readFile + ") failed, err = -13, remote is " + remote));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe readFd failed, ret = -13, pipeName = " + readFile + "."));
    EXPECT_EQ(observer.Count(Report::OpenFailed), 1U);
    EXPECT_EQ(pipe->TimedOpen(100), 0);
}

TEST_F(PipeOpenClientTest, WriteFifoThatWasAnotherForAMomentIsLookedForAgain) {
    OpenWhileAnotherTakesItsPlace(writeFile);
}

TEST_F(PipeOpenClientTest, ReadFifoThatWasAnotherForAMomentIsLookedForAgain) {
    OpenWhileAnotherTakesItsPlace(readFile);
}

TEST_F(PipeOpenClientTest, ReadFileThatIsGoneAgainIsWaitedForWithinTheBudget) {
    const RecordedSleeps sleeps;
    peer.CreateFiles();
    const ScopedHook vanish(
        Call::Open, [&](const CallInfo &) { unlink(readFile.c_str()); }, Where().Path(readFile));
    const Pipe pipe = MakeClientPipe();
    const auto start = Clock::now();
    EXPECT_EQ(pipe->TimedOpen(100), -ETIMEDOUT);
    EXPECT_EQ(Clock::now() - start, milliseconds(100));
    EXPECT_EQ(vanish.Hits(), 1U);
}

// There when it is looked for, and never when it is opened. Nothing is slept: only the tries take time.
TEST_F(PipeOpenClientTest, ReadFileThatIsGoneAtEachOpenEndsWithTheBudget) {
    RecordedSleeps sleeps;
    peer.CreateFiles();
    const ScopedHook gone(
        Call::Open,
        [&](const CallInfo &) {
            sleeps.clock.Advance(milliseconds(30));
            return std::optional<Outcome>(Outcome{-1, ENOENT});
        },
        Where().Path(readFile).Times(100));
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), -ETIMEDOUT);
    EXPECT_EQ(gone.Hits(), 4U);
    EXPECT_TRUE(sleeps.Sleeps().empty());
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open pipe readFd failed, ret = -110, pipeName = " + readFile + "."));
}

TEST_F(PipeOpenClientTest, WriteEndOfDescriptorZeroCountsAsNotOpen) {
    peer.CreateFiles();
    const Pipe pipe = MakeClientPipe();
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ASSERT_GE(input, 0);
    close(STDIN_FILENO);
    EXPECT_EQ(pipe->OpenWriteFifo(), STDIN_FILENO);
    const int second = pipe->OpenWriteFifo();
    EXPECT_GT(second, STDIN_FILENO);
    EXPECT_EQ(pipe->OpenWriteFifo(), second);
    EXPECT_EQ(OpenDescriptors().at(second), writeFile);
    dup2(input, STDIN_FILENO);
    close(input);
    EXPECT_EQ(pipe->TimedOpen(100), 0);
}

TEST_F(PipeOpenClientTest, NoBackgroundTaskIsNeeded) {
    peer.CreateFiles();
    const Pipe pipe = MakeClientPipe();
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(observer.Count(Report::AsyncRequestIn), 0U);
}

TEST_F(PipeOpenClientTest, FixedIntervalStaysTheSame) {
    const RecordedSleeps sleeps;
    const Pipe pipe = MakeClientPipe(100);
    EXPECT_EQ(pipe->RetryOpenWriteFifo(30000), -ENOENT);
    EXPECT_EQ(sleeps.Sleeps(), (std::vector<int64_t>{30000, 30000, 30000, 10000}));
}

} // namespace
} // namespace tarvo_test
