// Calls that come when process exit has destroyed the library's state, or is about to.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ApiFixture.h"
#include "ExitChecks.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

// Captures until the process is gone.
SyslogCapture &LastLog() {
    static auto *const log = new SyslogCapture;
    return *log;
}

void CheckThatOpensFailSoftly() {
    TarvoAttr attr;
    attr.targetName = "somebody";
    attr.selfName = "me";
    REQUIRE_THAT(TarvoOpen(&attr) == -ENOENT);
    REQUIRE_THAT(TarvoOpen("somebody", nullptr, 10, TARVO_MODE_CLIENT) == -ENOENT);
    REQUIRE_THAT(TarvoCreateClient(&attr) == -ENOENT);
    REQUIRE_THAT(TarvoPipeTypeOpen(&attr, TARVO_SERVER_PIPE) == -ENOENT);
    REQUIRE_THAT(TarvoOpen(nullptr) == -EINVAL);
    REQUIRE_THAT(TarvoClosePipe(2) == -ENOENT);
    REQUIRE_THAT(TarvoCleanPipe(2) == -ENOENT);
    char name[101];
    REQUIRE_THAT(TarvoGetRemoteName(2, name, sizeof(name)) == -ENOENT);
    REQUIRE_THAT(TarvoGetRemoteName(2, nullptr, 0) == -EINVAL);
}

void CheckThatSendsFailSoftly() {
    Blocks blocks;
    TarvoResponse response{};
    REQUIRE_THAT(TarvoSendRequest(2, &blocks.request) == -ENOENT);
    REQUIRE_THAT(TarvoSendResponse(2, &blocks.response) == -ENOENT);
    REQUIRE_THAT(TarvoTimedRPCSync(2, &blocks.request, nullptr, 10) == -ENOENT);
    // Those above are told at a level that is not written, by intention.
    REQUIRE_THAT(LastLog().Count(ANY_LEVEL, "destroyed") == 0);
    REQUIRE_THAT(TarvoTimedRPCSync(2, &blocks.request, &response, 10) == -ENOENT);
    REQUIRE_THAT(TarvoRPCSync(2, &blocks.request, &response) == -ENOENT);
    REQUIRE_THAT(LastLog().CountExactly(LOG_ERR, "TarvoTimedRPCSync failed, because table is destroyed") == 2);
    response.data = new char[1];
    DestroyResponse(&response);
    REQUIRE_THAT(response.data == nullptr);
}

void CheckThatTheWholeFailsSoftly() {
    REQUIRE_THAT(TarvoServiceIsExist() == 0);
    TarvoServerAttr server;
    server.selfName = "me";
    REQUIRE_THAT(TarvoCreateServer(&server) == -ENOENT);
    REQUIRE_THAT(LastLog().ContainsExactly(LOG_ERR, "Pipe server init failed"));
    TarvoCfgFinishServer();
    REQUIRE_THAT(LastLog().ContainsExactly(LOG_ERR, "Pipe server finish failed."));
    TarvoExceptionHandler(11);
    REQUIRE_THAT(LastLog().ContainsExactly(LOG_ERR, "Recv a signal 11."));
    REQUIRE_THAT(LastLog().ContainsExactly(LOG_ERR, "TarvoExceptionHandler failed, because table is destroyed."));
}

void CheckAfterTheEnd() {
    LastLog().Clear();
    CheckThatOpensFailSoftly();
    CheckThatSendsFailSoftly();
    CheckThatTheWholeFailsSoftly();
}

void UseEverything() {
    const PipePair pair(Echo, Echo);
    REQUIRE_THAT(Ask(pair.far, "hello") == "hello");
    const std::string name = UniqueName("server");
    static char served[128];
    std::snprintf(served, sizeof(served), "%s", name.c_str());
    TarvoServerAttr server;
    server.selfName = served;
    REQUIRE_THAT(TarvoCreateServer(&server) == 0);
    TarvoExceptionHandler(SIGTERM);
}

class AfterExitTest : public testing::Test {
protected:
    AfterExitTest() { FifoDirectory(); }
};

TEST_F(AfterExitTest, ExitHandlerRegisteredBeforeTheFirstUseMeetsNoTable) {
    ExpectGoodExit([] {
        LastLog();
        std::atexit(CheckAfterTheEnd);
        UseEverything();
    });
}

struct CallsWhenItDies {
    ~CallsWhenItDies() { CheckAfterTheEnd(); }
};

TEST_F(AfterExitTest, DestructorOfAnOlderStaticMeetsNoTable) {
    ExpectGoodExit([] {
        LastLog();
        static const CallsWhenItDies older;
        UseEverything();
    });
}

TEST_F(AfterExitTest, DisabledLibraryEndsAsSoftly) {
    ExpectGoodExit([] {
        LastLog();
        std::atexit(CheckAfterTheEnd);
        UseEverything();
        TarvoCfgFinishServer();
    });
}

TEST_F(AfterExitTest, ExitHandlerRegisteredAfterTheFirstUseStillHasTheTable) {
    ExpectGoodExit([] {
        UseEverything();
        std::atexit([] {
            REQUIRE_THAT(TarvoServiceIsExist() == 1);
            const PipePair pair(Echo, Echo);
            REQUIRE_THAT(Ask(pair.far, "hello") == "hello");
        });
    });
}

TEST_F(AfterExitTest, FirstUseMayComeDuringExit) {
    ExpectGoodExit([] { std::atexit(UseEverything); });
}

// The server goes before the table: what runs between their ends sees one and not the other.
TEST_F(AfterExitTest, ServerIsGoneBeforeTheTable) {
    ExpectGoodExit([] {
        LastLog();
        TarvoServiceIsExist();
        std::atexit([] {
            LastLog().Clear();
            REQUIRE_THAT(TarvoServiceIsExist() == 1);
            TarvoExceptionHandler(6);
            REQUIRE_THAT(
                LastLog().ContainsExactly(LOG_ERR, "TarvoExceptionHandler failed, because server is destroyed."));
            TarvoServerAttr server;
            server.selfName = "me";
            REQUIRE_THAT(TarvoCreateServer(&server) == -ENOENT);
            TarvoCfgFinishServer();
            REQUIRE_THAT(LastLog().ContainsExactly(LOG_ERR, "Pipe server finish failed."));
            REQUIRE_THAT(TarvoServiceIsExist() == 1);
        });
        UseEverything();
    });
}

std::atomic<bool> answered{false};

// The remote answers when exit has been waiting for the call for a while.
TEST_F(AfterExitTest, CallUnderWayWhenExitBeginsGetsItsAnswer) {
    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    ChildProcess child([&](Channel &channel) -> int {
        std::atexit([] { REQUIRE_THAT(answered); });
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
        const int fd = TarvoOpen(&attr);
        static const ScopedHook &hook = *new ScopedHook(
            Call::Sleep, [&channel](const CallInfo &) { channel.Signal(); }, Where().Nth(100).ThisThread());
        static_cast<void>(hook);
        if (!channel.Await()) {
            return 1;
        }
        std::thread([fd] { answered = Ask(fd, "late?", -1) == "not too late"; }).detach();
        if (!channel.Await()) {
            return 1;
        }
        std::exit(0);
    });
    JoinedRawPeer peer(remote, self);
    child.Signal(); // to ask
    const uint32_t id = peer.Receive().id;
    child.Signal(); // to exit
    ASSERT_TRUE(child.Await());
    peer.Send(RawResponse(id, "not too late"));
    EXPECT_EQ(child.Wait(), 0);
}

// A forked child has copies of the objects, but neither the threads nor a right to the files.
TEST_F(AfterExitTest, ExitOfAForkedChildLeavesItsParentAlone) {
    ExpectGoodExit([] {
        const std::string self = UniqueName("self");
        const std::string served = UniqueName("server");
        REQUIRE_THAT(CreateServer(served, Echo) == 0);
        const PipePair pair(Echo, Echo);
        REQUIRE_THAT(Ask(pair.far, "before") == "before");
        const pid_t child = fork();
        if (child == 0) {
            isForkedChild = true;
            std::exit(0);
        }
        int status = -1;
        REQUIRE_THAT(waitpid(child, &status, 0) == child);
        REQUIRE_THAT(status == 0);
        REQUIRE_THAT(OwnFifoFiles().size() == 3);
        REQUIRE_THAT(Ask(pair.far, "after") == "after");
        REQUIRE_THAT(Ask(CreateClient(self, served), "served") == "served");
        TarvoExceptionHandler(SIGTERM);
    });
}

} // namespace
} // namespace tarvo_test
