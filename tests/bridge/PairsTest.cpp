// Programs of either engine, and in Python, with each other between two machines.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "bridge/MachinesTest.h"
#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

struct Programs {
    const char *name;
    const char *server;
    const char *client;
};

class PairsTest : public MachinesTest, public testing::WithParamInterface<Programs> {
protected:
    void Start(const std::string &callback) {
        server = Program(*front, GetParam().server);
        ASSERT_EQ(server->AskInt("serve self=camera callback=" + callback), 0);
        BridgeCamera();
        ASSERT_TRUE(Offers(*rear));
        client = Program(*rear, GetParam().client);
        fd = Connect(*client, "callback=" + callback);
        ASSERT_GT(fd, 0);
        const std::string event = server->Await("client");
        EXPECT_NE(event.find("viewer_" + std::to_string(client->Pid()) + "@rear."), std::string::npos) << event;
        serverFd = HandleIn(event);
    }

    std::unique_ptr<PeerProcess> server;
    std::unique_ptr<PeerProcess> client;
    int fd = -1;
    int serverFd = -1;
};

INSTANTIATE_TEST_SUITE_P(Roles, PairsTest,
                         testing::Values(Programs{"LibraryCallsLibrary", SYSTEM_PEER_PROGRAM, SYSTEM_PEER_PROGRAM},
                                         Programs{"LibraryCallsLoop", LOOP_PEER_PROGRAM, SYSTEM_PEER_PROGRAM},
                                         Programs{"LibraryCallsPython", PYTHON_PEER_PROGRAM, SYSTEM_PEER_PROGRAM},
                                         Programs{"LoopCallsLibrary", SYSTEM_PEER_PROGRAM, LOOP_PEER_PROGRAM},
                                         Programs{"LoopCallsLoop", LOOP_PEER_PROGRAM, LOOP_PEER_PROGRAM},
                                         Programs{"LoopCallsPython", PYTHON_PEER_PROGRAM, LOOP_PEER_PROGRAM},
                                         Programs{"PythonCallsLibrary", SYSTEM_PEER_PROGRAM, PYTHON_PEER_PROGRAM},
                                         Programs{"PythonCallsLoop", LOOP_PEER_PROGRAM, PYTHON_PEER_PROGRAM},
                                         Programs{"PythonCallsPython", PYTHON_PEER_PROGRAM, PYTHON_PEER_PROGRAM}),
                         [](const testing::TestParamInfo<Programs> &programs) { return programs.param.name; });

TEST_P(PairsTest, CallsOfEverySizeAreAnsweredBothWays) {
    Start("echo");
    for (const std::size_t size : PAYLOAD_SIZES) {
        const std::string right = "0 " + FillDigest(size, 5);
        EXPECT_EQ(client->Ask("call timeout=20000 " + FillWords(size, 5) + Fd(fd)), right);
        EXPECT_EQ(server->Ask("call timeout=20000 " + FillWords(size, 5) + Fd(serverFd)), right);
    }
}

TEST_P(PairsTest, OneWayRequestsTimeOutsAndEndsAreThoseOfOneMachine) {
    Start("report");
    ASSERT_EQ(client->AskInt("send times=200 data=x" + Fd(fd)), 0);
    for (int i = 0; i < 200; ++i) {
        EXPECT_NE(server->NextEvent().find(Digest("x")), std::string::npos);
    }
    EXPECT_EQ(client->AskInt("call timeout=50 data=first" + Fd(fd)), -ETIMEDOUT);
    EXPECT_EQ(server->AskInt("respond data=late " + IdIn(server->Await("request")) + Fd(serverFd)), 0);
    client->Tell("call timeout=20000 text data=second" + Fd(fd));
    EXPECT_EQ(server->AskInt("respond data=right " + IdIn(server->Await("request")) + Fd(serverFd)), 0);
    EXPECT_EQ(client->Reply(), "0 right");
    EXPECT_EQ(client->AskInt("close" + Fd(fd)), 0);
    EXPECT_EQ(HandleIn(server->Await("gone")), serverFd);
}

TEST_P(PairsTest, DeathOfClientOrServerReachesTheOther) {
    Start("echo");
    client->KillAndWait();
    EXPECT_EQ(HandleIn(server->Await("gone")), serverFd);
    client = Program(*rear, GetParam().client);
    fd = Connect(*client, "callback=report");
    ASSERT_GT(fd, 0);
    EXPECT_EQ(client->Ask("call text timeout=20000 data=ping" + Fd(fd)), "0 ping");
    server->KillAndWait();
    client->Await("gone");
    EXPECT_TRUE(Withdraws(*rear));
}

} // namespace
} // namespace tarvo_test
