// Servers and their clients in processes of their own, and writers who follow no rules.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "support/FifoWatch.h"
#include "support/Names.h"
#include "support/RawFrame.h"
#include "support/RawPeer.h"
#include "system/ServerAgent.h"

namespace tarvo_test {
namespace {

class ServerTest : public ::testing::Test {
protected:
    ServerTest() { FifoDirectory(); }
    ~ServerTest() override { unlink(file.c_str()); }

    // Connects `client` and has its call answered by whoever serves.
    void ExpectServed(ServerAgent &client, const std::string &clientName) const {
        const int fd = client.Connect(name, clientName);
        ASSERT_GT(fd, 0) << clientName;
        EXPECT_EQ(client.Call(fd, "question"), "re: question");
    }

    static std::string Extended(const std::string &clientName, const ServerAgent &client) {
        return clientName + "_" + std::to_string(client.Pid());
    }

    static bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

    const std::string name = UniqueName("srv");
    const std::string file = FifoDirectory() + name;
    const std::string self = UniqueName("cli");
};

TEST_F(ServerTest, OpenCallbackLearnsTheNameOfTheClientProcess) {
    ServerAgent server;
    ServerAgent client;
    ASSERT_EQ(server.Serve(name), 0);
    ExpectServed(client, self);
    EXPECT_EQ(server.Clients(1), std::vector<std::string>{Extended(self, client)});
    EXPECT_TRUE(server.Errors().empty());
    EXPECT_TRUE(client.Errors().empty());
}

TEST_F(ServerTest, OneProcessMayBeServerAndClientAtOnce) {
    ServerAgent first;
    ServerAgent second;
    const std::string other = UniqueName("srv");
    ASSERT_EQ(first.Serve(name), 0);
    ASSERT_EQ(second.Serve(other), 0);
    ExpectServed(second, self);
    const int back = first.Connect(other, self);
    ASSERT_GT(back, 0);
    EXPECT_EQ(first.Call(back, "question"), "re: question");
    unlink((FifoDirectory() + other).c_str());
}

// ---- No server, dead servers, new servers ----

TEST_F(ServerTest, StaleFileOfAKilledServerIsRefusedAtOnceAndReplacedByTheNextServer) {
    ServerAgent killed;
    ServerAgent next;
    ServerAgent client;
    ASSERT_EQ(killed.Serve(name), 0);
    killed.Kill();
    ASSERT_TRUE(Exists(file));
    EXPECT_EQ(client.Connect(name, self), -ENXIO);
    ASSERT_EQ(next.Serve(name), 0);
    ExpectServed(client, self);
}

TEST_F(ServerTest, LaterServerTakesTheNewClientsAndTheEarlierKeepsItsOwn) {
    ServerAgent earlier;
    ServerAgent later;
    ServerAgent client;
    ASSERT_EQ(earlier.Serve(name), 0);
    const int old = client.Connect(name, self);
    ASSERT_GT(old, 0);
    ASSERT_EQ(later.Serve(name), 0);
    ExpectServed(client, self + "new");
    EXPECT_EQ(later.Clients(1), std::vector<std::string>{Extended(self + "new", client)});
    EXPECT_EQ(earlier.Clients(1), std::vector<std::string>{Extended(self, client)});
    EXPECT_EQ(client.Call(old, "question"), "re: question");
    EXPECT_EQ(earlier.Serve(name), -EEXIST) << "it runs on where no client reaches it";
    // Its end must not take the other's file.
    EXPECT_EQ(earlier.Finish(), 0);
    ExpectServed(client, self + "newer");
}

TEST_F(ServerTest, OfTwoServersThatStartAtTheSameInstantOneServes) {
    ServerAgent winner;
    ServerAgent loser;
    ServerAgent client;
    loser.ServeUpToPublication(name);
    ASSERT_EQ(winner.Serve(name), 0);
    EXPECT_EQ(loser.Resume(), -EAGAIN);
    const std::vector<std::string> errors = loser.Errors();
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(errors[0].rfind("Server " + file + " flock failed: monitorfd=", 0), 0U) << errors[0];
    EXPECT_EQ(errors[1], "PrepareEpoll failed: err=-11, errno=11.");
    ExpectServed(client, self);
    EXPECT_EQ(winner.Clients(1).size(), 1U);
    EXPECT_EQ(loser.Clients(0).size(), 0U);
    // The loser may try again, and then is the later server.
    EXPECT_EQ(loser.Serve(name), 0);
    ExpectServed(client, self + "new");
    EXPECT_EQ(loser.Clients(1).size(), 1U);
}

TEST_F(ServerTest, FinishedServerIsGoneForNewClients) {
    ServerAgent server;
    ServerAgent client;
    ASSERT_EQ(server.Serve(name), 0);
    EXPECT_EQ(server.Finish(), 0);
    EXPECT_TRUE(Exists(file));
    EXPECT_EQ(client.Connect(name, self), -ENXIO);
}

TEST_F(ServerTest, ServerFinishesAndExitsInTheMiddleOfAPacketThatNeverEnds) {
    const std::string packet = RawConnectPacket(self, getgid(), getpid());
    // Within the magic, before the group, before the name.
    for (const std::size_t size : {std::size_t{3}, std::size_t{8}, std::size_t{20}}) {
        SCOPED_TRACE(size);
        ServerAgent finished;
        ASSERT_EQ(finished.Serve(name), 0);
        WriteToRawServer(name, packet.substr(0, size));
        EXPECT_EQ(finished.Finish(), 0);
        EXPECT_EQ(finished.Clients(0).size(), 0U);
        ServerAgent exiting;
        ASSERT_EQ(exiting.Serve(name), 0);
        WriteToRawServer(name, packet.substr(0, size));
        EXPECT_EQ(exiting.Exit(), 0);
    }
}

TEST_F(ServerTest, ExitOfAServerEndsItsService) {
    ServerAgent server;
    ServerAgent client;
    ASSERT_EQ(server.Serve(name), 0);
    ExpectServed(client, self);
    EXPECT_EQ(server.Exit(), 0);
    EXPECT_EQ(client.Connect(name, self + "new"), -ENXIO);
}

TEST_F(ServerTest, FatalSignalHandlerRemovesTheServersFile) {
    ServerAgent server;
    ServerAgent client;
    ASSERT_EQ(server.Serve(name), 0);
    server.Fail();
    EXPECT_FALSE(Exists(file));
    EXPECT_EQ(client.Connect(name, self), -ENXIO);
}

// ---- Writers who follow no rules ----

TEST_F(ServerTest, MalformedPacketsOfEveryKindAreSkippedAndTheNextClientIsServed) {
    const std::string good = RawConnectPacket("n", getgid(), getpid());
    std::string unknownType = good;
    unknownType[4] = 2;
    std::string wrongMagic = good;
    wrongMagic[2] = 0;
    const std::vector<std::string> packets = {
        "garbage",
        std::string(3000, '\xD9'),
        wrongMagic,
        unknownType,
        RawConnectPacket("", getgid(), getpid()),
        RawConnectPacket(std::string(111, 'n'), getgid(), getpid()),
        RawConnectPacket(std::string(200, 'n'), getgid(), getpid()),
        RawConnectPacket(std::string(110, 'n'), getgid(), getpid()), // too long for a pipe, not for a packet
        RawConnectPacket("../../etc/passwd", getgid(), getpid()),
        RawConnectPacket("a;b", getgid(), getpid()),
        RawConnectPacket(std::string("\0name", 5), getgid(), getpid()),
        good.substr(0, 4),
        good.substr(0, 6),
        good.substr(0, 10),
        good.substr(0, 15),
        good.substr(0, 19),
        good.substr(0, 20),
    };
    ServerAgent server;
    ServerAgent client;
    ASSERT_EQ(server.Serve(name), 0);
    for (std::size_t i = 0; i < packets.size(); ++i) {
        WriteToRawServer(name, packets[i]);
        // What a broken-off packet lacks is taken from the bytes that follow.
        WriteToRawServer(name, std::string(128, '\0'));
        SCOPED_TRACE("packet " + std::to_string(i));
        ExpectServed(client, self + std::to_string(i));
    }
    EXPECT_EQ(server.Clients(packets.size()).size(), packets.size());
}

TEST_F(ServerTest, TerminatePacketOfAStrangerEndsTheServiceAndTheServerMayStartAgain) {
    ServerAgent server;
    ServerAgent client;
    ASSERT_EQ(server.Serve(name), 0);
    const int fd = client.Connect(name, self);
    ASSERT_GT(fd, 0);
    WriteToRawServer(name, RawTerminatePacket());
    while (server.Serve(name) != 0) { // -EEXIST until the thread has read the packet
    }
    ExpectServed(client, self + "new");
    EXPECT_EQ(client.Call(fd, "question"), "re: question") << "pipes live on";
    EXPECT_EQ(server.Finish(), 0);
}

TEST_F(ServerTest, ClientThatNeverOpensItsSideIsGivenUpAfterTwoSeconds) {
    ServerAgent server;
    ASSERT_EQ(server.Serve(name, ServerAgent::USUAL_MODE), 0);
    const std::string ghost = UniqueName("ghost");
    WriteToRawServer(name, RawConnectPacket(ghost, getgid(), getpid()));
    EXPECT_EQ(server.Clients(1), std::vector<std::string>{ghost}) << "the open callback does not wait for it";
    EXPECT_TRUE(Exists(FifoPath(name, ghost)));
    EXPECT_TRUE(server.AwaitLine(name + "=>" + ghost + " open pipe failed, ret=-110."));
    AwaitFifoDirectory("end of the pipe", [&] { return !Exists(FifoPath(name, ghost)); });
}

TEST_F(ServerTest, InRunModeOneAClientMayTakeItsTime) {
    ServerAgent patient;
    ServerAgent hurried;
    const std::string other = UniqueName("srv");
    ASSERT_EQ(patient.Serve(name), 0);
    const std::string late = UniqueName("late");
    WriteToRawServer(name, RawConnectPacket(late, getgid(), getpid()));
    patient.Clients(1);
    // Two seconds and more pass for another server.
    ASSERT_EQ(hurried.Serve(other, ServerAgent::USUAL_MODE), 0);
    const std::string ghost = UniqueName("ghost");
    WriteToRawServer(other, RawConnectPacket(ghost, getgid(), getpid()));
    EXPECT_TRUE(hurried.AwaitLine(other + "=>" + ghost + " open pipe failed, ret=-110."));
    RawPeer peer(late, name);
    peer.OpenBoth();
    peer.Send(RawRequest(7, "question"));
    EXPECT_EQ(peer.Receive().payload, "re: question");
    unlink((FifoDirectory() + other).c_str());
}

// ---- Crowds ----

TEST_F(ServerTest, TwoHundredClientsAtTheSameMomentAreAllServed) {
    constexpr unsigned PROCESSES = 10;
    constexpr unsigned CLIENTS_OF_EACH = 20;
    ServerAgent server;
    std::deque<ServerAgent> processes(PROCESSES);
    ASSERT_EQ(server.Serve(name), 0);
    std::vector<std::string> expected;
    for (ServerAgent &process : processes) {
        process.PrepareSwarm(name, self, CLIENTS_OF_EACH);
        for (unsigned i = 0; i < CLIENTS_OF_EACH; ++i) {
            expected.push_back(Extended(self + std::to_string(i), process));
        }
    }
    for (ServerAgent &process : processes) {
        process.ReleaseSwarm();
    }
    for (ServerAgent &process : processes) {
        EXPECT_EQ(process.SwarmResult(), std::vector<std::string>());
    }
    std::vector<std::string> served = server.Clients(expected.size());
    std::sort(served.begin(), served.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(served, expected);
    for (ServerAgent &process : processes) {
        EXPECT_EQ(process.Finish(), 0);
    }
    EXPECT_EQ(server.Finish(), 0);
}

TEST_F(ServerTest, ClientsThatConnectWhileTheServerFinishesAreAnsweredOrTold) {
    ServerAgent server;
    ServerAgent clients;
    ASSERT_EQ(server.Serve(name), 0);
    ExpectServed(clients, self);
    clients.PrepareSwarm(name, self, 30, 2000);
    clients.ReleaseSwarm();
    server.Clients(5);
    EXPECT_EQ(server.Finish(), 0);
    // All return; none has another's answer.
    for (const std::string &fault : clients.SwarmResult()) {
        EXPECT_EQ(fault.find("re: "), std::string::npos) << fault;
    }
    EXPECT_EQ(clients.Finish(), 0);
}

} // namespace
} // namespace tarvo_test
