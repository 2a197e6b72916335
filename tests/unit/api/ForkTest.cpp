// Children of fork: the library belongs to the process in which its first thread, pipe or file came into being.
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

#include "ApiFixture.h"
#include "ExitChecks.h"
#include "diag/velm_syslog.h"
#include "support/LeakCheck.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

// What a child of the calling process ends with; by a bare system call, of which no handler is told, if wanted.
int ForkAndRun(const std::function<void()> &body, bool bare = false) {
    const pid_t child = bare ? static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0)) : fork();
    if (child == 0) {
        isForkedChild = true;
        alarm(60); // ends it by a signal
        body();
        std::exit(0);
    }
    int status = -1;
    REQUIRE_THAT(waitpid(child, &status, 0) == child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A server, a pipe that carries calls and a client of the server.
void UseAll(const std::string &served) {
    REQUIRE_THAT(CreateServer(served, Echo) == 0);
    static const PipePair &pair = *new PipePair(Echo, Echo);
    REQUIRE_THAT(Ask(pair.far, "hello") == "hello");
    const std::string self = UniqueName("self");
    REQUIRE_THAT(Ask(CreateClient(self, served), "served") == "served");
}

void CheckThatEverythingFails() {
    Blocks blocks;
    TarvoResponse response{};
    TarvoAttr attr;
    attr.targetName = "somebody";
    attr.selfName = "me";
    TarvoServerAttr server;
    server.selfName = "me";
    REQUIRE_THAT(TarvoServiceIsExist() == 0);
    REQUIRE_THAT(TarvoOpen(&attr) == -ENOENT);
    REQUIRE_THAT(TarvoOpen("somebody", nullptr, 10, TARVO_MODE_CLIENT) == -ENOENT);
    REQUIRE_THAT(TarvoCreateClient(&attr) == -ENOENT);
    REQUIRE_THAT(TarvoPipeTypeOpen(&attr, TARVO_SERVER_PIPE) == -ENOENT);
    REQUIRE_THAT(TarvoCreateServer(&server) == -ENOENT);
    for (int fd = 1; fd < 6; ++fd) {
        REQUIRE_THAT(TarvoSendRequest(fd, &blocks.request) == -ENOENT);
        REQUIRE_THAT(TarvoSendResponse(fd, &blocks.response) == -ENOENT);
        REQUIRE_THAT(TarvoTimedRPCSync(fd, &blocks.request, &response, 10) == -ENOENT);
        REQUIRE_THAT(TarvoRPCSync(fd, &blocks.request, &response) == -ENOENT);
        REQUIRE_THAT(TarvoCleanPipe(fd) == -ENOENT);
        REQUIRE_THAT(TarvoClosePipe(fd) == -ENOENT);
    }
    TarvoExceptionHandler(SIGTERM);
    TarvoCfgFinishServer();
    REQUIRE_THAT(TarvoServiceIsExist() == 0);
}

class ForkTest : public testing::Test {
protected:
    ForkTest() { FifoDirectory(); }
    ~ForkTest() override { RemoveOwnFifoFiles(); }
};

// As a daemon does that asked early.
TEST_F(ForkTest, ChildOfAProcessThatOnlyAskedOwnsWhatItOpens) {
    ExpectGoodExit([] {
        std::atexit([] { REQUIRE_THAT(TarvoServiceIsExist() == 0); });
        REQUIRE_THAT(TarvoServiceIsExist() == 1);
        TarvoExceptionHandler(0);
        const std::string served = UniqueName("server");
        REQUIRE_THAT(ForkAndRun([&] { UseAll(served); }) == 0);
        // The server's own file stays, as always.
        REQUIRE_THAT(OwnFifoFiles() == std::vector<std::string>{served});
        _exit(0);
    });
}

TEST_F(ForkTest, ProcessThatOnlyAskedAndItsChildrenUseTheLibraryEachByItself) {
    ExpectGoodExit([] {
        REQUIRE_THAT(TarvoServiceIsExist() == 1);
        REQUIRE_THAT(ForkAndRun([] { UseAll(UniqueName("first")); }) == 0);
        REQUIRE_THAT(ForkAndRun([] { UseAll(UniqueName("second")); }) == 0);
        UseAll(UniqueName("parent"));
        TarvoExceptionHandler(0);
    });
}

// What the process had for asking has been ended, for its children, too.
TEST_F(ForkTest, ChildForkedAtExitMeetsNoTableEither) {
    ExpectGoodExit([] {
        std::atexit([] {
            REQUIRE_THAT(TarvoServiceIsExist() == 0);
            REQUIRE_THAT(ForkAndRun([] { REQUIRE_THAT(TarvoServiceIsExist() == 0); }) == 0);
        });
        REQUIRE_THAT(TarvoServiceIsExist() == 1);
    });
}

TEST_F(ForkTest, ChildOfAnOwnerHarmsNeitherItNorItself) {
    ExpectGoodExit([] {
        static const std::string served = UniqueName("server");
        REQUIRE_THAT(CreateServer(served, Echo) == 0);
        const PipePair pair(Echo, Echo);
        REQUIRE_THAT(Ask(pair.far, "before") == "before");
        const auto files = OwnFifoFiles();
        REQUIRE_THAT(files.size() == 3);
        REQUIRE_THAT(ForkAndRun([] {
                         const auto descriptors = OpenDescriptors();
                         CheckThatEverythingFails();
                         REQUIRE_THAT(OpenDescriptors() == descriptors);
                         REQUIRE_THAT(ForkAndRun(CheckThatEverythingFails) == 0);
                     }) == 0);
        REQUIRE_THAT(OwnFifoFiles() == files);
        REQUIRE_THAT(Ask(pair.far, "after") == "after");
        const std::string self = UniqueName("self");
        REQUIRE_THAT(Ask(CreateClient(self, served), "served") == "served");
        TarvoExceptionHandler(0);
    });
}

// Its exit and the functions that do not come with each message look at the process id.
TEST_F(ForkTest, ChildOfABareSystemCallLeavesItsParentAlone) {
    ExpectGoodExit([] {
        const PipePair pair(Echo, Echo);
        REQUIRE_THAT(Ask(pair.far, "before") == "before");
        const auto files = OwnFifoFiles();
        REQUIRE_THAT(ForkAndRun([] {}, true) == 0);
        REQUIRE_THAT(ForkAndRun([] { TarvoExceptionHandler(0); }, true) == 0);
        REQUIRE_THAT(ForkAndRun(
                         [] {
                             TarvoCfgFinishServer();
                             CheckThatEverythingFails();
                         },
                         true) == 0);
        REQUIRE_THAT(OwnFifoFiles() == files);
        REQUIRE_THAT(Ask(pair.far, "after") == "after");
    });
}

// Other threads ask, log and call while the process forks: what they hold at that moment nobody would give back.
TEST_F(ForkTest, ChildDoesNotWaitForLocksOfItsParentsThreads) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's allocator has locks of its own, which it does not give back in a forked child";
#endif
    for (const bool owner : {false, true}) {
        ExpectGoodExit([owner] {
            if (owner) {
                UseAll(UniqueName("server"));
            }
            for (int i = 0; i < 2; ++i) {
                std::thread([] {
                    for (;;) {
                        TarvoServiceIsExist();
                        TarvoOpen(nullptr);
                        VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 1, "fork", "line");
                    }
                }).detach();
            }
            for (int i = 0; i < Rounds(20, 5); ++i) {
                REQUIRE_THAT(ForkAndRun([owner] {
                                 REQUIRE_THAT(TarvoServiceIsExist() == (owner ? 0 : 1));
                                 TarvoOpen(nullptr);
                                 VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 1, "fork", "line");
                             }) == 0);
            }
            TarvoExceptionHandler(0);
            _exit(0);
        });
    }
}

} // namespace
} // namespace tarvo_test
