// Who carries a name, and the name that a server sees.
#include "core/Choice.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/Bridge.h"

using namespace tarvo_bridge;

namespace {

Announcement Of(RunId run, const std::string &machine, const std::vector<std::string> &services) {
    Announcement announcement;
    announcement.run = run;
    announcement.machine = machine;
    announcement.services = services;
    announcement.names = services;
    return announcement;
}

const Announcement REAR = Of(1, "rear", {"camera", "gps"});
const Announcement FRONT = Of(2, "front", {"camera"});
const Announcement OTHER = Of(3, "attic", {"radar"});

TEST(ChoiceTest, NobodyCarriesWhatNobodyExports) {
    EXPECT_EQ(ChooseExporter({"lidar", "", "lidar"}, {&REAR, &FRONT, &OTHER}, 0), 0U);
    EXPECT_EQ(ChooseExporter({"gps", "front", "gps"}, {&REAR, &FRONT}, 0), 0U);
}

TEST(ChoiceTest, MachineWhoseNameComesFirstIsChosen) {
    EXPECT_EQ(ChooseExporter({"camera", "", "camera"}, {&REAR, &FRONT, &OTHER}, 0), FRONT.run);
    EXPECT_EQ(ChooseExporter({"camera", "rear", "camera"}, {&REAR, &FRONT, &OTHER}, 0), REAR.run);
}

TEST(ChoiceTest, OneThatCarriesTheNameKeepsIt) {
    EXPECT_EQ(ChooseExporter({"camera", "", "camera"}, {&REAR, &FRONT}, REAR.run), REAR.run);
    const Announcement without = Of(1, "rear", {"gps"});
    EXPECT_EQ(ChooseExporter({"camera", "", "camera"}, {&without, &FRONT}, REAR.run), FRONT.run);
}

TEST(ChoiceTest, OfOneMachineTheNewestIsChosen) {
    const Announcement restarted = Of(9, "front", {"camera"});
    EXPECT_EQ(ChooseExporter({"camera", "", "camera"}, {&FRONT, &restarted}, 0), restarted.run);
}

TEST(ChoiceTest, RunTakesThePlaceOfOneThatHadItsNames) {
    EXPECT_TRUE(TakesPlaceOf(Of(9, "front", {"camera", "gps"}), FRONT));
    EXPECT_FALSE(TakesPlaceOf(Of(9, "front", {"gps"}), FRONT)) << "two bridges may be on one machine";
    EXPECT_FALSE(TakesPlaceOf(Of(9, "rear", {"camera"}), FRONT));
    EXPECT_FALSE(TakesPlaceOf(FRONT, FRONT));
}

TEST(RemoteNameTest, TellsClientAndMachine) {
    EXPECT_EQ(RemoteName("viewer_812", "front", 3, 99), "viewer_812@front.3");
}

TEST(RemoteNameTest, LongNamesStayTheOnlyOnesOfTheirKind) {
    const std::string client(110, 'c');
    const std::string one = RemoteName(client, "front", 1, 99);
    const std::string two = RemoteName(client, "front", 2, 99);
    EXPECT_EQ(one.size(), 99U);
    EXPECT_EQ(two.size(), 99U);
    EXPECT_NE(one, two);
    EXPECT_EQ(RemoteName("c", std::string(200, 'm'), 77, 99).size(), 99U);
    EXPECT_EQ(RemoteName("c", std::string(200, 'm'), 77, 99).substr(96), ".77");
}

} // namespace
