// What a bridge knows of others, and how much of it.
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>
#include <utility>
#include <vector>

#include "bridge/CoreKit.h"
#include "core/Report.h"

using namespace tarvo_bridge;

namespace tarvo_test {

// Its side of the link has nothing to say any more, and says nothing.
TEST_F(CoreTest, SessionThatDrainsForLongCostsNoLink) {
    StartBoth();
    OpenClient("viewer");
    CorePipe &slow = exporter->machine.pipes.back();
    slow.room = 0;
    Send(importer->machine.pipes.back(), "accepted");
    importer->machine.pipes.back().listener->OnPipeGone();
    Settle();
    ASSERT_FALSE(slow.closed);
    Pass(10 * LEASE_MS);
    EXPECT_TRUE(exporter->bridge.Look().peers.front().up);
    EXPECT_TRUE(importer->bridge.Look().peers.front().up);
    EXPECT_EQ(exporter->bridge.Look().peers.front().sessions, 1U) << "it is one of those that are bounded";
    slow.MakeRoom(10);
    EXPECT_EQ(slow.written, std::vector<std::string>({"accepted"}));
    EXPECT_TRUE(slow.closed);
    EXPECT_EQ(exporter->bridge.Look().peers.front().sessions, 0U);
}

TEST_F(CoreTest, WhatWasAcceptedFromAMachineThatIsForgottenIsDelivered) {
    StartBoth();
    OpenClient("viewer");
    CorePipe &slow = exporter->machine.pipes.back();
    slow.room = 0;
    Send(importer->machine.pipes.back(), "accepted");
    Settle();
    exporter->bridge.OnRunLost(2);
    for (RunId run = 1000; run < 3000; ++run) {
        exporter->bridge.OnAnnounced(Told(run, "m" + std::to_string(run), {}));
        exporter->bridge.OnRunLost(run);
    }
    ASSERT_FALSE(slow.closed);
    slow.MakeRoom(10);
    EXPECT_EQ(slow.written, std::vector<std::string>({"accepted"}));
    EXPECT_TRUE(slow.closed);
}

TEST_F(CoreTest, LinkIsWantedByWhoImportsAndByWhoIsImportedFrom) {
    StartBoth();
    CoreNode &stranger = Start(3, "attic", {"gps"}, {});
    const auto linkTo = [](const CoreNode &node, const std::string &machine) {
        for (const auto &peer : node.bridge.Look().peers) {
            if (peer.machine == machine) {
                return std::make_pair(peer.wanted, peer.up);
            }
        }
        return std::make_pair(false, true);
    };
    EXPECT_EQ(linkTo(*exporter, "rear"), std::make_pair(true, true));
    EXPECT_EQ(linkTo(*importer, "front"), std::make_pair(true, true));
    EXPECT_EQ(linkTo(*importer, "attic"), std::make_pair(false, false));
    EXPECT_EQ(linkTo(stranger, "rear"), std::make_pair(false, false));
    exporter->bridge.OnRunLost(2);
    importer->bridge.OnRunLost(1);
    importer->bridge.OnAnnounced(Told(9, "mute", {"camera"}));
    Settle();
    EXPECT_EQ(linkTo(*importer, "mute"), std::make_pair(true, false)) << "it never answers";
}

TEST_F(CoreTest, SessionsOfOneMachineAreBoundedOnBothSidesAndItIsSaidOnce) {
    testing::internal::CaptureStderr();
    StartBoth(2);
    for (int client = 0; client < 5; ++client) {
        importer->bridge.OnClient("camera", {"viewer" + std::to_string(client), 0, 1});
    }
    Settle();
    EXPECT_EQ(importer->bridge.Look().peers.front().sessions, 2U);
    EXPECT_EQ(exporter->machine.pipes.size(), 2U);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(said, "2 pipes of this machine go to machine 'front'; one more is refused"), 1U) << said;
    // One that ends makes room for the next.
    exporter->machine.pipes.front().listener->OnPipeFailed(-1);
    Settle();
    importer->bridge.OnClient("camera", {"next", 0, 1});
    Settle();
    EXPECT_EQ(exporter->machine.pipes.size(), 3U);
}

TEST_F(CoreTest, WhatTheNetworkDidNotTakeIsAnnouncedAgain) {
    exporter = &Start(1, "front", {"camera"}, {});
    importer = &Start(2, "rear", {}, {{"camera", "", "camera"}});
    cables.room = [] { return false; };
    exporter->bridge.OnServer("camera", true);
    Pass(5000);
    EXPECT_EQ(importer->machine.offered.count("camera"), 0U);
    cables.room = [] { return true; };
    Pass(1000);
    EXPECT_EQ(importer->machine.offered.count("camera"), 1U);
}

TEST_F(CoreTest, LinkThatTheNetworkRefusedIsTriedAgain) {
    exporter = &Start(1, "front", {"camera"}, {});
    cables.takesLinks = false;
    importer = &Start(2, "rear", {}, {{"camera", "", "camera"}});
    exporter->bridge.OnServer("camera", true);
    Settle();
    EXPECT_EQ(importer->machine.offered.count("camera"), 0U);
    cables.takesLinks = true;
    Pass(1000);
    EXPECT_EQ(importer->machine.offered.count("camera"), 1U);
}

TEST_F(CoreTest, NetworkThatTakesNothingStopsClientsBeforeMemoryIsFull) {
    window = 4096;
    StartBoth();
    std::vector<CorePipe *> pipes;
    for (int client = 0; client < 5; ++client) {
        OpenClient("viewer" + std::to_string(client));
        pipes.push_back(&importer->machine.pipes.back());
    }
    cables.room = [] { return false; };
    const std::string payload(4000, 'x');
    int accepted = 0;
    for (bool more = true; more;) {
        more = false;
        for (CorePipe *const pipe : pipes) {
            if (!pipe->paused) {
                Send(*pipe, payload);
                ++accepted;
                more = true;
            }
        }
    }
    EXPECT_LT(accepted, 3000) << "their credit was for 20480";
    cables.room = [] { return true; };
    Pass(10);
    std::size_t delivered = 0;
    for (const CorePipe &pipe : exporter->machine.pipes) {
        delivered += pipe.written.size();
    }
    EXPECT_EQ(delivered, static_cast<std::size_t>(accepted));
    for (const CorePipe *const pipe : pipes) {
        EXPECT_FALSE(pipe->paused);
    }
}

TEST_F(CoreTest, EachClientIsToldToWhoeverWantsToKnowMore) {
    SetTold(Level::INFO);
    StartBoth();
    testing::internal::CaptureStderr();
    OpenClient("viewer");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "tarvo-bridge: 'viewer' asks for 'camera' of machine 'front'\n"
                                                      "tarvo-bridge: 'viewer' of machine 'rear' asks for 'camera'\n");
    SetTold(Level::NOTICE);
}

TEST_F(CoreTest, OtherMachinesSessionsAreBoundedAndItIsSaidOnce) {
    testing::internal::CaptureStderr();
    exporter = &Start(1, "front", {"camera"}, {}, 2);
    importer = &Start(2, "rear", {}, {{"camera", "", "camera"}}, 100);
    exporter->bridge.OnServer("camera", true);
    Settle();
    for (int client = 0; client < 5; ++client) {
        importer->bridge.OnClient("camera", {"viewer" + std::to_string(client), 0, 1});
    }
    Settle();
    EXPECT_EQ(exporter->machine.pipes.size(), 2U);
    EXPECT_EQ(importer->bridge.Look().peers.front().sessions, 2U) << "the others were told";
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(said, "machine 'rear' has 2 pipes through this bridge; one more is refused"), 1U) << said;
}

TEST_F(CoreTest, TwoMachinesOfOneNameAreToldOnceByWhoeverSeesThem) {
    importer = &Start(2, "rear", {}, {{"camera", "", "camera"}});
    Start(0x11, "front", {"camera"}, {}).bridge.OnServer("camera", true);
    Settle();
    testing::internal::CaptureStderr();
    Start(0x22, "front", {"camera"}, {}).bridge.OnServer("camera", true);
    Pass(10 * LEASE_MS);
    // Neither notices the other's servers as a coming back of its own.
    for (const bool lives : {false, true, false, true}) {
        nodes[0x11].bridge.OnServer("camera", lives);
        Settle();
        EXPECT_EQ(importer->bridge.Look().peers.size(), 1U);
        EXPECT_EQ(importer->bridge.Look().peers.front().run, 0x22U) << "the later one is kept";
        EXPECT_TRUE(importer->bridge.Look().imports.front().offered);
    }
    Pass(10 * LEASE_MS);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(said, "runs 0000000000000011 and 0000000000000022; only the second is used"), 1U) << said;
    EXPECT_EQ(CountOf(said, "calls its machine 'front' too and has names of this one: run 0000000000000022"), 1U);
    EXPECT_EQ(CountOf(said, "calls its machine 'front' too and has names of this one: run 0000000000000011"), 1U);
    // When the later one goes, the other is used.
    cables.Unplug(0x22);
    cables.Bury(0x22);
    Settle();
    EXPECT_EQ(importer->bridge.Look().peers.front().run, 0x11U);
    EXPECT_TRUE(importer->bridge.Look().imports.front().offered);
}

TEST_F(CoreTest, BridgeOfAnotherVersionIsToldOfAndLeftAlone) {
    StartBoth();
    OpenClient("viewer");
    testing::internal::CaptureStderr();
    Announcement older = Told(9, "a", {"camera"});
    older.version = PROTOCOL_VERSION - 1;
    Announcement newer = Told(10, "attic", {"camera"});
    newer.version = PROTOCOL_VERSION + 1;
    for (const Announcement &other : {older, newer, older, newer}) {
        importer->bridge.OnAnnounced(other);
        Bundle greeting;
        greeting.from = other.run;
        greeting.to = 2;
        greeting.mine = 1;
        cables.Inject(greeting);
    }
    cables.fate = [](const Bundle &bundle) {
        EXPECT_LT(bundle.to, 9U) << "something is sent to it";
        return Fate::ARRIVES;
    };
    Pass(10 * LEASE_MS);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(said, "the bridge of machine 'a' speaks version 0, this one 1; it is left alone"), 1U) << said;
    EXPECT_EQ(CountOf(said, "the bridge of machine 'attic' speaks version 2, this one 1; it is left alone"), 1U)
        << said;
    EXPECT_EQ(CountOf(said, "\n"), 2U) << said;
    EXPECT_EQ(importer->bridge.Look().peers.size(), 1U);
    EXPECT_EQ(importer->bridge.Look().imports.front().carriedBy, "front");
    // Nor does its end take anything.
    importer->bridge.OnRunLost(9);
    importer->bridge.OnRunLost(10);
    Send(importer->machine.pipes.back(), "still");
    Settle();
    EXPECT_EQ(exporter->machine.pipes.back().written, std::vector<std::string>({"still"}));
    // When nobody else carries the name it is not offered.
    exporter->bridge.OnServer("camera", false);
    Settle();
    EXPECT_EQ(importer->machine.offered.count("camera"), 0U);
}

TEST_F(CoreTest, RestartedBridgeIsNoSecondMachine) {
    importer = &Start(2, "rear", {}, {{"camera", "", "camera"}});
    Start(0x11, "front", {"camera"}, {}).bridge.OnServer("camera", true);
    Settle();
    testing::internal::CaptureStderr();
    cables.Unplug(0x11);
    Start(0x22, "front", {"camera"}, {}).bridge.OnServer("camera", true);
    Settle();
    EXPECT_EQ(importer->bridge.Look().peers.front().run, 0x22U);
    Pass(LEASE_MS);
    cables.Bury(0x11);
    Pass(10 * LEASE_MS);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(said, "call"), 0U) << said;
    EXPECT_TRUE(importer->bridge.Look().imports.front().offered);
}

TEST_F(CoreTest, FloodOfBridgesIsToldOnceAndTakesNoMoreMemory) {
    StartBoth();
    OpenClient("viewer");
    testing::internal::CaptureStderr();
    const std::vector<std::string> names(100, std::string(100, 'n'));
    const auto flood = [&](RunId from) {
        for (RunId run = from; run < from + 1000; ++run) {
            exporter->bridge.OnAnnounced(Told(run, "m" + std::to_string(run), names));
        }
    };
    flood(1000);
    const std::size_t before = mallinfo2().uordblks;
    flood(2000);
    const std::size_t present = exporter->bridge.Look().peers.size();
    EXPECT_LE(mallinfo2().uordblks, before + 1000000);
    EXPECT_EQ(present, 256U);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(CountOf(said, "there are 256 other bridges on the network"), 1U) << said.substr(0, 2000);
    Send(importer->machine.pipes.back(), "still");
    Settle();
    EXPECT_EQ(exporter->machine.pipes.back().written, std::vector<std::string>({"still"}));
    // What comes and goes leaves nothing, and those that go make room.
    testing::internal::CaptureStderr();
    for (RunId run = 1000; run < 3000; ++run) {
        exporter->bridge.OnRunLost(run);
    }
    for (RunId run = 10000; run < 12000; ++run) {
        exporter->bridge.OnAnnounced(Told(run, "m", names));
        exporter->bridge.OnRunLost(run);
    }
    testing::internal::GetCapturedStderr();
    EXPECT_LE(mallinfo2().uordblks, before + 1000000);
    exporter->bridge.OnAnnounced(Told(9999, "late", {}));
    EXPECT_EQ(exporter->bridge.Look().peers.size(), 2U);
}

TEST(SeldomTest, LineIsToldAtOnceAndThenOnceInAnInterval) {
    constexpr int64_t START = 5;
    Seldom seldom;
    EXPECT_TRUE(seldom.MayTell(START));
    EXPECT_FALSE(seldom.MayTell(START));
    EXPECT_FALSE(seldom.MayTell(START + Seldom::INTERVAL_US - 1));
    EXPECT_TRUE(seldom.MayTell(START + Seldom::INTERVAL_US));
    EXPECT_FALSE(seldom.MayTell(START + Seldom::INTERVAL_US + 1));
    EXPECT_TRUE(seldom.MayTell(START + 5 * Seldom::INTERVAL_US));
}

} // namespace tarvo_test
