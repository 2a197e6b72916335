// Threads that are cancelled inside the exported functions, at any moment: the process goes on, no lock stays taken, no
// descriptor is lost.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <thread>

#include "ApiFixture.h"
#include "diag/velm_syslog.h"
#include "server/PipeServer.h"
#include "support/Process.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

constexpr int SOON_MS = 50;

// How often each function is cancelled; scripts/nightly.sh asks for more.
int Cancellations() {
    const char *text = std::getenv("TARVO_CANCELLATIONS");
    return text == nullptr ? Rounds(40, 15) : std::max(1, std::atoi(text));
}

// A thread that is cancelled in a wait leaves it from within the sanitizer's own function for that wait, which does not
// provide for it: it takes every lock of the thread for no lock from then on, or checks a stack that has gone.
#define SKIP_IF_SANITIZED()                                                                                            \
    if (SANITIZED) {                                                                                                   \
        GTEST_SKIP() << "a sanitizer loses track of a thread that is cancelled in a wait";                             \
    }

// Keeps what the test itself does on the thread from being cancelled.
template <typename Work>
auto WithoutCancellation(Work work) {
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    auto result = work();
    pthread_setcancelstate(previous, nullptr);
    return result;
}

// A thread that does it again and again until it is cancelled.
class Victim {
public:
    explicit Victim(std::function<void()> work) : step(std::move(work)) {
        EXPECT_EQ(pthread_create(&thread, nullptr, Run, this), 0);
        while (!running) {
            std::this_thread::yield();
        }
    }
    ~Victim() {
        EXPECT_EQ(pthread_cancel(thread), 0);
        void *result = nullptr;
        EXPECT_EQ(pthread_join(thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
    }
    Victim(const Victim &) = delete;
    Victim &operator=(const Victim &) = delete;

private:
    static void *Run(void *self) {
        auto &victim = *static_cast<Victim *>(self);
        for (victim.running = true;; pthread_testcancel()) {
            victim.step();
        }
        return nullptr;
    }

    const std::function<void()> step;
    std::atomic<bool> running{false};
    pthread_t thread{};
};

// Longer than any of the functions takes by itself.
void AwaitARandomMoment() {
    static std::minstd_rand random(4711);
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::microseconds(random() % static_cast<unsigned>(Rounds(400, 4000)));
    while (std::chrono::steady_clock::now() < end) {
    }
}

void CancelAtRandomMoments(const std::function<void()> &step) {
    for (int i = 0; i < Cancellations(); ++i) {
        const Victim victim(step);
        AwaitARandomMoment();
    }
}

// What it leaves behind is found by the leak check after the orderly end.
class CancelTest : public ApiTest {
protected:
    void ExpectTheLibraryToWork() const {
        const PipePair pair(Echo, Echo);
        EXPECT_EQ(Ask(pair.far, "hello"), "hello");
        EXPECT_EQ(Ask(pair.near, "hello"), "hello");
    }

    Blocks blocks;
};

TEST_F(CancelTest, CancelledOpensLeaveTheLibraryWorking) {
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, Echo);
    attr.timeout = SOON_MS;
    CancelAtRandomMoments([&] { TarvoClosePipe(TarvoOpen(&attr)); });
    CancelAtRandomMoments([&] { TarvoClosePipe(TarvoPipeTypeOpen(&attr, TARVO_SERVER_PIPE)); });
    CancelAtRandomMoments([&] { TarvoClosePipe(TarvoOpen(remote.c_str(), nullptr, 0, TARVO_MODE_SERVER)); });
    TarvoClosePipe(TarvoOpen(&attr));
    TarvoClosePipe(TarvoOpen(remote.c_str(), nullptr, 0, TARVO_MODE_SERVER));
    ExpectTheLibraryToWork();
}

TEST_F(CancelTest, CancelledWaitsForTheRemoteLeaveThePipeToBeOpened) {
    SKIP_IF_SANITIZED();
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    attr.timeout = 0;
    CancelAtRandomMoments([&] { TarvoOpen(&attr); });
    // The same pipe, with a lock of its own that an open takes and a remote that has come meanwhile.
    const int near = TarvoOpen(remote.c_str(), nullptr, 0, TARVO_MODE_SERVER);
    TarvoAttr other = MakeAttr(remote, self, TARVO_MODE_SERVER, Echo);
    const int far = TarvoOpen(&other);
    const int fd = TarvoOpen(&attr);
    EXPECT_EQ(Ask(fd, "hello"), "hello");
    for (const int open : {near, far, fd}) {
        TarvoClosePipe(open);
    }
}

TEST_F(CancelTest, CancelledOpensOfBothEndsLeaveTheLibraryWorking) {
    CancelAtRandomMoments([] { const PipePair pair(Echo, Echo); });
    ExpectTheLibraryToWork();
}

TEST_F(CancelTest, CancelledClientsLeaveTheServerServing) {
    ASSERT_EQ(CreateServer(remote, Echo), 0);
    int count = 0;
    for (int i = 0; i < Cancellations(); ++i) {
        const std::string name = self + std::to_string(++count);
        const Victim victim([&] {
            TarvoAttr attr = MakeAttr(name, remote, TARVO_MODE_CLIENT);
            attr.timeout = SOON_MS;
            TarvoClosePipe(TarvoCreateClient(&attr));
        });
        AwaitARandomMoment();
    }
    EXPECT_EQ(Ask(CreateClient(self, remote), "hello"), "hello");
    TarvoExceptionHandler(SIGTERM);
}

TEST_F(CancelTest, CancelledStartsLeaveAServerToBeStarted) {
    TarvoServerAttr server;
    server.selfName = remote.c_str();
    CancelAtRandomMoments([&] {
        TarvoCreateServer(&server);
        WithoutCancellation([] { return PipeServer::GetInstance()->Close(), 0; });
    });
    PipeServer::GetInstance()->Close();
    EXPECT_EQ(TarvoCreateServer(&server), 0);
    TarvoExceptionHandler(SIGTERM);
}

TEST_F(CancelTest, CancelledSendsLeaveTheLibraryWorking) {
    const PipePair pair;
    // Most find the FIFO full.
    CancelAtRandomMoments([&] { TarvoSendRequest(pair.far, &blocks.request); });
    CancelAtRandomMoments([&] { TarvoSendResponse(pair.far, &blocks.response); });
    CancelAtRandomMoments([&] { TarvoSendRequest(4711, &blocks.request); });
    CancelAtRandomMoments([&] { TarvoSendResponse(4711, &blocks.response); });
    CancelAtRandomMoments([&] { TarvoTimedRPCSync(pair.near, &blocks.request, nullptr, 1); });
    ExpectTheLibraryToWork();
}

// Each opens the write end anew with its first send.
TEST_F(CancelTest, CancelledFirstSendsLeaveTheLibraryWorking) {
    CancelAtRandomMoments([this] {
        const auto pair = WithoutCancellation([] { return std::make_unique<PipePair>(Echo, Echo); });
        TarvoSendRequest(pair->near, &blocks.request);
        WithoutCancellation([&] { return TarvoClosePipe(pair->near); });
    });
    ExpectTheLibraryToWork();
}

TEST_F(CancelTest, CancelledCallsLeaveThePipeAnswering) {
    SKIP_IF_SANITIZED();
    const PipePair pair(Echo, Echo);
    CancelAtRandomMoments([&] { Ask(pair.far, "with an answer"); });
    CancelAtRandomMoments([&] { Ask(pair.near, "without a limit", -1); });
    EXPECT_EQ(Ask(pair.far, "hello"), "hello");
}

TEST_F(CancelTest, CancelledWaitsForAnAnswerLeaveTheLibraryWorking) {
    SKIP_IF_SANITIZED();
    const PipePair pair;
    CancelAtRandomMoments([&] { Ask(pair.far, "no answer", HOUR_MS); });
    CancelAtRandomMoments([&] { Ask(pair.far, "no answer", 1); });
    CancelAtRandomMoments([&] {
        TarvoResponse response{};
        TarvoRPCSync(pair.far, &blocks.request, &response);
    });
    ExpectTheLibraryToWork();
}

TEST_F(CancelTest, CancelledClosesLeaveTheLibraryWorking) {
    CancelAtRandomMoments([] {
        const auto pair = WithoutCancellation([] { return std::make_unique<PipePair>(Echo, Echo); });
        TarvoCleanPipe(pair->far);
        TarvoClosePipe(pair->far);
        TarvoClosePipe(pair->near);
    });
    ExpectTheLibraryToWork();
}

TEST_F(CancelTest, CancelledQuestionsLeaveThePipeAnswering) {
    const PipePair pair(Echo, Echo);
    CancelAtRandomMoments([] {
        TarvoServiceIsExist();
        GetCurrDomain();
        IsOrlaDomainPipe(TARVO_DOMAIN_DP);
        IsCrossDomainPipe(TARVO_DOMAIN_DP);
        NuroCoreSetaffinity();
        TarvoResponse response{0, new char[1], 1};
        DestroyResponse(&response);
    });
    // Both write ends are open after an answer: the handler removes the files.
    EXPECT_EQ(Ask(pair.near, "hello"), "hello");
    CancelAtRandomMoments([] { TarvoExceptionHandler(SIGTERM); });
    CancelAtRandomMoments([] { VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "cancel", "line"); });
    CancelAtRandomMoments([] { VelmLogGetInstance(true); });
    EXPECT_EQ(Ask(pair.far, "hello"), "hello");
    ExpectTheLibraryToWork();
}

// The end of all is there once: each time another process, whose callback runs when its end comes.
TEST(CancelEndTest, CancelledOrderlyEndsCanBeRepeatedAndLeaveNothing) {
    FifoDirectory();
    for (int i = 0; i < Cancellations() && !testing::Test::HasFailure(); ++i) {
        ChildProcess child([](Channel &) {
            const ScopedLeakCheck check;
            {
                const std::string name = UniqueName("server");
                EXPECT_EQ(CreateServer(name, Echo), 0);
                const PipePair pair(Echo, Echo);
                EXPECT_EQ(Ask(pair.far, "hello"), "hello");
                TarvoExceptionHandler(SIGTERM);
                const Victim victim([] { TarvoCfgFinishServer(); });
                AwaitARandomMoment();
            }
            TarvoCfgFinishServer();
            EXPECT_EQ(TarvoServiceIsExist(), 0);
            return 0;
        });
        EXPECT_EQ(child.Wait(), 0);
    }
}

} // namespace
} // namespace tarvo_test
