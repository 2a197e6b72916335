// What happens between two machines when one of them is stopped, crowded or replaced.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "bridge/MachinesTest.h"
#include "support/Eventually.h"
#include "support/Rounds.h"
#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {

// What the DDS still holds for the one that is stopped, nobody acknowledges.
TEST_F(MachinesTest, EndOfALinkHoldsUpNoOther) {
    const auto camera = Program(*front);
    ASSERT_EQ(camera->AskInt("serve self=camera callback=echo"), 0);
    const Machine attic(*cable, "attic");
    const auto gps = Program(attic);
    ASSERT_EQ(gps->AskInt("serve self=gps callback=echo"), 0);
    exporter = Bridge(*front, {"--export", "camera"});
    const auto other = Bridge(attic, {"--export", "gps"});
    importer = Bridge(*rear, {"--import", "camera", "--import", "gps"});
    ASSERT_TRUE(Offers(*rear));
    ASSERT_TRUE(Offers(*rear, "gps"));
    const auto client = Program(*rear);
    const int fd = Connect(*client);
    const int call = client->AskInt("client timeout=5000 target=gps self=caller");
    ASSERT_GT(call, 0);
    exporter->Stop();
    ASSERT_EQ(client->AskInt("send times=20 data=x" + Fd(fd)), 0);
    const BridgeProcess second(&*front, {"--machine", "front", "--interface", "eth0", "--state-folder",
                                         "/dev/shm/second", "--lease", "1500", "--export", "camera"});
    std::chrono::steady_clock::duration longest{};
    while (!importer->Says("the bridge of machine 'front' is gone")) {
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(client->Ask("call text timeout=20000 data=x" + Fd(call)), "0 x");
        longest = std::max(longest, std::chrono::steady_clock::now() - start);
    }
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(client->Ask("call text timeout=20000 data=x" + Fd(call)), "0 x");
    longest = std::max(longest, std::chrono::steady_clock::now() - start);
    EXPECT_LT(longest, std::chrono::milliseconds(700));
}

// One that was killed had no time to remove it.
TEST_F(MachinesTest, StateFileOfAKilledBridgeGoesWithTheNextStart) {
    importer = Bridge(*rear, {"--import", "camera"});
    const auto fileOf = [this](const BridgeProcess &bridge) {
        return rear->SharedMemory() + "/bridges/bridge-" + std::to_string(bridge.Pid()) + ".json";
    };
    const std::string dead = fileOf(*importer);
    ASSERT_TRUE(Eventually([&] { return access(dead.c_str(), F_OK) == 0; }));
    const auto living = Bridge(*rear, {"--import", "gps"});
    const std::string kept = fileOf(*living);
    ASSERT_TRUE(Eventually([&] { return access(kept.c_str(), F_OK) == 0; }));
    importer->Kill(SIGKILL);
    EXPECT_EQ(access(dead.c_str(), F_OK), 0);
    importer = Bridge(*rear, {"--import", "camera"});
    EXPECT_NE(access(dead.c_str(), F_OK), 0);
    EXPECT_EQ(access(kept.c_str(), F_OK), 0);
}

// 8 programs of 8 threads. What each was answered was its own, and the server has answered nothing that nobody has got.
TEST_F(MachinesTest, SixtyFourCallersGetTheirOwnAnswersAndEachOnce) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    ASSERT_TRUE(Offers(*rear));
    std::vector<std::unique_ptr<PeerProcess>> clients;
    std::vector<int> fds;
    constexpr unsigned PROGRAMS = 8;
    constexpr unsigned THREADS = 8;
    for (unsigned program = 0; program < PROGRAMS; ++program) {
        clients.push_back(Program(*rear));
        fds.push_back(Connect(*clients.back(), "callback=report"));
        ASSERT_GT(fds.back(), 0);
        for (unsigned thread = 0; thread < THREADS; ++thread) {
            const unsigned seed = program * THREADS + thread;
            clients.back()->Ask("callon timeout=20000 tag=" + std::to_string(thread) + " " +
                                FillWords(1 + 60 * seed, seed) + Fd(fds.back()));
        }
    }
    for (const auto &client : clients) {
        for (unsigned thread = 0; thread < THREADS; ++thread) {
            client->Await("calling tag=" + std::to_string(thread));
        }
    }
    const int enough = 2000 * StressRounds(1);
    ASSERT_TRUE(Eventually([&] { return server->AskInt("echoed") >= enough; }, std::chrono::minutes(10)));
    int answered = 0;
    for (unsigned program = 0; program < PROGRAMS; ++program) {
        clients[program]->AskInt("close" + Fd(fds[program]));
        for (unsigned thread = 0; thread < THREADS; ++thread) {
            const std::string end = clients[program]->Await("stopped tag=" + std::to_string(thread) + " ");
            const int count = std::stoi(end.substr(end.find("count=") + 6));
            EXPECT_GT(count, 0) << end;
            EXPECT_TRUE(IsEndOfAPipe(end)) << "an answer of another, for example: " << end;
            answered += count;
        }
    }
    for (unsigned program = 0; program < PROGRAMS; ++program) {
        server->Await("gone");
    }
    const int echoed = server->AskInt("echoed");
    EXPECT_GE(echoed, answered);
    EXPECT_LE(echoed, answered + static_cast<int>(PROGRAMS * THREADS)) << "those that the close has found on their way";
}

// One-way requests, as fast as they are taken; another server's clients send theirs and are never refused.
TEST_F(MachinesTest, FloodOfASlowServerRefusesItsOwnClientsOnly) {
    const auto slow = Program(*front);
    ASSERT_EQ(slow->AskInt("serve self=camera callback=gate"), 0);
    const auto quick = Program(*front);
    ASSERT_EQ(quick->AskInt("serve self=gps callback=echo"), 0);
    ASSERT_TRUE(BridgeCameraAndGps());
    std::vector<std::unique_ptr<PeerProcess>> flooders;
    std::vector<int> fds;
    for (int i = 0; i < 3; ++i) {
        flooders.push_back(Program(*rear));
        fds.push_back(Connect(*flooders.back()));
        ASSERT_GT(fds.back(), 0);
    }
    const auto sender = Program(*rear);
    const int toQuick = sender->AskInt("client timeout=5000 target=gps self=sender");
    ASSERT_GT(toQuick, 0);
    const auto caller = Program(*rear);
    const int call = caller->AskInt("client timeout=5000 target=gps self=caller");
    ASSERT_GT(call, 0);
    int sent = 0;
    for (int round = 0; round < 10; ++round) {
        for (std::size_t i = 0; i < flooders.size(); ++i) {
            const std::string filled = flooders[i]->Ask("fillup fill=1000 seed=1" + Fd(fds[i]));
            EXPECT_NE(filled.find(" " + std::to_string(-EAGAIN)), std::string::npos) << filled;
        }
        ASSERT_EQ(sender->AskInt("send times=20 data=x" + Fd(toQuick)), 0) << "refused for another's server";
        ASSERT_EQ(caller->Ask("call text timeout=20000 data=quick" + Fd(call)), "0 quick");
        sent += 21;
    }
    EXPECT_TRUE(Eventually([&] { return quick->AskInt("echoed") == sent; }));
    slow->KillAndWait();
}

// Longer than the lease, and its clients do not wait for it. The server is one of the loop: the library's own drops
// what it has not begun when a client closes, on one machine as here.
TEST_F(MachinesTest, StoppedServerGetsAllThatClientsHadSentBeforeTheyLeft) {
    const auto server = Program(*front, LOOP_PEER_PROGRAM);
    ASSERT_EQ(server->AskInt("serve self=camera callback=report"), 0);
    const auto quick = Program(*front);
    ASSERT_EQ(quick->AskInt("serve self=gps callback=echo"), 0);
    ASSERT_TRUE(BridgeCameraAndGps());
    const auto client = Program(*rear);
    const int fd = Connect(*client);
    server->Freeze();
    // More than fits into the server's pipe, and no more than its session may have on the way: the client's side ends.
    constexpr int ACCEPTED = 80;
    for (int i = 0; i < ACCEPTED; ++i) {
        ASSERT_TRUE(Eventually([&] { return client->AskInt("send fill=1000 seed=1" + Fd(fd)) == 0; }));
    }
    ASSERT_EQ(client->AskInt("close" + Fd(fd)), 0);
    const auto start = std::chrono::steady_clock::now();
    const std::chrono::seconds stopped(StressRounds(0) > 0 ? 60 : 3);
    Eventually([&] { return std::chrono::steady_clock::now() - start >= stopped; }, stopped);
    EXPECT_FALSE(importer->Says("is down")) << importer->Log();
    EXPECT_FALSE(exporter->Says("is down")) << exporter->Log();
    server->Thaw();
    for (int i = 0; i < ACCEPTED; ++i) {
        ASSERT_NE(server->Await("request").find(FillDigest(1000, 1)), std::string::npos) << i;
    }
    server->Await("gone");
    const int again = Connect(*client);
    EXPECT_EQ(client->AskInt("send data=next" + Fd(again)), 0);
    server->Await("request");
}

TEST_F(MachinesTest, FullSharedMemoryOfTheServersMachineRefusesClientsAndNothingElse) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    ASSERT_TRUE(Offers(*rear));
    const auto first = Program(*rear);
    const int fd = Connect(*first);
    ASSERT_GT(fd, 0);
    front->FillSharedMemory();
    const auto second = Program(*rear);
    EXPECT_LT(second->AskInt("client timeout=300 target=camera self=late"), 0);
    EXPECT_EQ(first->Ask("call text timeout=20000 data=still" + Fd(fd)), "0 still");
    front->EmptySharedMemory();
    const int late = Connect(*second);
    EXPECT_EQ(second->Ask("call text timeout=20000 data=late" + Fd(late)), "0 late");
}

TEST_F(MachinesTest, NameThatFindsNoRoomInSharedMemoryIsOfferedLater) {
    BridgeCamera();
    rear->FillSharedMemory();
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    EXPECT_TRUE(Eventually([this] {
        return importer->Says("'camera' cannot be offered here: No space left on device; it is tried again");
    })) << importer->Log();
    EXPECT_FALSE(rear->Has("camera"));
    rear->EmptySharedMemory();
    ASSERT_TRUE(Offers(*rear));
    const auto client = Program(*rear);
    EXPECT_EQ(client->Ask("call text timeout=20000 data=late" + Fd(Connect(*client))), "0 late");
}

// As after a loss of power: nothing says goodbye, and nothing is left in its memory.
TEST_F(MachinesTest, MachineThatComesBackWithNewProcessIdsIsUsedAgain) {
    auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    auto client = Program(*rear);
    for (const bool serversMachine : {true, false, true, false}) {
        ASSERT_TRUE(Offers(*rear));
        const int fd = Connect(*client, "callback=report");
        ASSERT_GT(fd, 0);
        const std::string seen = server->Await("client");
        EXPECT_NE(seen.find("viewer_" + std::to_string(client->Pid()) + "@rear."), std::string::npos) << seen;
        EXPECT_EQ(client->Ask("call text timeout=20000 data=ping" + Fd(fd)), "0 ping");
        const Machine &machine = serversMachine ? *front : *rear;
        machine.Unplug();
        (serversMachine ? exporter : importer)->Kill(SIGKILL);
        (serversMachine ? server : client)->KillAndWait();
        machine.Run("rm -rf /dev/shm/bridges /dev/shm/velm/tarvo/*");
        machine.Plug();
        if (serversMachine) {
            server = Program(*front);
            ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
            exporter = Bridge(*front, {"--export", "camera"});
            client->Await("gone");
            client->AskInt("close" + Fd(fd));
        } else {
            importer = Bridge(*rear, {"--import", "camera"});
            server->Await("gone");
            client = Program(*rear);
        }
    }
}

} // namespace tarvo_test
