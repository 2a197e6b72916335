// Programs of one machine that use servers of another, over DDS.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bridge/MachinesTest.h"
#include "support/Eventually.h"
#include "support/Rounds.h"
#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

// How long a time-out of the system may last on a busy machine.
std::chrono::milliseconds Since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

TEST_F(MachinesTest, NameIsOfferedOnlyWhileItsServerLives) {
    BridgeCamera();
    const auto client = Program(*rear);
    EXPECT_EQ(client->AskInt("client timeout=5000 target=camera self=viewer"), -ENXIO);
    {
        const auto server = Program(*front);
        ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
        EXPECT_TRUE(Offers(*rear));
        EXPECT_GT(Connect(*client), 0);
        server->KillAndWait();
    }
    EXPECT_TRUE(Withdraws(*rear));
    EXPECT_EQ(client->AskInt("client timeout=5000 target=camera self=viewer"), -ENXIO);
}

TEST_F(MachinesTest, StateFileTellsWhatWorksAndGoesWithItsBridge) {
    BridgeCamera();
    const auto shows = [](const Machine &machine, const BridgeProcess &bridge, const std::string &text) {
        return Eventually([&] {
            std::ifstream file(machine.SharedMemory() + "/bridges/bridge-" + std::to_string(bridge.Pid()) + ".json");
            const std::string all{std::istreambuf_iterator<char>(file), {}};
            return all.find(text) != std::string::npos;
        });
    };
    EXPECT_TRUE(shows(*front, *exporter, "\"lives\": false"));
    EXPECT_TRUE(shows(*rear, *importer, "\"offered\": false"));
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    EXPECT_TRUE(shows(*front, *exporter, "\"lives\": true"));
    EXPECT_TRUE(shows(*rear, *importer, "\"carried_by\": \"front\""));
    EXPECT_TRUE(shows(*rear, *importer, "\"offered\": true"));
    const std::string file = rear->SharedMemory() + "/bridges/bridge-" + std::to_string(importer->Pid()) + ".json";
    EXPECT_EQ(importer->Quit(), 0);
    EXPECT_NE(access(file.c_str(), F_OK), 0);
}

TEST_F(MachinesTest, BridgeThatEndsInOrderLeavesNothing) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    ASSERT_TRUE(Offers(*rear));
    const auto client = Program(*rear);
    const int fd = Connect(*client, "callback=report");
    EXPECT_EQ(client->Ask("call text timeout=20000 data=ping" + Fd(fd)), "0 ping");
    EXPECT_EQ(importer->Quit(), 0);
    client->Await("gone");
    server->Await("gone");
    EXPECT_FALSE(rear->Has("camera"));
    client->AskInt("close" + Fd(fd));
    EXPECT_TRUE(Eventually([this] { return rear->Files() == 0; }));
    EXPECT_EQ(exporter->Quit(), 0);
}

TEST_F(MachinesTest, BridgeEndsInOrderWithoutANetworkToo) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    ASSERT_TRUE(Offers(*rear));
    front->Unplug();
    rear->Run("ip addr flush dev eth0");
    EXPECT_EQ(exporter->Quit(), 0);
    EXPECT_EQ(importer->Quit(), 0);
    EXPECT_FALSE(rear->Has("camera"));
    EXPECT_EQ(rear->Run(std::string("find ") + MACHINE_STATE + " -name 'bridge-*'"), "");
}

TEST_F(MachinesTest, DeathOfTheOtherMachinesBridgeIsNoticedWithinThreeSeconds) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=report"), 0);
    BridgeCamera();
    ASSERT_TRUE(Offers(*rear));
    const auto client = Program(*rear);
    const int fd = Connect(*client, "callback=report");
    client->Tell("call data=question" + Fd(fd));
    server->Await("request");
    exporter->Kill(SIGKILL);
    const auto death = std::chrono::steady_clock::now();
    EXPECT_EQ(client->Reply(), std::to_string(-EPIPE));
    client->Await("gone");
    EXPECT_LT(Since(death).count(), 3000);
    EXPECT_TRUE(Withdraws(*rear));
    EXPECT_LT(Since(death).count(), 3500);
    server->Await("gone");
}

TEST_F(MachinesTest, BridgeThatIsKilledAndRestartedWorksAtOnce) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    for (int round = 0; round < 4; ++round) {
        ASSERT_TRUE(Offers(*rear));
        const auto client = Program(*rear);
        const int fd = Connect(*client, "callback=report");
        ASSERT_GT(fd, 0);
        EXPECT_EQ(client->Ask("call text timeout=20000 data=ping" + Fd(fd)), "0 ping");
        (round % 2 == 0 ? exporter : importer)->Kill(SIGKILL);
        const auto death = std::chrono::steady_clock::now();
        if (round % 2 == 0) {
            exporter = Bridge(*front, {"--export", "camera"});
        } else {
            importer = Bridge(*rear, {"--import", "camera"});
        }
        client->Await("gone");
        const auto next = Program(*rear);
        const int again = Connect(*next);
        EXPECT_EQ(next->Ask("call text timeout=20000 data=again" + Fd(again)), "0 again");
        EXPECT_LT(Since(death).count(), 1500) << "it has not waited for the lease of the one before";
        server->Await("gone");
    }
}

TEST_F(MachinesTest, StoppedBridgeIsTakenForDeadAndComesBack) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    ASSERT_TRUE(Offers(*rear));
    const auto client = Program(*rear);
    ASSERT_GT(Connect(*client, "callback=report"), 0);
    exporter->Stop();
    client->Await("gone");
    EXPECT_TRUE(Withdraws(*rear));
    exporter->Go();
    EXPECT_TRUE(Offers(*rear));
    const int fd = Connect(*client);
    EXPECT_EQ(client->Ask("call text timeout=20000 data=back" + Fd(fd)), "0 back");
    server->Await("gone");
}

TEST_F(MachinesTest, NetworkThatComesBackIsUsedAgain) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    struct Silence {
        const Machine *machine;
        int seconds;
    };
    std::vector<Silence> silences{{&*rear, 1}, {&*rear, 3}, {&*front, 3}};
    if (StressRounds(0) > 0) {
        silences.push_back({&*rear, 5});
        silences.push_back({&*rear, 30});
    }
    for (const auto &[machine, seconds] : silences) {
        ASSERT_TRUE(Offers(*rear));
        const auto client = Program(*rear);
        const int fd = Connect(*client, "callback=report");
        client->Tell("callon tag=t timeout=20000 data=x" + Fd(fd));
        client->Reply();
        client->Await("calling");
        machine->Unplug();
        const auto start = std::chrono::steady_clock::now();
        if (seconds >= 3) {
            client->Await("gone");
            EXPECT_LT(Since(start).count(), 3000);
            client->Await("stopped");
            EXPECT_TRUE(Withdraws(*rear));
        }
        const auto over = start + std::chrono::seconds(seconds);
        Eventually([over] { return std::chrono::steady_clock::now() >= over; }, std::chrono::seconds(40));
        machine->Plug();
        client->KillAndWait(); // after a short silence its calls go on
        EXPECT_TRUE(Offers(*rear));
        const auto next = Program(*rear);
        const int again = Connect(*next);
        EXPECT_EQ(next->Ask("call text timeout=20000 data=back" + Fd(again)), "0 back");
    }
}

TEST_F(MachinesTest, StoppedServerHoldsUpNobodyElse) {
    const auto slow = Program(*front);
    ASSERT_EQ(slow->AskInt("serve self=camera callback=report"), 0);
    const auto quick = Program(*front);
    ASSERT_EQ(quick->AskInt("serve self=gps callback=echo"), 0);
    ASSERT_TRUE(BridgeCameraAndGps());
    const auto flooder = Program(*rear);
    const int flood = Connect(*flooder);
    const auto caller = Program(*rear);
    const int call = caller->AskInt("client timeout=5000 target=gps self=caller");
    ASSERT_GT(call, 0);
    slow->Freeze();
    int accepted = 0;
    // Until nothing more is taken while the other way stays open.
    for (bool more = true; more;) {
        const std::string filled = flooder->Ask("fillup fill=1000 seed=1" + Fd(flood));
        EXPECT_NE(filled.find(" " + std::to_string(-EAGAIN)), std::string::npos) << filled;
        accepted += std::stoi(filled);
        more = std::stoi(filled) > 0;
        EXPECT_EQ(caller->Ask("call text timeout=20000 data=quick" + Fd(call)), "0 quick");
    }
    EXPECT_GT(accepted, 100);
    slow->Thaw();
    for (int i = 0; i < accepted; ++i) {
        ASSERT_NE(slow->Await("request").find(FillDigest(1000, 1)), std::string::npos) << i;
    }
}

TEST_F(MachinesTest, FullSharedMemoryRefusesClientsAndNothingElse) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    ASSERT_TRUE(Offers(*rear));
    const auto first = Program(*rear);
    const int fd = Connect(*first);
    rear->FillSharedMemory();
    const auto second = Program(*rear);
    EXPECT_LT(second->AskInt("client timeout=300 target=camera self=late"), 0);
    EXPECT_EQ(first->Ask("call text timeout=20000 data=still" + Fd(fd)), "0 still");
    rear->EmptySharedMemory();
    EXPECT_GT(Connect(*second), 0);
}

TEST_F(MachinesTest, OneOfTwoExportersIsKeptAndTheOtherTakesOver) {
    const Machine third(*cable, "attic");
    const auto atFront = Program(*front);
    ASSERT_EQ(atFront->AskInt("serve self=camera callback=echo"), 0);
    const auto atAttic = Program(third);
    ASSERT_EQ(atAttic->AskInt("serve self=camera callback=echo"), 0);
    exporter = Bridge(*front, {"--export", "camera"});
    importer = Bridge(*rear, {"--import", "camera", "--import", "camera@attic", "--as", "second"});
    ASSERT_TRUE(Offers(*rear));
    const auto other = Bridge(third, {"--export", "camera"});
    ASSERT_TRUE(Offers(*rear, "second"));
    const auto client = Program(*rear);
    const int first = Connect(*client, "callback=report");
    ASSERT_GT(first, 0);
    atFront->Await("client");
    const int byName = client->AskInt("client timeout=5000 target=second self=viewer");
    EXPECT_EQ(client->Ask("call text timeout=20000 data=named" + Fd(byName)), "0 named");
    atAttic->Await("client");
    exporter->Kill(SIGKILL);
    client->Await("gone");
    client->AskInt("close" + Fd(first)); // or it is what the next opening finds
    const int fd = Connect(*client);
    EXPECT_EQ(client->Ask("call text timeout=20000 data=next" + Fd(fd)), "0 next");
    atAttic->Await("client");
}

TEST_F(MachinesTest, TwoBridgesOfOneMachineRefuseTheSameName) {
    importer = Bridge(*rear, {"--import", "camera"});
    for (const char *const way : {"--export", "--import"}) {
        BridgeProcess second(&*rear, {way, "camera", "--interface", "eth0", "--state-folder", MACHINE_STATE}, true);
        EXPECT_EQ(second.Wait(), 1);
        EXPECT_TRUE(second.Says("another bridge of this machine has 'camera': it is imported by process " +
                                std::to_string(importer->Pid())))
            << second.Log();
    }
    importer->Kill(SIGKILL);
    const auto after = Bridge(*rear, {"--export", "camera"});
}

TEST_F(MachinesTest, BridgesOfAnotherTagAreNotHeard) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    const auto stranger = Bridge(*front, {"--export", "camera", "--tag", "other"});
    importer = Bridge(*rear, {"--import", "camera"});
    // A third one that both would hear after the stranger.
    const Machine third(*cable, "attic");
    const auto atAttic = Program(third);
    ASSERT_EQ(atAttic->AskInt("serve self=camera callback=echo"), 0);
    const auto friendly = Bridge(third, {"--export", "camera"});
    ASSERT_TRUE(Offers(*rear));
    EXPECT_FALSE(importer->Says("'front'")) << importer->Log();
}

// Whatever is killed in the middle of traffic: every call ends, and the next works. Each program is followed by one of
// the other engine; the usual rounds have each victim with clients of either.
TEST_F(MachinesTest, KillsInTrafficWedgeNothing) {
    std::mt19937 random(5418);
    const char *const engines[] = {LOOP_PEER_PROGRAM, SYSTEM_PEER_PROGRAM};
    int servers = 0;
    auto server = Program(*front, engines[0]);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    const int rounds = StressRounds(8);
    for (int round = 0; round < rounds; ++round) {
        auto client = Program(*rear, engines[(round + 1) % 2]);
        const int fd = Connect(*client, "callback=report");
        ASSERT_GT(fd, 0) << "round " << round;
        constexpr int CALLERS = 8;
        for (int i = 0; i < CALLERS; ++i) {
            const std::string words = "callon timeout=20000 tag=" + std::to_string(i) + " ";
            client->Ask(words + FillWords(100 + static_cast<std::size_t>(i), static_cast<unsigned>(round)) + Fd(fd));
            client->Await("calling tag=" + std::to_string(i));
        }
        const unsigned victim = random() % 4;
        if (victim == 0) {
            client->KillAndWait();
            continue;
        }
        if (victim == 1) {
            server->KillAndWait();
        } else {
            (victim == 2 ? exporter : importer)->Kill(SIGKILL);
        }
        if (victim == 1) {
            server = Program(*front, engines[++servers % 2]);
            ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
        } else if (victim == 2) {
            exporter = Bridge(*front, {"--export", "camera"});
        } else {
            importer = Bridge(*rear, {"--import", "camera"});
        }
        for (int i = 0; i < CALLERS; ++i) {
            const std::string end = client->Await("stopped tag=" + std::to_string(i));
            EXPECT_TRUE(IsEndOfAPipe(end)) << end;
        }
    }
    const auto last = Program(*rear);
    EXPECT_EQ(last->Ask("call text timeout=20000 data=last" + Fd(Connect(*last))), "0 last");
}

} // namespace
} // namespace tarvo_test
