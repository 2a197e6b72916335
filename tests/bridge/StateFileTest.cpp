// The file that tells what a bridge does, where it cannot be written for a while.
#include "program/StateFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "bridge/CoreKit.h"
#include "loop/Loop.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Names.h"

using tarvo_bridge::StateFile;

namespace tarvo_test {
namespace {

// A bridge that exports "camera", and the file of what it does.
class StateFileTest : public CoreTest {
protected:
    StateFileTest() : folder("/tmp/" + UniqueName("state")) { EXPECT_EQ(loop.Init(), 0); }
    ~StateFileTest() override { std::filesystem::remove_all(folder); }

    void SetUp() override {
        exporter = &Start(1, "front", {"camera"}, {});
        testing::internal::CaptureStderr();
    }
    void MakeFolder() const { ASSERT_TRUE(std::filesystem::create_directory(folder)); }
    std::string Path() const { return folder + "/bridge-" + std::to_string(getpid()) + ".json"; }
    std::string Text() const {
        std::ifstream file(Path());
        return {std::istreambuf_iterator<char>(file), {}};
    }
    bool Shows(const std::string &lives) const { return Text().find("\"lives\": " + lives) != std::string::npos; }
    bool Wait(const std::function<bool()> &condition) {
        return Eventually([&] {
            loop.Run(1);
            return condition();
        });
    }
    // How often it is said.
    static std::size_t Complaints(const std::string &why) {
        return CountOf(testing::internal::GetCapturedStderr(), "' cannot be written: " + why + "; it is tried again\n");
    }
    std::size_t Files() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
    }

    const std::string folder;
    TarvoLoop loop;
};

// That are no events, but text.
Where Texts() {
    return Where().Always().If([](const CallInfo &call) { return call.size > 100; });
}

TEST_F(StateFileTest, IsWrittenAsSoonAsThereIsItsFolder) {
    StateFile state(loop, folder, "front", exporter->bridge);
    state.Changed();
    {
        const CallCounter tried(Call::Open, Where().PathHas(folder));
        ASSERT_TRUE(Wait([&] { return tried.Count() >= 2; }));
    }
    EXPECT_EQ(Complaints("No such file or directory"), 1U) << "it was tried twice";
    testing::internal::CaptureStderr();
    MakeFolder();
    EXPECT_TRUE(Wait([this] { return Shows("false"); }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(StateFileTest, TellsWhichLinksAreWanted) {
    MakeFolder();
    importer = &Start(2, "rear", {}, {{"gps", "", "gps"}});
    StateFile state(loop, folder, "rear", importer->bridge);
    state.Changed();
    EXPECT_TRUE(Wait([this] { return Text().find("\"wanted\": false") != std::string::npos; })) << Text();
    importer->bridge.OnAnnounced(Told(9, "attic", {"gps"}));
    state.Changed();
    EXPECT_TRUE(Wait([this] { return Text().find("\"wanted\": true") != std::string::npos; })) << Text();
    testing::internal::GetCapturedStderr();
}

TEST_F(StateFileTest, StaysAsItWasWhileThereIsNoRoomForMore) {
    MakeFolder();
    StateFile state(loop, folder, "front", exporter->bridge);
    state.Changed();
    ASSERT_TRUE(Wait([this] { return Shows("false"); }));
    exporter->bridge.OnServer("camera", true);
    for (const bool partly : {false, true}) {
        const ScopedHook full(
            Call::Write,
            [partly](const CallInfo &call) {
                return partly ? Outcome{static_cast<long>(call.size) - 1, 0} : Outcome{-1, ENOSPC};
            },
            Texts());
        state.Changed();
        ASSERT_TRUE(Wait([&] { return full.Hits() > 0; }));
        EXPECT_TRUE(Shows("false")) << Text();
        EXPECT_EQ(Files(), 1U) << "what was begun is left behind";
    }
    EXPECT_TRUE(Wait([this] { return Shows("true"); })) << "without another change";
    EXPECT_EQ(Complaints("No space left on device"), 1U);
}

TEST_F(StateFileTest, WhatIsWrongAgainIsSaidAgain) {
    MakeFolder();
    StateFile state(loop, folder, "front", exporter->bridge);
    for (const bool lives : {true, false}) {
        exporter->bridge.OnServer("camera", lives);
        {
            const ScopedFault full(Call::Write, ENOSPC, Texts());
            state.Changed();
            ASSERT_TRUE(Wait([&] { return full.Hits() > 0; }));
        }
        EXPECT_TRUE(Wait([&] { return Shows(lives ? "true" : "false"); }));
    }
    EXPECT_EQ(Complaints("No space left on device"), 2U);
}

} // namespace
} // namespace tarvo_test
