// The first log line of a process comes when memory has run out: it is written, and nobody's thread ends the process.
#include <unistd.h>

#include <thread>

#include "ApiFixture.h"
#include "diag/velm_syslog.h"
#include "support/AllocFaults.h"
#include "support/Eventually.h"
#include "support/Interpose.h"
#include "support/Process.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

constexpr std::size_t TYPE_OFFSET = 4;

// Runs `scene` in a process that has not written a line yet. The main thread has always got memory, as the test itself
// needs it.
template <typename Scene>
void InFreshProcess(Scene scene) {
    FifoDirectory();
    ChildProcess child([&](Channel &) {
        const OwnMemory own;
        scene();
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    RemoveOwnFifoFiles();
}

std::string WrongHead() { return std::string(RAW_HEAD_SIZE, 'x'); }

std::string PacketOfUnknownType() {
    std::string packet = RawTerminatePacket();
    packet[TYPE_OFFSET] = 7;
    return packet;
}

// A pipe of the library, a server and a peer of each that is played by hand.
class Peers {
public:
    explicit Peers(Callback callback) {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, std::move(callback));
        fd = TarvoOpen(&attr);
        EXPECT_GT(fd, 0);
        peer.OpenBoth();
        EXPECT_EQ(CreateServer(served, Echo), 0);
    }

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    const std::string served = UniqueName("server");
    RawPeer peer{remote, self};
    int fd = 0;
};

TEST(FirstLineTest, OfACallerIsWritten) {
    InFreshProcess([] {
        std::atomic<bool> go{false};
        const SyslogCapture log;
        std::thread caller([&go] {
            while (!go) {
                std::this_thread::yield();
            }
            VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "first", "line");
            VelmSyslog(LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, 1, "first", "restrained");
            VelmLogGetInstance(true);
            TarvoOpen(nullptr);
        });
        {
            const EmptyHeap none;
            go = true;
            caller.join();
        }
        EXPECT_EQ(log.Messages(), (std::vector<std::string>{"line", "Input variables error"}));
        EXPECT_NE(log.Lines()[0].process, "");
    });
}

TEST(FirstLineTest, OfAReceiveThreadIsWritten) {
    InFreshProcess([] {
        Peers peers(Echo);
        const SyslogCapture log;
        const EmptyHeap none;
        peers.peer.Send(WrongHead());
        log.WaitFor(LOG_ERR, "RecvMagic, result != MAGIC_OK");
    });
}

TEST(FirstLineTest, OfTheServerThreadIsWritten) {
    InFreshProcess([] {
        const Peers peers(Echo);
        const SyslogCapture log;
        const EmptyHeap none;
        WriteToRawServer(peers.served, PacketOfUnknownType());
        log.WaitFor(LOG_ERR, "Read type failed");
    });
}

TEST(FirstLineTest, OfAWorkerIsWritten) {
    InFreshProcess([] {
        Peers peers([](int, TarvoRequest *request) {
            if (request == nullptr) {
                return;
            }
            const EmptyHeap none;
            TarvoResponse response{request->id, request->data, request->size};
            TarvoSendResponse(0, &response);
        });
        const SyslogCapture log;
        peers.peer.Send(RawRequest(1, "hello"));
        log.WaitFor(LOG_ERR, "GetPipe fail, please check input fd(0).");
    });
}

// All that a thread of the library does may meet an empty heap, again and again.
TEST(FirstLineTest, BurstsOfAnEmptyHeapEndNoThread) {
    const int processes = Rounds(10, 3);
    for (int process = 0; process < processes; ++process) {
        InFreshProcess([] {
            Peers peers(Echo);
            for (int burst = Rounds(100, 30); burst > 0; --burst) {
                const EmptyHeap none;
                peers.peer.TrySend(burst % 2 == 0 ? WrongHead() : RawRequest(1, "hello"));
                WriteToRawServer(peers.served, burst % 2 == 0 ? PacketOfUnknownType()
                                                              : RawConnectPacket(UniqueName("client"), 0, getpid()));
                std::this_thread::yield();
            }
            while (peers.peer.HasInput()) {
                peers.peer.Receive();
            }
            peers.peer.Send(RawRequest(4711, "hello"));
            while (peers.peer.Receive().id != 4711) {
            }
            const std::string self = UniqueName("self");
            EXPECT_EQ(Ask(CreateClient(self, peers.served), "hello"), "hello");
        });
    }
}

} // namespace
} // namespace tarvo_test
