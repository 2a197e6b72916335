// Exit under traffic: the process ends soon, without a crash, a race or a hang, whatever its threads are doing.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>

#include "ApiFixture.h"
#include "ExitTraffic.h"

namespace tarvo_test {
namespace {

constexpr int ENOUGH = 50;
constexpr int A_FEW = 5;
constexpr int SOON_MS = 1000;

constexpr ExitOptions MAY_LEAVE_FILES = {true, false};

// Lives until the process is gone: threads use it during exit.
const PipePair &Pair(Callback near, Callback far, bool concurrent = false) {
    static const PipePair *pair = nullptr;
    pair = new PipePair(std::move(near), std::move(far), concurrent);
    return *pair;
}

void EchoAndCount(int fd, TarvoRequest *request) {
    Echo(fd, request);
    Progress();
}

// Every request is answered by a request, for ever.
void PassOn(int fd, TarvoRequest *request) {
    if (request != nullptr) {
        TarvoSendRequest(fd, request);
        Progress();
    }
}

void CallForever(const PipePair &pair) {
    for (const int fd : {pair.near, pair.far}) {
        Forever([fd] { Ask(fd, "call", SOON_MS); });
    }
}

TEST(ExitTest, CallersOnSerialPipesAreReleased) {
    ExitUnderTraffic([] {
        CallForever(Pair(EchoAndCount, EchoAndCount));
        AwaitProgress(ENOUGH);
    });
}

TEST(ExitTest, CallersOnConcurrentPipesAreReleased) {
    ExitUnderTraffic([] {
        const PipePair &pair = Pair(EchoAndCount, EchoAndCount, true);
        CallForever(pair);
        CallForever(pair);
        AwaitProgress(ENOUGH);
    });
}

// Only workers are inside the library here, so one of them would be the last to hold the table.
TEST(ExitTest, CallbacksThatSendDoNotOutliveTheTable) {
    for (const bool concurrent : {false, true}) {
        ExitUnderTraffic([concurrent] {
            const PipePair &pair = Pair(PassOn, PassOn, concurrent);
            Blocks blocks;
            for (int i = 0; i < 4; ++i) {
                TarvoSendRequest(pair.near, &blocks.request);
                TarvoSendRequest(pair.far, &blocks.request);
            }
            AwaitProgress(ENOUGH);
        });
    }
}

std::atomic<bool> callbackFinished{false};

void AnswerAfterExitBegan(int fd, TarvoRequest *request) {
    if (request == nullptr) {
        return;
    }
    Progress();
    while (TarvoServiceIsExist() == 1) {
        std::this_thread::yield();
    }
    TarvoResponse response{request->id, request->data, request->size};
    callbackFinished = TarvoSendResponse(fd, &response) == -ENOENT;
}

TEST(ExitTest, CallbackInTheMiddleIsWaitedForAndFailsSoftly) {
    ExitUnderTraffic([] {
        // Registered before the library's first use, and so run after its end.
        std::atexit([] {
            if (!callbackFinished) {
                _exit(1);
            }
        });
        const PipePair &pair = Pair(AnswerAfterExitBegan, {});
        Blocks blocks;
        TarvoSendRequest(pair.far, &blocks.request);
        AwaitProgress(1);
    });
}

TEST(ExitTest, CallAndOpenWithoutATimeLimitEnd) {
    ExitUnderTraffic([] {
        const PipePair &pair = Pair([](int, TarvoRequest *) { Progress(); }, {});
        std::thread([&pair] { Ask(pair.far, "anyone", -1); }).detach();
        std::thread([] {
            const std::string self = UniqueName("self");
            const std::string nobody = UniqueName("nobody");
            TarvoAttr attr = MakeAttr(self, nobody, TARVO_MODE_CLIENT);
            attr.timeout = 0;
            Progress();
            TarvoOpen(&attr);
        }).detach();
        AwaitProgress(2);
    });
}

TEST(ExitTest, OpensAndClosesUnderWayDoNotHoldItUp) {
    ExitUnderTraffic(
        [] {
            for (int i = 0; i < 3; ++i) {
                Forever([] {
                    const PipePair pair(Echo, Echo);
                    Ask(pair.far, "call", SOON_MS);
                    Progress();
                });
            }
            AwaitProgress(ENOUGH);
        },
        MAY_LEAVE_FILES);
}

// Such a callback asks for a worker of its own while the pool may be going down and waits for the callback to return.
TEST(ExitTest, CallbacksThatOpenPipesEnd) {
    ExitUnderTraffic(
        [] {
            const PipePair &pair = Pair(
                [](int, TarvoRequest *) {
                    const std::string self = UniqueName("self");
                    const std::string nobody = UniqueName("nobody");
                    TarvoAttr attr = MakeAttr(self, nobody, TARVO_MODE_SERVER, Echo);
                    attr.timeout = PIPE_OPEN_TIMEOUT_MS;
                    TarvoClosePipe(TarvoOpen(&attr));
                    Progress();
                },
                {}, true);
            static Blocks blocks;
            Forever([&pair] { TarvoSendRequest(pair.far, &blocks.request); });
            AwaitProgress(ENOUGH);
            std::thread([] { TarvoCfgFinishServer(); }).detach();
        },
        MAY_LEAVE_FILES);
}

// The background open of a pipe whose remote never comes waits on a worker.
TEST(ExitTest, BackgroundOpensAreGivenUp) {
    ExitUnderTraffic([] {
        for (int i = 0; i < 8; ++i) {
            const std::string self = UniqueName("self");
            const std::string nobody = UniqueName("nobody");
            TarvoAttr attr = MakeAttr(self, nobody, TARVO_MODE_SERVER, Echo);
            attr.timeout = PIPE_OPEN_TIMEOUT_MS;
            attr.isConcur = i % 2 == 0;
            TarvoOpen(&attr);
        }
    });
}

TEST(ExitTest, ClientsThatComeAndGoDoNotHoldItUp) {
    ExitUnderTraffic(
        [] {
            static const std::string &name = *new std::string(UniqueName("server"));
            TarvoServerAttr server;
            server.selfName = name.c_str();
            server.callback = EchoAndCount;
            if (TarvoCreateServer(&server) != 0) {
                std::abort();
            }
            for (int i = 0; i < 3; ++i) {
                const std::string self = UniqueName("client");
                Forever([self] {
                    TarvoAttr attr = MakeAttr(self, name, TARVO_MODE_CLIENT);
                    attr.timeout = SOON_MS;
                    const int fd = TarvoCreateClient(&attr);
                    Ask(fd, "call", SOON_MS);
                    TarvoClosePipe(fd);
                });
            }
            AwaitProgress(A_FEW);
        },
        MAY_LEAVE_FILES);
}

TEST(ExitTest, OrderlyEndOnAnotherThreadAtTheSameTimeIsNoHarm) {
    ExitUnderTraffic([] {
        CallForever(Pair(EchoAndCount, EchoAndCount));
        AwaitProgress(ENOUGH);
        std::thread([] { TarvoCfgFinishServer(); }).detach();
    });
}

TEST(ExitTest, NoFunctionUnderWayHoldsItUp) {
    ExitUnderTraffic(
        [] {
            const PipePair &pair = Pair(EchoAndCount, EchoAndCount);
            CallForever(pair);
            // Both write ends are open once an answer has come. Before that the files must stay: the ends are opened
            // by name, and one of the functions below removes them.
            AwaitProgress(1);
            static Blocks blocks;
            Forever([&pair] { TarvoSendRequest(pair.near, &blocks.request); });
            Forever([&pair] { TarvoSendResponse(pair.near, &blocks.response); });
            Forever([] { TarvoClosePipe(4711); });
            Forever([] { TarvoCleanPipe(4711); });
            Forever([] { TarvoServiceIsExist(); });
            Forever([] { TarvoExceptionHandler(0); });
            AwaitProgress(ENOUGH);
        },
        MAY_LEAVE_FILES);
}

TEST(ExitTest, ThreadOtherThanMainMayExit) {
    ExitUnderTraffic(
        [] {
            CallForever(Pair(EchoAndCount, EchoAndCount));
            AwaitProgress(ENOUGH);
        },
        {false, true});
}

} // namespace
} // namespace tarvo_test
