// Bridges over DDS without machines of their own, for which it takes no right.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bridge/Machines.h"
#include "support/Eventually.h"
#include "support/Names.h"
#include "system/PeerProcess.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

// With names, a tag and a folder that no other test has.
class OneMachineTest : public testing::Test {
protected:
    ~OneMachineTest() override { std::filesystem::remove_all(folder); }

    std::unique_ptr<BridgeProcess> Bridge(const char *machine, std::vector<std::string> arguments) const {
        arguments.insert(arguments.end(), {"--machine", machine, "--interface", "lo", "--peer", "127.0.0.1", "--tag",
                                           exported, "--state-folder", folder});
        return std::make_unique<BridgeProcess>(nullptr, arguments);
    }

    const std::string exported = UniqueName("srv");
    const std::string imported = UniqueName("far");
    const std::string folder = testing::TempDir() + UniqueName("bridges");
};

TEST_F(OneMachineTest, TwoBridgesCarryCallsAndEndInOrder) {
    PeerProcess server;
    ASSERT_EQ(server.AskInt("serve self=" + exported + " callback=echo"), 0);
    const auto front = Bridge("front", {"--export", exported});
    const auto rear = Bridge("rear", {"--import", exported, "--as", imported});
    PeerProcess client;
    int fd = -1;
    ASSERT_TRUE(Eventually([&] {
        fd = client.AskInt("client timeout=5000 target=" + imported + " self=" + UniqueName("cli"));
        return fd > 0;
    })) << rear->Log();
    EXPECT_EQ(client.Ask("call text timeout=20000 data=ping" + Fd(fd)), "0 ping");
    EXPECT_EQ(client.AskInt("close" + Fd(fd)), 0);
    EXPECT_EQ(rear->Quit(), 0);
    EXPECT_EQ(front->Quit(), 0);
}

} // namespace
} // namespace tarvo_test
