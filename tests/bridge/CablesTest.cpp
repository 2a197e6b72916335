// Which network a bridge speaks on, and how it finds others there.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bridge/MachinesTest.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

class CablesTest : public MachinesTest {
protected:
    static void ExpectAnswer(const Machine &machine) {
        ASSERT_TRUE(Offers(machine)) << machine.Name();
        const auto client = Program(machine);
        EXPECT_EQ(client->Ask("call text timeout=20000 data=ping" + Fd(Connect(*client))), "0 ping");
    }
};

// The one on the other cable is there before the one that is served: it has had its time then.
TEST_F(CablesTest, BridgeSpeaksOnTheInterfaceThatItIsToldOnly) {
    Cable second("10.78.0");
    front->Join(second, "eth1");
    rear->Join(second, "eth1");
    const Machine attic(*cable, "attic");
    const Machine cellar(second, "cellar");
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    importer = Bridge(*rear, {"--import", "camera"});
    const auto atAttic = Bridge(attic, {"--import", "camera"});
    const auto atCellar = Bridge(cellar, {"--import", "camera"});
    exporter = Bridge(*front, {"--export", "camera"}, "eth1");
    ExpectAnswer(cellar);
    EXPECT_FALSE(rear->Serves("camera"));
    EXPECT_FALSE(importer->Says("'front'")) << importer->Log();
    EXPECT_FALSE(atAttic->Says("'front'")) << atAttic->Log();
    EXPECT_TRUE(importer->Says("the bridge of machine 'attic' is there")) << importer->Log();
    EXPECT_FALSE(exporter->Says("'rear'")) << exporter->Log();
    EXPECT_FALSE(exporter->Says("'attic'")) << exporter->Log();
    EXPECT_EQ(importer->Quit(), 0);
    importer = Bridge(*rear, {"--import", "camera"}, "eth1");
    ExpectAnswer(*rear);
}

// On a cable that carries none. The one that nobody asks for is there before those that are found.
TEST_F(CablesTest, PeersFindEachOtherWithoutMulticast) {
    Cable second("10.78.0", false);
    const Machine attic(second, "attic");
    const Machine cellar(second, "cellar");
    const Machine shed(second, "shed");
    const Machine yard(second, "yard");
    const auto server = Program(attic);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    const auto unasked = Bridge(yard, {"--import", "camera"});
    const auto atCellar = Bridge(cellar, {"--import", "camera", "--peer", attic.Address()});
    const auto atShed = Bridge(shed, {"--import", "camera", "--peer", attic.Address()});
    const auto atAttic = Bridge(attic, {"--export", "camera", "--peer", cellar.Address(), "--peer", shed.Address()});
    ExpectAnswer(cellar);
    ExpectAnswer(shed);
    EXPECT_FALSE(yard.Serves("camera"));
    EXPECT_FALSE(unasked->Says("is there")) << unasked->Log();
}

} // namespace
} // namespace tarvo_test
