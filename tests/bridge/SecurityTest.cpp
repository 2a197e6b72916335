// Whom a bridge with certificates lets in.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bridge/MachinesTest.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

class SecurityTest : public MachinesTest {
protected:
    void SetUp() override {
        MachinesTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        char made[] = "/tmp/tarvo-bridge-XXXXXX";
        ASSERT_NE(mkdtemp(made), nullptr);
        folder = made;
        if (std::system("command -v openssl >/dev/null") != 0) {
            GTEST_SKIP() << "there is no openssl to make certificates with";
        }
        ASSERT_TRUE(Certify("own", "front rear"));
    }
    ~SecurityTest() override {
        if (!folder.empty()) {
            std::filesystem::remove_all(folder);
        }
    }

    bool Certify(const std::string &authority, const std::string &machines) const {
        const std::string command = std::string(TARVO_BRIDGE_CERTIFICATES) + " " + folder + "/" + authority + " " +
                                    machines + " >/dev/null 2>&1";
        return std::system(command.c_str()) == 0;
    }
    std::string Of(const std::string &authority, const std::string &machine) const {
        return folder + "/" + authority + "/" + machine;
    }

    std::string folder;
};

TEST_F(SecurityTest, MachinesOfOneAuthorityReachEachOther) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    exporter = Bridge(*front, {"--export", "camera", "--security", Of("own", "front")});
    importer = Bridge(*rear, {"--import", "camera", "--security", Of("own", "rear")});
    ASSERT_TRUE(Offers(*rear));
    const auto client = Program(*rear);
    EXPECT_EQ(client->Ask("call text timeout=20000 data=secret" + Fd(Connect(*client))), "0 secret");
}

// A stranger without certificates, and one whom another authority vouches for, next to a machine that is let in: when
// that one is served, the others have had their time.
TEST_F(SecurityTest, StrangersReachNothingAndAreNotHeard) {
    ASSERT_TRUE(Certify("foreign", "rear"));
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    const Machine plain(*cable, "plain");
    const Machine forger(*cable, "forger");
    exporter = Bridge(*front, {"--export", "camera", "--import", "bait", "--security", Of("own", "front")});
    const auto bait = Program(plain);
    ASSERT_EQ(bait->AskInt("serve self=bait callback=echo"), 0);
    const auto atPlain = Bridge(plain, {"--import", "camera", "--export", "bait"});
    const auto atForger = Bridge(forger, {"--import", "camera", "--security", Of("foreign", "rear")});
    importer = Bridge(*rear, {"--import", "camera", "--security", Of("own", "rear")});
    ASSERT_TRUE(Offers(*rear));
    const auto client = Program(*rear);
    EXPECT_EQ(client->Ask("call text timeout=20000 data=secret" + Fd(Connect(*client))), "0 secret");
    EXPECT_FALSE(plain.Serves("camera"));
    EXPECT_FALSE(forger.Serves("camera"));
    EXPECT_FALSE(front->Serves("bait"));
    EXPECT_FALSE(exporter->Says("'plain'")) << exporter->Log();
    EXPECT_FALSE(exporter->Says("'forger'")) << exporter->Log();
}

TEST_F(SecurityTest, BridgeDoesNotStartWithoutOneOfItsFiles) {
    for (const char *const file : {"key.pem", "governance.p7s", "permissions.p7s"}) {
        const std::string path = Of("own", "front") + "/" + file;
        std::filesystem::rename(path, path + ".away");
        BridgeProcess bridge(
            &*front, {"--export", "camera", "--state-folder", MACHINE_STATE, "--security", Of("own", "front")}, true);
        EXPECT_EQ(bridge.Wait(), 2);
        EXPECT_TRUE(bridge.Says(path)) << bridge.Log();
        std::filesystem::rename(path + ".away", path);
    }
    // One that is there but is not what it should be.
    std::ofstream(Of("own", "front") + "/key.pem") << "no key";
    BridgeProcess bridge(
        &*front, {"--export", "camera", "--state-folder", MACHINE_STATE, "--security", Of("own", "front")}, true);
    EXPECT_EQ(bridge.Wait(), 1);
    EXPECT_TRUE(bridge.Says("the DDS cannot join the network")) << bridge.Log();
}

} // namespace
} // namespace tarvo_test
