#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "support/FifoWatch.h"
#include "support/Names.h"
#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

constexpr int CLIENTS = 3;
constexpr int THREADS = 2;

class ShutdownTest : public SystemTest {
protected:
    void StartTraffic() {
        Serve(server_, Name("s"), "callback=echo");
        for (PeerProcess &client : clients_) {
            const int fd = Connect(server_, Name("s"), client, Name("c"), "callback=echo").second;
            for (int i = 0; i < THREADS; ++i) {
                client.Ask("callon timeout=20000 tag=" + std::to_string(i) + " " + FillWords(1000, 1) + Fd(fd));
            }
        }
        for (PeerProcess &client : clients_) {
            for (int i = 0; i < THREADS; ++i) {
                client.Await("calling tag=" + std::to_string(i));
            }
        }
    }

    static void ExpectSoftEnd(PeerProcess &client) {
        for (int i = 0; i < THREADS; ++i) {
            const std::string end = client.Await("stopped tag=" + std::to_string(i));
            EXPECT_TRUE(IsEndOfAPipe(end)) << end;
        }
    }

    PeerProcess server_;
    PeerProcess clients_[CLIENTS];
};

TEST_F(ShutdownTest, ServerThatFinishesUnderTrafficEndsItsClientsCallsSoftly) {
    StartTraffic();
    EXPECT_EQ(server_.AskInt("exist"), 1);
    EXPECT_EQ(server_.Ask("finish"), "0");
    EXPECT_EQ(server_.AskInt("exist"), 0);
    for (PeerProcess &client : clients_) {
        ExpectSoftEnd(client);
        EXPECT_EQ(client.AskInt("exist"), 1);
        EXPECT_EQ(client.Quit(), 0);
    }
    EXPECT_EQ(server_.AskInt("send data=x fd=2"), -ENOENT);
}

TEST_F(ShutdownTest, ClientsThatFinishUnderTrafficEndTheirCallsSoftly) {
    StartTraffic();
    for (PeerProcess &client : clients_) {
        EXPECT_EQ(client.Ask("finish"), "0");
        ExpectSoftEnd(client);
        EXPECT_EQ(client.Quit(), 0);
    }
    for (int i = 0; i < CLIENTS; ++i) {
        server_.Await("gone");
    }
}

TEST_F(ShutdownTest, FinishWaitsForTheCallbackThatRuns) {
    Serve(server_, Name("s"), "callback=gate");
    const int fd = Connect(server_, Name("s"), clients_[0], Name("c"), "").second;
    EXPECT_EQ(clients_[0].AskInt("send data=x" + Fd(fd)), 0);
    server_.Await("entered");
    server_.Ask("finishing");
    AwaitFifoDirectory("files of the pipe gone", [] { return Files().size() == 1; });
    EXPECT_EQ(server_.AskInt("exist"), 1) << "the callback that runs holds the end up";
    EXPECT_EQ(server_.Pending("finished"), 0U);
    server_.Ask("gate");
    EXPECT_EQ(server_.NextEvent().substr(0, 4), "left");
    server_.Await("unanswered");
    server_.Await("finished");
    EXPECT_EQ(server_.AskInt("exist"), 0);
}

TEST_F(ShutdownTest, HandlerOfAFatalSignalRemovesAllFilesOfItsProcess) {
    Serve(server_, Name("s"), "callback=echo");
    for (PeerProcess &client : clients_) {
        const int fd = Connect(server_, Name("s"), client, Name("c"), "callback=report").second;
        ExpectEcho(client, fd);
    }
    // Without a time-out nothing waits for the remote in the background, which would give the pipe up in the end.
    ASSERT_GT(server_.AskInt("open mode=1 timeout=0 self=" + Name("s") + " target=" + Name("never")), 0);
    const Pair others = OpenPair(clients_[0], Name("one"), "callback=echo", clients_[1], Name("two"), "");
    EXPECT_EQ(Files().size(), 1U + 2U * CLIENTS + 2U + 2U);

    server_.Tell("crash");
    const int status = server_.Wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    EXPECT_EQ(access((FifoDirectory() + Name("s")).c_str(), F_OK), -1);
    EXPECT_EQ(Files().size(), 2U) << "the files of others stay";
    ExpectEcho(clients_[1], others.second, "on");
    for (PeerProcess &client : clients_) {
        client.Await("gone");
    }
}

TEST_F(ShutdownTest, HandlerLeavesOpenPipesUsable) {
    Serve(server_, Name("s"), "callback=echo");
    const int fd = Connect(server_, Name("s"), clients_[0], Name("c"), "").second;
    ExpectEcho(clients_[0], fd);
    EXPECT_EQ(server_.Ask("handler signo=15"), "0");
    EXPECT_TRUE(Files().empty());
    ExpectEcho(clients_[0], fd, "on");
}

} // namespace
} // namespace tarvo_test
