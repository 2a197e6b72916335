// Calls that come when process exit has destroyed the library's state, or is about to.
#include <sanitizer/lsan_interface.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ApiFixture.h"
#include "support/Faults.h"
#include "support/Process.h"

namespace {

// A forked child has the objects of its parent, but not the stacks of its threads: what only a worker refers to at that
// moment would be reported as leaked by the child.
bool isForkedChild = false;

} // namespace

extern "C" int __lsan_is_turned_off() { return isForkedChild ? 1 : 0; }

namespace tarvo_test {
namespace {

// Assertions of the test framework are of no use while statics die.
#define CHECK_AT_EXIT(condition)                                                                                       \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "%s:%d: not so at exit: %s\n", __FILE__, __LINE__, #condition);                       \
            _exit(1);                                                                                                  \
        }                                                                                                              \
    } while (false)

// Captures until the process is gone.
SyslogCapture &LastLog() {
    static auto *const log = new SyslogCapture;
    return *log;
}

void CheckThatOpensFailSoftly() {
    TarvoAttr attr;
    attr.targetName = "somebody";
    attr.selfName = "me";
    CHECK_AT_EXIT(TarvoOpen(&attr) == -ENOENT);
    CHECK_AT_EXIT(TarvoOpen("somebody", nullptr, 10, TARVO_MODE_CLIENT) == -ENOENT);
    CHECK_AT_EXIT(TarvoCreateClient(&attr) == -ENOENT);
    CHECK_AT_EXIT(TarvoPipeTypeOpen(&attr, TARVO_SERVER_PIPE) == -ENOENT);
    CHECK_AT_EXIT(TarvoOpen(nullptr) == -EINVAL);
    CHECK_AT_EXIT(TarvoClosePipe(2) == -ENOENT);
    CHECK_AT_EXIT(TarvoCleanPipe(2) == -ENOENT);
    char name[101];
    CHECK_AT_EXIT(TarvoGetRemoteName(2, name, sizeof(name)) == -ENOENT);
    CHECK_AT_EXIT(TarvoGetRemoteName(2, nullptr, 0) == -EINVAL);
}

void CheckThatSendsFailSoftly() {
    Blocks blocks;
    TarvoResponse response{};
    CHECK_AT_EXIT(TarvoSendRequest(2, &blocks.request) == -ENOENT);
    CHECK_AT_EXIT(TarvoSendResponse(2, &blocks.response) == -ENOENT);
    CHECK_AT_EXIT(TarvoTimedRPCSync(2, &blocks.request, nullptr, 10) == -ENOENT);
    // Those above are told at a level that is not written, by intention.
    CHECK_AT_EXIT(LastLog().Count(ANY_LEVEL, "destroyed") == 0);
    CHECK_AT_EXIT(TarvoTimedRPCSync(2, &blocks.request, &response, 10) == -ENOENT);
    CHECK_AT_EXIT(TarvoRPCSync(2, &blocks.request, &response) == -ENOENT);
    CHECK_AT_EXIT(LastLog().CountExactly(LOG_ERR, "TarvoTimedRPCSync failed, because table is destroyed") == 2);
    response.data = new char[1];
    DestroyResponse(&response);
    CHECK_AT_EXIT(response.data == nullptr);
}

void CheckThatTheWholeFailsSoftly() {
    CHECK_AT_EXIT(TarvoServiceIsExist() == 0);
    TarvoServerAttr server;
    server.selfName = "me";
    CHECK_AT_EXIT(TarvoCreateServer(&server) == -ENOENT);
    CHECK_AT_EXIT(LastLog().ContainsExactly(LOG_ERR, "Pipe server init failed"));
    TarvoCfgFinishServer();
    CHECK_AT_EXIT(LastLog().ContainsExactly(LOG_ERR, "Pipe server finish failed."));
    TarvoExceptionHandler(11);
    CHECK_AT_EXIT(LastLog().ContainsExactly(LOG_ERR, "Recv a signal 11."));
    CHECK_AT_EXIT(LastLog().ContainsExactly(LOG_ERR, "TarvoExceptionHandler failed, because table is destroyed."));
}

void CheckAfterTheEnd() {
    LastLog().Clear();
    CheckThatOpensFailSoftly();
    CheckThatSendsFailSoftly();
    CheckThatTheWholeFailsSoftly();
}

void UseEverything() {
    const PipePair pair(Echo, Echo);
    CHECK_AT_EXIT(Ask(pair.far, "hello") == "hello");
    const std::string name = UniqueName("server");
    static char served[128];
    std::snprintf(served, sizeof(served), "%s", name.c_str());
    TarvoServerAttr server;
    server.selfName = served;
    CHECK_AT_EXIT(TarvoCreateServer(&server) == 0);
    TarvoExceptionHandler(SIGTERM);
}

class AfterExitTest : public testing::Test {
protected:
    AfterExitTest() { FifoDirectory(); }

    static int ExitCodeOf(const std::function<void()> &body) {
        ChildProcess child([&](Channel &) -> int {
            body();
            std::exit(0);
        });
        return child.Wait();
    }
};

TEST_F(AfterExitTest, ExitHandlerRegisteredBeforeTheFirstUseMeetsNoTable) {
    EXPECT_EQ(ExitCodeOf([] {
                  LastLog();
                  std::atexit(CheckAfterTheEnd);
                  UseEverything();
              }),
              0);
}

struct CallsWhenItDies {
    ~CallsWhenItDies() { CheckAfterTheEnd(); }
};

TEST_F(AfterExitTest, DestructorOfAnOlderStaticMeetsNoTable) {
    EXPECT_EQ(ExitCodeOf([] {
                  LastLog();
                  static const CallsWhenItDies older;
                  UseEverything();
              }),
              0);
}

TEST_F(AfterExitTest, DisabledLibraryEndsAsSoftly) {
    EXPECT_EQ(ExitCodeOf([] {
                  LastLog();
                  std::atexit(CheckAfterTheEnd);
                  UseEverything();
                  TarvoCfgFinishServer();
              }),
              0);
}

TEST_F(AfterExitTest, ExitHandlerRegisteredAfterTheFirstUseStillHasTheTable) {
    EXPECT_EQ(ExitCodeOf([] {
                  UseEverything();
                  std::atexit([] {
                      CHECK_AT_EXIT(TarvoServiceIsExist() == 1);
                      const PipePair pair(Echo, Echo);
                      CHECK_AT_EXIT(Ask(pair.far, "hello") == "hello");
                  });
              }),
              0);
}

TEST_F(AfterExitTest, FirstUseMayComeDuringExit) {
    EXPECT_EQ(ExitCodeOf([] { std::atexit(UseEverything); }), 0);
}

// The server goes before the table: what runs between their ends sees one and not the other.
TEST_F(AfterExitTest, ServerIsGoneBeforeTheTable) {
    EXPECT_EQ(ExitCodeOf([] {
                  LastLog();
                  TarvoServiceIsExist();
                  std::atexit([] {
                      LastLog().Clear();
                      CHECK_AT_EXIT(TarvoServiceIsExist() == 1);
                      TarvoExceptionHandler(6);
                      CHECK_AT_EXIT(LastLog().ContainsExactly(
                          LOG_ERR, "TarvoExceptionHandler failed, because server is destroyed."));
                      TarvoServerAttr server;
                      server.selfName = "me";
                      CHECK_AT_EXIT(TarvoCreateServer(&server) == -ENOENT);
                      TarvoCfgFinishServer();
                      CHECK_AT_EXIT(LastLog().ContainsExactly(LOG_ERR, "Pipe server finish failed."));
                      CHECK_AT_EXIT(TarvoServiceIsExist() == 1);
                  });
                  UseEverything();
              }),
              0);
}

std::atomic<bool> answered{false};

// The remote answers when exit has been waiting for the call for a while.
TEST_F(AfterExitTest, CallUnderWayWhenExitBeginsGetsItsAnswer) {
    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    ChildProcess child([&](Channel &channel) -> int {
        std::atexit([] { CHECK_AT_EXIT(answered); });
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
    RawPeer peer(remote, self);
    peer.OpenBoth();
    child.Signal(); // to ask
    const uint32_t id = peer.Receive().id;
    child.Signal(); // to exit
    ASSERT_TRUE(child.Await());
    peer.Send(RawResponse(id, "not too late"));
    EXPECT_EQ(child.Wait(), 0);
}

// A forked child has copies of the objects, but neither the threads nor a right to the files.
TEST_F(AfterExitTest, ExitOfAForkedChildLeavesItsParentAlone) {
    EXPECT_EQ(ExitCodeOf([] {
                  const std::string self = UniqueName("self");
                  const std::string served = UniqueName("server");
                  TarvoServerAttr server;
                  server.selfName = served.c_str();
                  server.callback = Echo;
                  CHECK_AT_EXIT(TarvoCreateServer(&server) == 0);
                  const PipePair pair(Echo, Echo);
                  CHECK_AT_EXIT(Ask(pair.far, "before") == "before");
                  const pid_t child = fork();
                  if (child == 0) {
                      isForkedChild = true;
                      std::exit(0);
                  }
                  int status = -1;
                  CHECK_AT_EXIT(waitpid(child, &status, 0) == child);
                  CHECK_AT_EXIT(status == 0);
                  CHECK_AT_EXIT(OwnFifoFiles().size() == 3);
                  CHECK_AT_EXIT(Ask(pair.far, "after") == "after");
                  TarvoAttr attr = MakeAttr(self, served, TARVO_MODE_CLIENT);
                  CHECK_AT_EXIT(Ask(TarvoCreateClient(&attr), "served") == "served");
                  TarvoExceptionHandler(SIGTERM);
              }),
              0);
}

} // namespace
} // namespace tarvo_test
