// What happens between two machines when one of them is stopped, crowded or replaced.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>

#include "bridge/MachinesTest.h"
#include "support/Eventually.h"
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

} // namespace tarvo_test
