// The server of the process, up to the process's end. Each test has a process of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "LibraryStubs.h"
#include "api/TableFactory.h"
#include "server/PipeServer.h"
#include "support/Names.h"
#include "support/Process.h"
#include "support/RawFrame.h"
#include "support/RawPeer.h"
#include "support/SyslogCapture.h"

namespace tarvo_test {
namespace {

constexpr int EXITED_WELL = 7;

void StartServer(const std::string &name) {
    TarvoServerAttr attr;
    attr.selfName = name.c_str();
    if (PipeServer::GetInstance()->Init(attr) != 0) {
        std::_Exit(1);
    }
}

// Runs `body` in a child that then exits; what it was doing must not keep it from that.
void ExpectExit(const std::function<void(Channel &)> &body) {
    ChildProcess child([&](Channel &channel) {
        body(channel);
        std::exit(EXITED_WELL);
        return 0;
    });
    EXPECT_EQ(child.Wait(), EXITED_WELL);
}

TEST(PipeServerExitTest, ProcessHasOneServer) {
    const std::shared_ptr<PipeServer> server = PipeServer::GetInstance();
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(PipeServer::GetInstance(), server);
}

TEST(PipeServerExitTest, ExitWithoutAServerEverStartedIsClean) {
    ExpectExit([](Channel &) { PipeServer::GetInstance(); });
}

TEST(PipeServerExitTest, ExitClosesARunningServerAndLeavesItsFile) {
    const std::string name = UniqueName("srv");
    ExpectExit([&](Channel &) { StartServer(name); });
    const std::string file = FifoDirectory() + name;
    EXPECT_EQ(unlink(file.c_str()), 0);
}

TEST(PipeServerExitTest, ExitAfterTheThreadEndedByItselfIsClean) {
    const std::string name = UniqueName("srv");
    ExpectExit([&](Channel &) {
        StartServer(name);
        WriteToRawServer(name, RawTerminatePacket());
    });
    unlink((FifoDirectory() + name).c_str());
}

TEST(PipeServerExitTest, ExitInTheMiddleOfAPacketThatNeverEndsIsClean) {
    const std::string name = UniqueName("srv");
    const std::string packet = RawConnectPacket("client", getgid(), getpid());
    for (const std::size_t size : {std::size_t{3}, std::size_t{8}, std::size_t{20}}) {
        ExpectExit([&](Channel &) {
            StartServer(name);
            WriteToRawServer(name, packet.substr(0, size));
        });
    }
    unlink((FifoDirectory() + name).c_str());
}

TEST(PipeServerExitTest, ExitWhileAClientIsBeingServedWaitsForIt) {
    const std::string name = UniqueName("srv");
    ExpectExit([&](Channel &channel) {
        static PipeOpens *const opens = new PipeOpens;
        opens->SetAction([&channel](const OpenedPipe &) {
            channel.Signal();
            return -1;
        });
        StartServer(name);
        for (int i = 0; i < 20; ++i) {
            WriteToRawServer(name, RawConnectPacket("client", getgid(), getpid()));
        }
    });
    unlink((FifoDirectory() + name).c_str());
}

void ReportWhatIsLeft() {
    const SyslogCapture log;
    const bool gone = PipeServer::GetInstance() == nullptr;
    std::_Exit(gone && log.ContainsExactly(LOG_ERR, "Init table failed.") ? EXITED_WELL : 1);
}

TEST(PipeServerExitTest, AfterExitHasDestroyedItThereIsNone) {
    ExpectExit([](Channel &) {
        std::atexit(ReportWhatIsLeft); // runs after the destruction of statics that are made later
        PipeServer::GetInstance();
    });
}

void ReportServer() {
    const std::shared_ptr<PipeServer> server = PipeServer::GetInstance();
    std::_Exit(server == nullptr && TableFactory::GetInstance() != nullptr ? EXITED_WELL : 1);
}

TEST(PipeServerExitTest, ServerGoesBeforeTheTableAndIsNotHandedOutFromThenOn) {
    ExpectExit([](Channel &) {
        TableFactory::GetInstance();
        std::atexit(ReportServer); // runs between the two
        PipeServer::GetInstance();
    });
}

TEST(PipeServerExitTest, CallerThatHoldsTheServerDuringExitMayUseItOn) {
    const std::string name = UniqueName("srv");
    ExpectExit([&](Channel &) {
        static std::shared_ptr<PipeServer> held;
        std::atexit([] {
            TarvoServerAttr attr;
            attr.selfName = "held_beyond_exit";
            const bool started = held->Init(attr) == 0;
            const bool refused = held->Init(attr) == -EEXIST;
            held->ExceptionHandler();
            held.reset();
            std::_Exit(started && refused ? EXITED_WELL : 1);
        });
        held = PipeServer::GetInstance();
    });
}

} // namespace
} // namespace tarvo_test
