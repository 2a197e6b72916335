// What a network does to calls that delays and loses what it carries: nothing but to take its time.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bridge/MachinesTest.h"
#include "support/Eventually.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

class LossTest : public MachinesTest {
protected:
    static constexpr int SENT = 150;
    static constexpr int TOGETHER = 40;
    static constexpr int ONE_BY_ONE = 15;

    void StartServers() {
        library = Program(*front);
        ASSERT_EQ(library->AskInt("serve self=camera callback=echo"), 0);
        loop = Program(*front, LOOP_PEER_PROGRAM);
        ASSERT_EQ(loop->AskInt("serve self=gps callback=report"), 0);
    }
    void ExpectNothingIsLost() {
        ASSERT_TRUE(Offers(*rear));
        ASSERT_TRUE(Offers(*rear, "gps"));
        const std::unique_ptr<PeerProcess> clients[] = {Program(*rear), Program(*rear, LOOP_PEER_PROGRAM)};
        for (const auto &client : clients) {
            const int fd = Connect(*client);
            ASSERT_GT(fd, 0);
            const int oneWay = client->AskInt("client timeout=20000 target=gps self=sender");
            ASSERT_GT(oneWay, 0);
            for (int i = 0; i < TOGETHER; ++i) {
                client->Ask("start timeout=20000 tag=" + std::to_string(i) + " " + Words(i) + Fd(fd));
            }
            for (int i = 0; i < SENT; ++i) {
                ASSERT_TRUE(Eventually([&] { return client->AskInt("send " + Words(i) + Fd(oneWay)) == 0; })) << i;
            }
            for (int i = 0; i < ONE_BY_ONE; ++i) {
                ASSERT_EQ(client->Ask("call timeout=20000 " + Words(i) + Fd(fd)), "0 " + DigestOf(i));
            }
            for (int i = 0; i < TOGETHER; ++i) {
                EXPECT_EQ(client->Await("called tag=" + std::to_string(i) + " "), "result=0 " + DigestOf(i));
            }
            for (int i = 0; i < SENT; ++i) {
                ASSERT_NE(loop->Await("request").find(DigestOf(i)), std::string::npos) << i;
            }
            // What had come twice would have come before the end.
            EXPECT_EQ(client->AskInt("close" + Fd(oneWay)), 0);
            loop->Await("gone");
            EXPECT_EQ(loop->Pending("request"), 0U);
            EXPECT_EQ(client->Pending("called"), 0U);
        }
        EXPECT_EQ(library->AskInt("echoed"), 2 * (TOGETHER + ONE_BY_ONE));
        EXPECT_FALSE(importer->Says("is down")) << importer->Log();
        EXPECT_FALSE(exporter->Says("is down")) << exporter->Log();
    }

    std::unique_ptr<PeerProcess> library;
    std::unique_ptr<PeerProcess> loop;

private:
    static std::size_t Size(int number) { return 1 + static_cast<std::size_t>(number) * 97 % 1000; }
    static std::string Words(int number) { return FillWords(Size(number), static_cast<unsigned>(number)); }
    static std::string DigestOf(int number) { return FillDigest(Size(number), static_cast<unsigned>(number)); }
};

TEST_F(LossTest, CableThatDelaysAndLosesLosesNoMessage) {
    try {
        for (const Machine *const machine : {&*front, &*rear}) {
            machine->Run("tc qdisc add dev eth0 root netem delay 20ms loss 5%");
        }
    } catch (const NoMachines &missing) {
        GTEST_SKIP() << missing.what();
    }
    StartServers();
    ASSERT_TRUE(BridgeCameraAndGps());
    ExpectNothingIsLost();
}

// Of what either bridge sends, fifty packets of a thousand.
TEST_F(LossTest, PacketsThatTheDdsDropsLoseNoMessage) {
    const std::string loss = "<Internal><Test><XmitLossiness>50</XmitLossiness></Test></Internal>";
    StartServers();
    exporter = Bridge(*front, {"--export", "camera", "--export", "gps", "--dds-config", DdsConfig(*front, loss)});
    importer = Bridge(*rear, {"--import", "camera", "--import", "gps", "--dds-config", DdsConfig(*rear, loss)});
    ExpectNothingIsLost();
}

} // namespace
} // namespace tarvo_test
