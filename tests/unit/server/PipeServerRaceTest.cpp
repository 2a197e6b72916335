// Starts, closes and ends of servers that meet each other.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <string>
#include <thread>

#include "PipeServerFixture.h"
#include "support/Faults.h"
#include "support/FifoEnds.h"
#include "support/Names.h"
#include "support/RawFrame.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

class PipeServerRaceTest : public PipeServerTest {
protected:
    // A start on another thread that waits for what this one is at.
    std::future<int> StartThatWaits() {
        std::promise<pid_t> begun;
        std::future<int> result = InBackground([&begun, this] {
            begun.set_value(gettid());
            return Start();
        });
        EXPECT_TRUE(Sleeps(begun.get_future().get()));
        return result;
    }
};

TEST_F(PipeServerRaceTest, OneOfManyConcurrentInitsStartsTheServer) {
    std::vector<std::future<int>> results;
    for (int i = 0; i < 8; ++i) {
        results.push_back(InBackground([this] { return Start(); }));
    }
    int started = 0;
    for (std::future<int> &result : results) {
        const int ret = result.get();
        EXPECT_TRUE(ret == 0 || ret == -EEXIST) << ret;
        started += ret == 0 ? 1 : 0;
    }
    EXPECT_EQ(started, 1);
}

TEST_F(PipeServerRaceTest, StartThatWaitedForAnotherIsRefused) {
    ASSERT_EQ(Start(), 0);
    Write(RawTerminatePacket());
    ASSERT_TRUE(NoServerThreads());
    std::future<int> second;
    // The first start closes what the ended run has left.
    const ScopedHook hook(
        Call::Close, [&](const CallInfo &) { second = StartThatWaits(); }, Where().Times(1));
    EXPECT_EQ(Start(), 0);
    EXPECT_EQ(second.get(), -EEXIST);
}

TEST_F(PipeServerRaceTest, StartThatComesWhileAnotherOneFailsWaitsForThatAndStarts) {
    std::future<int> second;
    const ScopedHook hook(
        Call::Flock,
        [&](const CallInfo &) {
            second = StartThatWaits();
            return Outcome{-1, ENOLCK};
        },
        Where().Times(1));
    EXPECT_EQ(Start(), -ENOLCK);
    EXPECT_EQ(second.get(), 0);
    ServeClient("client");
}

TEST_F(PipeServerRaceTest, StartThatComesWhileTheServerClosesWaitsForThatAndStarts) {
    ASSERT_EQ(Start(), 0);
    std::future<int> second;
    {
        const ScopedHook hook(
            Call::Write, [&](const CallInfo &) { second = StartThatWaits(); }, Where().Times(1));
        server->Close();
    }
    EXPECT_EQ(second.get(), 0);
    ServeClient("client");
}

TEST_F(PipeServerRaceTest, ConcurrentClosesCloseEachDescriptorOnce) {
    ASSERT_EQ(Start(), 0);
    const CallCounter closes(Call::Close);
    const CallCounter writes(Call::Write);
    OnThreads(4, [this](int) { server->Close(); });
    EXPECT_EQ(closes.Count(), 3U);
    EXPECT_EQ(writes.Count(), 1U);
}

TEST_F(PipeServerRaceTest, InitAndCloseFromManyThreadsLeaveAServerThatWorks) {
    OnThreads(4, [this](int number) {
        for (int round = 0; round < 25; ++round) {
            if (number % 2 == 0) {
                Start();
            } else {
                server->Close();
            }
            server->GetFifoNameForDFX();
            server->GetServerAttr();
        }
    });
    server->Close();
    ASSERT_EQ(Start(), 0);
    ServeClient("client");
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerRaceTest, ExceptionHandlerMayRunWhileServersStart) {
    std::atomic<bool> stop{false};
    std::thread handler([&] {
        while (!stop) {
            server->ExceptionHandler();
        }
    });
    const std::string other = UniqueName("other");
    for (int i = 0; i < 50; ++i) {
        attr.selfName = i % 2 == 0 ? name.c_str() : other.c_str();
        Start(); // fails when the file is gone before it is opened
        server->Close();
    }
    stop = true;
    handler.join();
    unlink((FifoDirectory() + other).c_str());
}

TEST_F(PipeServerRaceTest, LaterServerOfTheSameNameTakesOver) {
    ASSERT_EQ(Start(), 0);
    PipeServer later(*table);
    TarvoServerAttr laterAttr = attr;
    laterAttr.gid = getgid();
    laterAttr.priority = TARVO_PRIORITY_URGENT; // tells the two apart in what they open
    ASSERT_EQ(later.Init(laterAttr), 0);
    EXPECT_EQ(ServeClient("client").attr.priority, TARVO_PRIORITY_URGENT);
    EXPECT_EQ(Start(), -EEXIST) << "the earlier one runs on where no client reaches it";
    server->Close();
    EXPECT_EQ(ServeClient("another").attr.priority, TARVO_PRIORITY_URGENT);
}

TEST_F(PipeServerRaceTest, OfTwoServersThatStartAtTheSameInstantTheLaterOneFails) {
    PipeServer later(*table);
    // The later one is held before it publishes its file until the earlier one serves.
    const ScopedHook hook(
        Call::Link, [&](const CallInfo &) { EXPECT_EQ(Start(), 0); }, Where().PathHas(name).Times(1));
    EXPECT_EQ(later.Init(attr), -EAGAIN);
    const std::optional<LogLine> line = log.WaitFor(LOG_ERR, "flock failed");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->file, "PipeServer");
    EXPECT_THAT(line->message, testing::MatchesRegex("Server " + path +
                                                     " flock failed: monitorfd=[0-9]+, err=-11, "
                                                     "errno=11\\."));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "PrepareEpoll failed: err=-11, errno=11."));
    ServeClient("client");
    EXPECT_EQ(Start(), -EEXIST);
    later.Close();
    EXPECT_TRUE(FileExists());
}

TEST_F(PipeServerRaceTest, OpenCallbackThatAsksForASecondServerIsRefusedWhileTheFirstOneCloses) {
    std::promise<void> closing;
    std::promise<int> answer;
    OnOpen([&](int, const std::string &) {
        closing.get_future().wait();
        answer.set_value(Start());
    });
    ASSERT_EQ(Start(), 0);
    ServeClient("client");
    // The closing thread is on its way to wait for the server thread.
    const ScopedHook hook(
        Call::Write, [&](const CallInfo &) { closing.set_value(); }, Where().Times(1));
    server->Close();
    EXPECT_EQ(answer.get_future().get(), -EEXIST);
}

TEST_F(PipeServerRaceTest, OpenCallbackThatClosesItsOwnServerLeavesNothingBehind) {
    OnOpen([&](int, const std::string &) { server->Close(); });
    ASSERT_EQ(Start(), 0);
    Write(Connect("client") + Connect("never"));
    ASSERT_TRUE(NoServerThreads());
    OnOpen(nullptr);
    EXPECT_EQ(opens.Count(), 1U);
    ASSERT_EQ(Start(), 0);
    ServeClient("again");
}

TEST_F(PipeServerRaceTest, OpenCallbackMayCloseTheServerThatAnotherThreadIsClosing) {
    std::promise<void> closing;
    OnOpen([&](int, const std::string &) {
        closing.get_future().wait();
        server->Close();
    });
    ASSERT_EQ(Start(), 0);
    Write(Connect("client") + Connect("never"));
    opens.WaitForTarget("client");
    const ScopedHook hook(
        Call::Write, [&](const CallInfo &) { closing.set_value(); }, Where().Times(1));
    server->Close();
    EXPECT_EQ(opens.Count(), 1U);
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerRaceTest, CloseReturnsAlthoughTheThreadEndedBeforeAFullFifo) {
    std::promise<void> full;
    opens.SetAction([&](const OpenedPipe &) {
        full.get_future().wait();
        return 0;
    });
    ASSERT_EQ(Start(), 0);
    ServeClient("client");
    Write(RawTerminatePacket());
    FillFifo(path);
    const CallCounter writes(Call::Write, Where().If([](const CallInfo &call) { return call.size == 16; }));
    std::thread closer([this] { server->Close(); });
    EXPECT_TRUE(writes.WaitFor(1));
    full.set_value();
    closer.join();
    EXPECT_EQ(opens.Count(), 1U);
}

TEST_F(PipeServerRaceTest, CloseReturnsAlthoughTheFifoFilledUpAfterTheThreadEnded) {
    ASSERT_EQ(Start(), 0);
    const ScopedHook hook(
        Call::Write,
        [&](const CallInfo &) {
            Write(RawTerminatePacket());
            EXPECT_TRUE(NoServerThreads());
            FillFifo(path);
        },
        Where().Times(1));
    server->Close();
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Send stop message to server fail, ret=-11."));
}

} // namespace
} // namespace tarvo_test
