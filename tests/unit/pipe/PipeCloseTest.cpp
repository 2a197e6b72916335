// Closing by this side: descriptors once, files by the side that made them, waiters told.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

class PipeCloseTest : public PipeTest {
protected:
    int WriteFd() const {
        for (const auto &[fd, file] : OpenDescriptors()) {
            if (file == writeFile && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY) {
                return fd;
            }
        }
        return -1;
    }

    static bool Exists(const std::string &file) { return access(file.c_str(), F_OK) == 0; }

    // The close of `fd` is made, and reported as failed.
    static ScopedHook FailingClose(int fd) {
        return ScopedHook(
            Call::Close,
            [](const CallInfo &info) {
                close(info.fd);
                return std::optional<Outcome>(Outcome{-1, EIO});
            },
            Where().Fd(fd).Always());
    }

    std::string CleanLine(const std::string &file, int error) const {
        return "clean pipe=" + file + " failed, errno = " + std::to_string(error);
    }
};

TEST_F(PipeCloseTest, PipeThatWasNeverOpenedIsNotClosed) {
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0660), 0);
    const CallCounter closes(Call::Close);
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(pipe->CloseFd(), 0);
    pipe->DeInitPipe();
    EXPECT_EQ(closes.Count(), 0U);
    EXPECT_TRUE(Exists(writeFile));
    // It did not count as closed either.
    EXPECT_EQ(pipe->TimedOpen(100), 0);
}

TEST_F(PipeCloseTest, SecondCloseDoesNothing) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        const Pipe pipe = OpenPipe(Attr(mode));
        const CallCounter readEnd(Call::Close, Where().Fd(ReadFd()));
        const CallCounter writeEnd(Call::Close, Where().Fd(WriteFd()));
        EXPECT_EQ(pipe->CloseFd(), 0);
        const CallCounter accesses(Call::Access);
        EXPECT_EQ(pipe->CloseFd(), 0);
        pipe->DeInitPipe();
        EXPECT_EQ(readEnd.Count(), 1U);
        EXPECT_EQ(writeEnd.Count(), 1U);
        EXPECT_EQ(accesses.Count(), 0U);
        EXPECT_EQ(Troubles(), std::vector<std::string>());
        CloseRemote();
    }
}

TEST_F(PipeCloseTest, SideThatCreatedTheFilesRemovesThem) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(OwnFifoFiles().size(), 2U);
    EXPECT_EQ(pipe->CloseFd(), 0);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(PipeCloseTest, SideThatFoundTheFilesLeavesThem) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_CLIENT));
    const CallCounter removals(Call::Unlink);
    EXPECT_EQ(pipe->CloseFd(), 0);
    EXPECT_EQ(removals.Count(), 0U);
    EXPECT_TRUE(Exists(writeFile));
    EXPECT_TRUE(Exists(readFile));
}

TEST_F(PipeCloseTest, ReadEndGoesBeforeTheWriteEnd) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const int readFd = ReadFd();
    const int writeFd = WriteFd();
    std::vector<std::string> steps;
    const ScopedHook closes(Call::Close,
                            [&](const CallInfo &info) { steps.push_back("close " + std::to_string(info.fd)); });
    const ScopedHook removals(Call::Unlink, [&](const CallInfo &info) { steps.emplace_back(info.path); });
    EXPECT_EQ(pipe->CloseFd(), 0);
    EXPECT_EQ(steps, (std::vector<std::string>{"close " + std::to_string(readFd), readFile,
                                               "close " + std::to_string(writeFd), writeFile}));
}

TEST_F(PipeCloseTest, PipeWithoutWriteEndIsClosedToo) {
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(pipe->CloseFd(), 0);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(PipeCloseTest, RemoteSeesBothEndsGo) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(pipe->CloseFd(), 0);
    peer.AwaitHangup();
    peer.AwaitReaderGone();
}

TEST_F(PipeCloseTest, FileThatCannotBeRemovedIsTold) {
    for (const std::string *file : {&writeFile, &readFile}) {
        log.Clear();
        const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
        const ScopedFault denied(Call::Unlink, EPERM, Where().Path(*file));
        // The result is that of the last file.
        EXPECT_EQ(pipe->CloseFd(), file == &writeFile ? -1 : 0);
        EXPECT_EQ(Troubles(), std::vector<std::string>{CleanLine(*file, EPERM)});
        EXPECT_TRUE(log.ContainsExactly(LOG_WARNING, CleanLine(*file, EPERM)));
        EXPECT_EQ(OwnFifoFiles().size(), 1U);
        RemoveOwnFifoFiles();
        CloseRemote();
    }
}

TEST_F(PipeCloseTest, FileThatIsGoneAlreadyIsNoTrouble) {
    for (const std::string *file : {&writeFile, &readFile}) {
        const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
        unlink(file->c_str());
        EXPECT_EQ(pipe->CloseFd(), file == &writeFile ? -1 : 0);
        EXPECT_EQ(Troubles(), std::vector<std::string>());
        EXPECT_TRUE(OwnFifoFiles().empty());
        CloseRemote();
    }
}

TEST_F(PipeCloseTest, FailedCloseIsToldAndNotRepeated) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const int readFd = ReadFd();
    const int writeFd = WriteFd();
    const ScopedHook readEnd = FailingClose(readFd);
    const ScopedHook writeEnd = FailingClose(writeFd);
    EXPECT_EQ(pipe->CloseFd(), 0);
    EXPECT_EQ(readEnd.Hits(), 1U);
    EXPECT_EQ(writeEnd.Hits(), 1U);
    EXPECT_EQ(Troubles(), (std::vector<std::string>{
                              "close non block readFd " + std::to_string(readFd) + " failed, errno = 5",
                              "close writeFd " + std::to_string(writeFd) + " failed, errno = 5",
                          }));
    EXPECT_EQ(log.Count(LOG_ERR, "close"), 2U);
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(pipe->CloseFd(), 0);
}

TEST_F(PipeCloseTest, CleanPipeRemovesTheFilesOfTheRemote) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_CLIENT));
    std::vector<std::string> removed;
    const ScopedHook removals(Call::Unlink, [&](const CallInfo &info) { removed.emplace_back(info.path); });
    pipe->CleanPipe();
    EXPECT_EQ(removed, (std::vector<std::string>{readFile, writeFile}));
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(Troubles(), std::vector<std::string>());
    // The pipe stays open.
    EXPECT_EQ(SendText(pipe, "still"), 0);
    EXPECT_EQ(peer.Receive().payload, "still");
    pipe->CleanPipe();
    EXPECT_EQ(removed.size(), 2U);
}

TEST_F(PipeCloseTest, CleanPipeTellsWhatItCannotRemove) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_CLIENT));
    const ScopedFault denied(Call::Unlink, EACCES, Where().Always());
    pipe->CleanPipe();
    EXPECT_TRUE(log.ContainsExactly(LOG_WARNING, CleanLine(readFile, EACCES)));
    EXPECT_TRUE(log.ContainsExactly(LOG_WARNING, CleanLine(writeFile, EACCES)));
}

TEST_F(PipeCloseTest, CleanPipeIsNotForTheSideThatCreatedTheFiles) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    pipe->CleanPipe();
    EXPECT_EQ(Troubles(), std::vector<std::string>{"CleanPipe should only be called by client, input fd(4711)"});
    EXPECT_TRUE(log.Contains(LOG_ERR, "CleanPipe"));
    EXPECT_EQ(OwnFifoFiles().size(), 2U);
}

TEST_F(PipeCloseTest, ExceptionHandlerRemovesTheFilesOfEitherMode) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        const Pipe pipe = OpenPipe(Attr(mode));
        std::vector<std::string> removed;
        const ScopedHook removals(Call::Unlink, [&](const CallInfo &info) { removed.emplace_back(info.path); });
        const CallCounter accesses(Call::Access);
        pipe->ExceptionHandler();
        pipe->ExceptionHandler();
        EXPECT_EQ(removed, (std::vector<std::string>{writeFile, readFile, writeFile, readFile}));
        EXPECT_EQ(accesses.Count(), 0U);
        EXPECT_TRUE(OwnFifoFiles().empty());
        EXPECT_EQ(Troubles(), std::vector<std::string>());
        // Nothing is closed.
        EXPECT_EQ(SendText(pipe, "still"), 0);
        CloseRemote();
    }
}

TEST_F(PipeCloseTest, CloseWakesEveryCallerThatWaits) {
    constexpr int CALLERS = 4;
    FakeClock clock;
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    std::vector<std::future<int>> callers;
    for (int i = 0; i < CALLERS; ++i) {
        callers.push_back(InBackground([&] {
            TarvoRequest request{};
            TarvoResponse response{};
            EXPECT_EQ(pipe->RecordOutRequest(request, response, 60000), 0);
            return pipe->WaitForResponse(request, 60000);
        }));
    }
    ASSERT_TRUE(clock.WaitUntilWaiting(CALLERS));
    pipe->DeInitPipe();
    for (std::future<int> &caller : callers) {
        EXPECT_EQ(caller.get(), -EPIPE);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Self=" + self + ", Remote=" + remote + " failed. Caught exception."),
              static_cast<std::size_t>(CALLERS));
    EXPECT_EQ(TryCall(pipe), -EPIPE);
}

TEST_F(PipeCloseTest, LastReferenceClosesThePipe) {
    Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const CallCounter readEnd(Call::Close, Where().Fd(ReadFd()));
    const CallCounter writeEnd(Call::Close, Where().Fd(WriteFd()));
    pipe.reset();
    EXPECT_EQ(readEnd.Count(), 1U);
    EXPECT_EQ(writeEnd.Count(), 1U);
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeCloseTest, QueuedCallbackOutlivesTheTablesReference) {
    bool called = false;
    TarvoAttr attr = Attr(TARVO_MODE_SERVER);
    attr.callback = [&called](int, TarvoRequest *) { called = true; };
    Pipe pipe = OpenPipe(attr);
    peer.Send(RawRequest(1, "queued"));
    HandleNextEvent(pipe);
    const std::weak_ptr<TarvoPipeImpl> watch = pipe;
    pipe->DeInitPipe();
    pipe.reset();
    EXPECT_FALSE(watch.expired());
    EXPECT_TRUE(observer.RunTask());
    EXPECT_TRUE(called);
    EXPECT_TRUE(watch.expired());
}

TEST_F(PipeCloseTest, RequestsThatWaitForACallbackCanBeLookedAt) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    peer.Send(RawRequest(1, "first"));
    peer.Send(RawRequest(2, "second"));
    HandleNextEvent(pipe);
    HandleNextEvent(pipe);
    pipe->DeInitPipe();
    const auto requests = pipe->GetInReqList();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests.front()->id, 1U);
    EXPECT_EQ(requests.back()->id, 2U);
    EXPECT_EQ(std::string(requests.back()->data.get(), requests.back()->length), "second");
    EXPECT_EQ(pipe->GetInReqList().size(), 2U);
}

} // namespace
} // namespace tarvo_test
