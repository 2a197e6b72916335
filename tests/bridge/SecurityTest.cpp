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

    // Signs an edited file of the own authority for one of its machines.
    bool Resign(const std::string &source, const std::string &edit, const std::string &target) const {
        const std::string authority = folder + "/own/authority";
        const std::string command = "sed '" + edit + "' " + authority + "/" + source +
                                    " | openssl smime -sign -text -out " + folder + "/own/" + target + " -signer " +
                                    authority + "/cert.pem -inkey " + authority + "/key.pem";
        return std::system(command.c_str()) == 0;
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

// What the cable carries of a call, to whoever listens.
TEST_F(SecurityTest, PayloadsAreReadOnTheCableWithoutSecurityOnly) {
    const std::string question = "a-question-that-nobody-else-asks";
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    for (const bool secured : {true, false}) {
        std::vector<std::string> atFront{"--export", "camera"};
        std::vector<std::string> atRear{"--import", "camera"};
        if (secured) {
            atFront.insert(atFront.end(), {"--security", Of("own", "front")});
            atRear.insert(atRear.end(), {"--security", Of("own", "rear")});
        }
        const Tap tap(*cable);
        exporter = Bridge(*front, atFront);
        importer = Bridge(*rear, atRear);
        ASSERT_TRUE(Offers(*rear));
        const auto client = Program(*rear);
        const int fd = Connect(*client);
        EXPECT_EQ(client->Ask("call text timeout=20000 data=" + question + Fd(fd)), "0 " + question);
        const std::string heard = tap.Heard();
        EXPECT_FALSE(heard.empty());
        EXPECT_EQ(heard.find(question) == std::string::npos, secured);
        EXPECT_EQ(heard.find("viewer") == std::string::npos, secured) << "the client's name";
        EXPECT_EQ(importer->Quit(), 0);
        EXPECT_EQ(exporter->Quit(), 0);
    }
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

// The authority vouches for it, but for other topics: it does not start. Nor is it heard, and hears nobody, with a
// governance of its own that has it not look at its permissions.
TEST_F(SecurityTest, MachineWithoutPermissionForTheTopicsReachesNothing) {
    ASSERT_TRUE(Certify("own", "guest"));
    ASSERT_TRUE(Resign("guest.xml", "s/tarvo_bridge_v1/other/", "guest/permissions.p7s"));
    const Machine guest(*cable, "guest");
    BridgeProcess refused(
        &guest, {"--import", "camera", "--state-folder", MACHINE_STATE, "--security", Of("own", "guest")}, true);
    EXPECT_EQ(refused.Wait(), 1);
    EXPECT_TRUE(refused.Says("the DDS refuses the topic of runs")) << refused.Log();
    ASSERT_TRUE(Resign("governance.xml", "s/_access_control>true/_access_control>false/", "guest/governance.p7s"));
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    const auto bait = Program(guest);
    ASSERT_EQ(bait->AskInt("serve self=bait callback=echo"), 0);
    exporter = Bridge(*front, {"--export", "camera", "--import", "bait", "--security", Of("own", "front")});
    const auto atGuest = Bridge(guest, {"--import", "camera", "--export", "bait", "--security", Of("own", "guest")});
    importer = Bridge(*rear, {"--import", "camera", "--security", Of("own", "rear")});
    ASSERT_TRUE(Offers(*rear));
    const auto client = Program(*rear);
    EXPECT_EQ(client->Ask("call text timeout=20000 data=secret" + Fd(Connect(*client))), "0 secret");
    EXPECT_FALSE(guest.Serves("camera"));
    EXPECT_FALSE(front->Serves("bait"));
    EXPECT_FALSE(atGuest->Says("is there")) << atGuest->Log();
    EXPECT_FALSE(exporter->Says("'guest'")) << exporter->Log();
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
