// Pipes through the exported functions: handles, traffic, closing on both sides, and the orderly end.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <future>
#include <vector>

#include "ApiFixture.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/Faults.h"
#include "support/FifoWatch.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

TEST_F(ApiTest, FirstPipeOfAProcessHasHandleTwo) {
    const PipePair pair;
    EXPECT_EQ(pair.near, 2);
    EXPECT_EQ(pair.far, 3);
}

TEST_F(ApiTest, OpeningAgainYieldsTheSameHandleAndANewOneAfterAClose) {
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    EXPECT_EQ(TarvoOpen(&attr), 2);
    EXPECT_EQ(TarvoOpen(&attr), 2);
    EXPECT_EQ(TarvoPipeTypeOpen(&attr, static_cast<TarvoPipeType>(77)), 2);
    EXPECT_EQ(TarvoClosePipe(2), 0);
    EXPECT_EQ(TarvoOpen(&attr), 3);
}

TEST_F(ApiTest, ShortOpenUsesTheProcessNameAndTheDefaults) {
    EXPECT_EQ(TarvoOpen(remote.c_str(), nullptr, 0, TARVO_MODE_SERVER), 2);
    TarvoAttr attr;
    attr.targetName = remote.c_str();
    attr.mode = TARVO_MODE_SERVER;
    // The same two names, so the same pipe.
    EXPECT_EQ(TarvoOpen(&attr), 2);
}

TEST_F(ApiTest, ShortOpenWithoutAFunctionHasNoCallback) {
    EXPECT_EQ(TarvoOpen(remote.c_str(), nullptr, 0, TARVO_MODE_SERVER), 2);
    char own[64] = "";
    ASSERT_GT(readlink("/proc/self/exe", own, sizeof(own) - 1), -1);
    // A remote close without a callback closes the pipe silently; an empty wrapper would be called and end the process.
    { const JoinedRawPeer peer(remote, std::string(program_invocation_short_name).substr(0, 15)); }
    AwaitFifoDirectory("the close", [] { return OwnFifoFiles().empty(); });
}

std::atomic<int> shortCallbacks{0};

TEST_F(ApiTest, ShortOpenCallsTheFunction) {
    EXPECT_EQ(TarvoOpen(
                  remote.c_str(), [](int, TarvoRequest *) { ++shortCallbacks; }, 0, TARVO_MODE_SERVER),
              2);
    JoinedRawPeer peer(remote, std::string(program_invocation_short_name).substr(0, 15));
    peer.Send(RawRequest(1, "hello"));
    EXPECT_TRUE(Eventually([] { return shortCallbacks == 1; }));
}

TEST_F(ApiTest, BothEndsAnswerEachOther) {
    const PipePair pair(Echo, Echo);
    EXPECT_EQ(Ask(pair.near, "from near"), "from near");
    EXPECT_EQ(Ask(pair.far, "from far"), "from far");
    EXPECT_EQ(Ask(pair.far, std::string(4000, 'x')), std::string(4000, 'x'));
    EXPECT_EQ(Ask(pair.far, std::string(4001, 'x')), "error -22");
}

TEST_F(ApiTest, CallWithoutATimeLimitReturnsWithTheAnswer) {
    const PipePair pair(Echo);
    Blocks blocks;
    TarvoResponse response{};
    EXPECT_EQ(TarvoRPCSync(pair.far, &blocks.request, &response), 0);
    EXPECT_EQ(std::string(response.data, response.size), "data");
    EXPECT_EQ(response.id, blocks.request.id);
    DestroyResponse(&response);
}

TEST_F(ApiTest, CallTimesOutWhenNobodyAnswers) {
    const PipePair pair([](int, TarvoRequest *) {});
    EXPECT_EQ(Ask(pair.far, "anyone", 30), "error -110");
}

TEST_F(ApiTest, OneWayRequestArrivesWithItsOwnId) {
    std::promise<std::string> arrived;
    const PipePair pair([&](int, TarvoRequest *request) {
        if (request != nullptr) {
            arrived.set_value(std::to_string(request->id) + " " + std::string(request->data, request->size));
        }
    });
    Blocks blocks;
    EXPECT_EQ(TarvoSendRequest(pair.far, &blocks.request), 0);
    EXPECT_EQ(arrived.get_future().get(), "7 data");
}

TEST_F(ApiTest, FailedResponseIsReported) {
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    const int fd = TarvoOpen(&attr);
    Blocks blocks;
    // Nobody reads yet.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(TarvoSendResponse(fd, &blocks.response), -ENXIO);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "TarvoSendResponse fail, ret=-6."), 2U) << "not restrained";
    EXPECT_EQ(TarvoSendRequest(fd, &blocks.request), -ENXIO);
    // A machine under load may add a notice of a slow step, which is no failure.
    EXPECT_EQ(log.Count(LOG_ERR, ""), 2U);
}

TEST_F(ApiTest, RemoteCloseReachesTheCallbackAndThenThePipeIsGone) {
    std::promise<int> told;
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, [&](int fd, TarvoRequest *request) {
        if (request == nullptr) {
            told.set_value(fd);
        }
    });
    const int fd = TarvoOpen(&attr);
    { const JoinedRawPeer peer(remote, self); }
    EXPECT_EQ(told.get_future().get(), fd);
    Blocks blocks;
    EXPECT_TRUE(Eventually([&] { return TarvoSendRequest(fd, &blocks.request) == -ENOENT; }));
    EXPECT_EQ(TarvoOpen(&attr), fd + 1);
}

TEST_F(ApiTest, CallbackMayCloseItsOwnPipe) {
    for (const bool onRemoteClose : {false, true}) {
        std::promise<void> closed;
        std::atomic<bool> done{false};
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, [&](int fd, TarvoRequest *request) {
            if ((request == nullptr) == onRemoteClose && !done.exchange(true)) {
                EXPECT_EQ(TarvoClosePipe(fd), 0);
                EXPECT_EQ(TarvoClosePipe(fd), 0);
                closed.set_value();
            }
        });
        const int fd = TarvoOpen(&attr);
        {
            JoinedRawPeer peer(remote, self);
            peer.Send(RawRequest(1, "hello"));
            if (!onRemoteClose) {
                closed.get_future().get();
            }
        }
        if (onRemoteClose) {
            closed.get_future().get();
        }
        Blocks blocks;
        EXPECT_EQ(TarvoSendRequest(fd, &blocks.request), -ENOENT);
    }
}

TEST_F(ApiTest, CleanedPipeStaysUsable) {
    const PipePair pair(Echo);
    // Opens the write end of the other side.
    EXPECT_EQ(Ask(pair.far, "hello"), "hello");
    EXPECT_EQ(TarvoCleanPipe(pair.far), 0);
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(Ask(pair.far, "still"), "still");
    EXPECT_EQ(TarvoCleanPipe(pair.near), 0);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "CleanPipe should only be called by client, input fd(2)"));
}

std::promise<std::string> openedClient;
std::atomic<int> openedClients{0};

void TellOfClient(int fd, const char *name, uint32_t length) {
    if (++openedClients == 1) {
        openedClient.set_value(std::to_string(fd) + " " + std::string(name, length));
    }
}

TEST_F(ApiTest, ClientAndServerOfOneProcessTalk) {
    TarvoServerAttr server;
    server.selfName = remote.c_str();
    server.callback = Echo;
    server.openCallback = TellOfClient;
    EXPECT_EQ(TarvoCreateServer(&server), 0);
    EXPECT_EQ(TarvoCreateServer(&server), -EEXIST);
    const int fd = CreateClient(self, remote);
    EXPECT_EQ(fd, 2);
    EXPECT_EQ(openedClient.get_future().get(), "3 " + self + "_" + std::to_string(getpid()));
    EXPECT_EQ(Ask(fd, "hello"), "hello");
    // The same pipe, announced once more.
    EXPECT_EQ(CreateClient(self, remote), fd);
    EXPECT_TRUE(Eventually([] { return openedClients == 2; }));
    EXPECT_EQ(Ask(fd, "again"), "again");
    TarvoExceptionHandler(SIGSEGV);
}

TEST_F(ApiTest, ClientOfNoServerIsTold) { EXPECT_EQ(CreateClient(self, remote), -ENXIO); }

TEST_F(ApiTest, FinishingEndsEverythingWithTrafficRunning) {
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    const PipePair serial(Echo, Echo);
    const PipePair concurrent(Echo, Echo, true);
    Threads threads;
    for (const int fd : {serial.near, serial.far, concurrent.near, concurrent.far}) {
        threads.Start([&, fd] {
            while (!stop) {
                answered += Ask(fd, "hello") == "hello" ? 1 : 0;
            }
        });
    }
    ASSERT_TRUE(Eventually([&] { return answered > 100; }));
    EXPECT_EQ(TarvoServiceIsExist(), 1);
    TarvoCfgFinishServer();
    EXPECT_EQ(TarvoServiceIsExist(), 0);
    stop = true;
    threads.Join();
    Blocks blocks;
    for (const int fd : {serial.near, serial.far, concurrent.near, concurrent.far}) {
        EXPECT_EQ(TarvoSendRequest(fd, &blocks.request), -ENOENT);
    }
    TarvoCfgFinishServer();
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(ApiTest, FinishingStopsTheServerBeforeItClosesThePipes) {
    ASSERT_EQ(CreateServer(remote), 0);
    const PipePair pair;
    std::vector<std::string> ended;
    {
        const ScopedHook unlock(Call::Flock, [&](const CallInfo &) { ended.emplace_back("server"); });
        const ScopedHook remove(Call::Unlink, [&](const CallInfo &) { ended.emplace_back("file of a pipe"); });
        TarvoCfgFinishServer();
    }
    EXPECT_EQ(ended, (std::vector<std::string>{"server", "file of a pipe", "file of a pipe"}));
    EXPECT_EQ(OwnFifoFiles(), std::vector<std::string>{remote}) << "a server's file outlives it";
    TarvoExceptionHandler(0);
}

TEST_F(ApiTest, FinishingReleasesACallerThatWaits) {
    const FakeClock clock;
    const PipePair pair([](int, TarvoRequest *) {});
    auto call = InBackground([&] { return Ask(pair.far, "anyone", HOUR_MS); });
    ASSERT_TRUE(clock.WaitUntilWaiting(1, std::chrono::minutes(30)));
    TarvoCfgFinishServer();
    EXPECT_EQ(call.get(), "error -32");
}

TEST_F(ApiTest, ExceptionHandlerRemovesTheFilesOfPipesAndServer) {
    ASSERT_EQ(CreateServer(remote), 0);
    const PipePair pair(Echo);
    // Opens the write end of the other side.
    EXPECT_EQ(Ask(pair.far, "hello"), "hello");
    EXPECT_EQ(OwnFifoFiles().size(), 3U);
    log.Clear();
    std::vector<std::string> removed;
    {
        const ScopedHook hook(Call::Unlink, [&](const CallInfo &info) { removed.emplace_back(info.path); });
        TarvoExceptionHandler(SIGSEGV);
    }
    EXPECT_EQ(removed.size(), 5U) << "both files of either end, and the server's";
    EXPECT_EQ(removed.back(), FifoDirectory() + remote);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Recv a signal 11."));
    EXPECT_EQ(log.Lines().size(), 1U);
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(Ask(pair.far, "still"), "still");
}

} // namespace
} // namespace tarvo_test
