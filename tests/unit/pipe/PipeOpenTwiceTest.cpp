// Opening an open pipe, a closed one, one that another thread is opening, and one that is closed meanwhile.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

using std::chrono::milliseconds;

class PipeOpenTwiceTest : public PipeTest {
protected:
    // Opens on another thread and returns once that waits for the remote's files.
    std::future<int> StartOpening(const Pipe &pipe, int timeout) const {
        const CallCounter attempts(Call::Access, Where().Path(writeFile));
        auto opening = InBackground([=] { return pipe->TimedOpen(timeout); });
        EXPECT_TRUE(attempts.WaitFor(3));
        return opening;
    }

    Pipe MakeClientPipe(int timeout) {
        TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
        attr.timeout = timeout;
        return MakePipe(attr);
    }

    void ExpectTraffic(const Pipe &pipe) {
        EXPECT_EQ(SendText(pipe, "traffic"), 0);
        EXPECT_EQ(peer.Receive().payload, "traffic");
    }
};

TEST_F(PipeOpenTwiceTest, OpenPipeIsLeftAsItIs) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        const Pipe pipe = OpenPipe(Attr(mode));
        const CallCounter opens(Call::Open);
        const CallCounter creations(Call::Mkfifo);
        const std::size_t reports = observer.Calls().size();
        EXPECT_EQ(pipe->TimedOpen(100), 0);
        EXPECT_EQ(opens.Count() + creations.Count(), 0U);
        EXPECT_EQ(observer.Calls().size(), reports);
        ExpectTraffic(pipe);
        CloseRemote();
        EXPECT_EQ(pipe->CloseFd(), 0);
    }
}

TEST_F(PipeOpenTwiceTest, ClosedPipeCanBeOpenedAgain) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        const Pipe pipe = MakePipe(Attr(mode));
        for (int round = 0; round < 3; ++round) {
            OpenWithRemote(pipe, mode);
            ExpectTraffic(pipe);
            TarvoRequest request{};
            TarvoResponse response{};
            EXPECT_EQ(pipe->RecordOutRequest(request, response, 100), 0);
            pipe->DeInitPipe();
            EXPECT_EQ(pipe->RecordOutRequest(request, response, 100), -EPIPE);
            CloseRemote();
        }
    }
    EXPECT_EQ(observer.Count(Report::PipeOpened), 6U);
}

TEST_F(PipeOpenTwiceTest, SecondThreadTimesOutWhileTheFirstWaits) {
    FakeClock clock;
    const Pipe pipe = MakeClientPipe(0);
    auto first = StartOpening(pipe, -1);
    auto second = InBackground([&] { return pipe->TimedOpen(5000); });
    ASSERT_TRUE(clock.WaitUntilWaiting(1, milliseconds(1000)));
    clock.Advance(milliseconds(5000));
    EXPECT_EQ(second.get(), -ETIMEDOUT);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Open readFd(-1) remote(" + remote + ") timed out"));
    // It has failed before it could change anything.
    EXPECT_EQ(observer.Count(Report::OpenFailed), 0U);
    peer.CreateFiles();
    EXPECT_EQ(first.get(), 0);
}

TEST_F(PipeOpenTwiceTest, SecondThreadWithoutBudgetDoesNotWait) {
    const Pipe pipe = MakeClientPipe(0);
    auto first = StartOpening(pipe, -1);
    EXPECT_EQ(pipe->TimedOpen(0), -ETIMEDOUT);
    peer.CreateFiles();
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(pipe->TimedOpen(0), 0);
}

TEST_F(PipeOpenTwiceTest, SecondThreadFindsThePipeThatTheFirstHasOpened) {
    FakeClock clock;
    const Pipe pipe = MakeClientPipe(0);
    auto first = StartOpening(pipe, -1);
    auto second = InBackground([&] { return pipe->TimedOpen(60000); });
    ASSERT_TRUE(clock.WaitUntilWaiting(1, milliseconds(1000)));
    peer.CreateFiles();
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(observer.Count(Report::PipeOpened), 1U);
}

TEST_F(PipeOpenTwiceTest, CloseEndsTheWaitForTheFile) {
    const FreshRestrainedLines fresh;
    const Pipe pipe = MakeClientPipe(0);
    auto opening = StartOpening(pipe, -1);
    EXPECT_EQ(pipe->CloseFd(), 0);
    EXPECT_EQ(opening.get(), -ECANCELED);
    // A cancelled open is no failure of its own.
    EXPECT_EQ(Troubles(), std::vector<std::string>{"Wait write FIFO (" + writeFile + ") timeout. ret = -125."});
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Wait write FIFO"));
    ASSERT_EQ(observer.Calls().size(), 1U);
    EXPECT_EQ(observer.Calls()[0].report, Report::OpenFailed);
    EXPECT_EQ(observer.Calls()[0].fd, HANDLE);
}

TEST_F(PipeOpenTwiceTest, CloseEndsTheWaitForTheReader) {
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0660), 0);
    const Pipe pipe = MakeClientPipe(0);
    const CallCounter attempts(Call::Open, Where().PathHas(writeFile));
    auto opening = InBackground([&] { return pipe->TimedOpen(-1); });
    ASSERT_TRUE(attempts.WaitFor(3));
    EXPECT_EQ(pipe->CloseFd(), 0);
    EXPECT_EQ(opening.get(), -1);
    EXPECT_EQ(observer.Count(Report::OpenFailed), 1U);
    RemoveOwnFifoFiles();
}

TEST_F(PipeOpenTwiceTest, CloseEndsTheWaitForTheReadFile) {
    ASSERT_EQ(mkfifo(writeFile.c_str(), 0660), 0);
    peer.OpenRead();
    const Pipe pipe = MakeClientPipe(0);
    const CallCounter attempts(Call::Access, Where().Path(readFile));
    auto opening = InBackground([&] { return pipe->TimedOpen(-1); });
    ASSERT_TRUE(attempts.WaitFor(3));
    EXPECT_EQ(pipe->CloseFd(), 0);
    EXPECT_EQ(opening.get(), -ECANCELED);
    EXPECT_EQ(observer.Count(Report::OpenFailed), 1U);
    RemoveOwnFifoFiles();
}

TEST_F(PipeOpenTwiceTest, CloseWhileTheReadEndIsOpenedLeavesNothingBehind) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        if (mode == TARVO_MODE_CLIENT) {
            peer.CreateFiles();
        }
        const Pipe pipe = MakePipe(Attr(mode));
        const ScopedHook close(
            Call::Open, [&](const CallInfo &) { EXPECT_EQ(pipe->CloseFd(), 0); }, Where().PathHas(readFile));
        EXPECT_EQ(pipe->TimedOpen(100), -ECANCELED);
        EXPECT_EQ(close.Hits(), 1U);
        EXPECT_EQ(OwnFifoFiles().size(), mode == TARVO_MODE_CLIENT ? 2U : 0U);
        EXPECT_EQ(observer.Count(Report::PipeOpened), 0U);
        for (const auto &[fd, file] : OpenDescriptors()) {
            EXPECT_NE(file, mode == TARVO_MODE_SERVER ? writeFile : "");
        }
        EXPECT_EQ(TryCall(pipe), -EPIPE);
    }
    EXPECT_EQ(observer.Count(Report::OpenFailed), 2U);
}

TEST_F(PipeOpenTwiceTest, CloseWhileTheFirstFileIsCreatedLeavesNothingBehind) {
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    // The file comes into being after the close has looked for it.
    const ScopedHook close(
        Call::Link, [&](const CallInfo &) { pipe->DeInitPipe(); }, Where().PathHas(writeFile));
    EXPECT_EQ(pipe->TimedOpen(100), -ECANCELED);
    EXPECT_EQ(close.Hits(), 1U);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(PipeOpenTwiceTest, DescriptorIsNotClosedWhileItIsBeingRegistered) {
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    std::future<int> closing;
    std::unique_ptr<CallCounter> closes;
    observer.Do(Report::PipeOpened, [&](const ObserverCall &call) {
        closes = std::make_unique<CallCounter>(Call::Close, Where().Fd(call.readFd));
        closing = InBackground([&] { return pipe->CloseFd(); });
        // The close has begun once the pipe takes no more requests.
        while (pipe->HandleRequest(nullptr, [](int, TarvoRequest *) {}) == 0) {
        }
        EXPECT_EQ(closes->Count(), 0U);
        EXPECT_EQ(OpenDescriptors().at(call.readFd), readFile);
    });
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(closing.get(), 0);
    EXPECT_EQ(closes->Count(), 1U);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(PipeOpenTwiceTest, OpenDuringACloseComesAfterIt) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    CloseRemote();
    std::future<int> opening;
    {
        // The close has closed its descriptors and is about to remove the files.
        const ScopedHook removing(
            Call::Unlink, [&](const CallInfo &) { opening = InBackground([&] { return pipe->TimedOpen(-1); }); },
            Where().Path(readFile));
        pipe->DeInitPipe();
    }
    EXPECT_EQ(opening.get(), 0);
    EXPECT_EQ(OwnFifoFiles().size(), 2U);
    EXPECT_EQ(TryCall(pipe), 0);
}

} // namespace
} // namespace tarvo_test
