// Machines on whose network somebody is who is no bridge.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "bridge/MachinesTest.h"
#include "support/CountOf.h"
#include "support/Eventually.h"
#include "support/Rounds.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

constexpr char UNHEARD[] = "something on the network speaks to this bridge as no bridge does; it is not heard";

class StrangerTest : public MachinesTest {
protected:
    // As its first line tells it.
    static std::string RunOf(const BridgeProcess &bridge) {
        const std::string log = bridge.Log();
        return log.substr(log.find(", run ") + 6, 16);
    }
};

TEST_F(StrangerTest, GarbageOnTheNetworkDisturbsNoCallAndFillsNoLog) {
    const auto server = Program(*front);
    ASSERT_EQ(server->AskInt("serve self=camera callback=echo"), 0);
    BridgeCamera();
    ASSERT_TRUE(Offers(*rear));
    const auto client = Program(*rear);
    const int fd = Connect(*client, "callback=report");
    ASSERT_GT(fd, 0);
    const std::string first = RunOf(*exporter);
    const std::string second = RunOf(*importer);
    const auto start = std::chrono::steady_clock::now();
    {
        const Machine attic(*cable, "attic");
        const auto stranger = Program(attic, STRANGER_PROGRAM);
        const int rounds = StressRounds(4);
        for (int round = 0; round < rounds; ++round) {
            const std::string last = " " + std::to_string(round);
            for (const std::string &garbage :
                 {"bundles " + first + " " + second + last + " 200", "bundles " + second + " " + first + last + " 200",
                  "announcements " + (round % 2 == 0 ? first : second) + last + " 100",
                  "packets 10.77.0.1" + last + " 1000", "packets 10.77.0.2" + last + " 1000"}) {
                stranger->Tell(garbage);
                for (int i = 0; i < 5; ++i) {
                    ASSERT_EQ(client->Ask("call text timeout=20000 data=honest" + Fd(fd)), "0 honest")
                        << garbage << exporter->Log() << importer->Log();
                }
                EXPECT_EQ(stranger->Reply(), garbage.substr(garbage.rfind(' ') + 1)) << garbage;
            }
        }
        for (const auto *const bridge : {&exporter, &importer}) {
            EXPECT_TRUE(Eventually([&] { return (*bridge)->Says(UNHEARD); }));
        }
    }
    EXPECT_EQ(client->Ask("call text timeout=20000 data=still" + Fd(fd)), "0 still");
    EXPECT_EQ(client->Pending("gone"), 0U);
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
    for (const auto *const bridge : {&exporter, &importer}) {
        const std::string log = (*bridge)->Log();
        const std::string other = bridge == &exporter ? "'rear'" : "'front'";
        EXPECT_EQ(CountOf(log, "link to machine " + other + " is up"), 1U);
        EXPECT_EQ(CountOf(log, "link to machine " + other + " is down"), 0U);
        EXPECT_EQ(CountOf(log, "the bridge of machine " + other + " is gone"), 0U) << log;
        EXPECT_EQ(CountOf(log, "\x1b") + CountOf(log, "../"), 0U) << log;
        EXPECT_GT(CountOf(log, "the bridge of machine 'n"), 0U) << "it is heard where it speaks as one does";
        EXPECT_LE(CountOf(log, UNHEARD), 1 + static_cast<std::size_t>(seconds) / 10);
    }
    EXPECT_EQ(importer->Quit(), 0) << importer->Log();
    EXPECT_EQ(exporter->Quit(), 0) << exporter->Log();
}

} // namespace
} // namespace tarvo_test
