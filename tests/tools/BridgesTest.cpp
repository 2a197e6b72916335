// What list and doctor tell of the bridges of this machine.
#include <fcntl.h>
#include <gmock/gmock-more-matchers.h>
#include <sched.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "base/UniqueFd.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;

// A folder with the state of a bridge, and the lock of one of its names.
class BridgesTest : public ToolTest {
protected:
    BridgesTest() { setenv("TARVO_BRIDGE_STATE", state.Path().c_str(), 1); }
    ~BridgesTest() override { unsetenv("TARVO_BRIDGE_STATE"); }

    void Write(pid_t pid, int taken = -EADDRINUSE) const {
        const auto import = [](const char *local, const char *machine, const char *carrier, bool offered, int refused) {
            return json{{"name", local},         {"service", "camera"}, {"machine", machine},
                        {"carried_by", carrier}, {"offered", offered},  {"refused", refused}};
        };
        const auto peer = [](const char *machine, bool wanted, bool up, int sessions) {
            return json{{"machine", machine}, {"wanted", wanted}, {"up", up}, {"sessions", sessions}};
        };
        const json text{{"version", 1},
                        {"pid", pid},
                        {"exports", {{{"name", "radar"}, {"lives", true}}, {{"name", "gps"}, {"lives", false}}}},
                        {"imports",
                         {import("camera", "", "front", true, 0), import("second", "rear", "", false, 0),
                          import("taken", "", "front", false, taken), import("deaf", "", "attic", false, 0)}},
                        {"peers",
                         {peer("front", true, true, 3), peer("attic", true, false, 0), peer("roof", false, false, 0),
                          json{{"machine", "old"}, {"up", false}, {"sessions", 0}}}}};
        std::ofstream(state.Path() + "bridge-1.json") << text;
    }

    // As a bridge has it for as long as it lives.
    UniqueFd Lock() const {
        UniqueFd file(open((state.Path() + "gps.name").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        EXPECT_EQ(flock(file.Get(), LOCK_EX | LOCK_NB), 0);
        return file;
    }

    const ScratchDirectory state;
    const ScratchDirectory directory;
};

TEST_F(BridgesTest, ListShowsWhatIsBridged) {
    Write(getpid());
    const UniqueFd lock = Lock();
    const std::string bridge = std::to_string(getpid());
    const ToolResult result = RunTool({"list", "--directory", directory.Path()});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, testing::ContainsRegex("radar +export +exported +- +- +" + bridge));
    EXPECT_THAT(result.out, testing::ContainsRegex("gps +export +no server +- +- +" + bridge));
    EXPECT_THAT(result.out, testing::ContainsRegex("camera +import +offered +camera +front +" + bridge));
    EXPECT_THAT(result.out, testing::ContainsRegex("second +import +missing +camera@rear +- +" + bridge));
    const json all = RunTool({"list", "--json", "--directory", directory.Path()}).Json().at(0);
    EXPECT_EQ(all["bridged"].size(), 6U);
    EXPECT_EQ(all["bridged"][2]["carried_by"], "front");
    EXPECT_TRUE(all["bridged"][2]["why"].is_null());
}

TEST_F(BridgesTest, ListShowsWhyAnImportIsRefused) {
    Write(getpid(), -ENOSPC);
    const UniqueFd lock = Lock();
    EXPECT_THAT(RunTool({"list", "--directory", directory.Path()}).out,
                testing::ContainsRegex("taken +import +refused: No space left on device +camera +front"));
    const json taken = RunTool({"list", "--json", "--directory", directory.Path()}).Json().at(0)["bridged"][4];
    EXPECT_EQ(taken["refused"], -ENOSPC);
    EXPECT_EQ(taken["why"], "No space left on device");
}

TEST_F(BridgesTest, DoctorHasTheRemedyForWhatRefusesAnImport) {
    const UniqueFd lock = Lock();
    const auto remedyOf = [this](int error) {
        Write(getpid(), -error);
        const json all = RunTool({"doctor", "--json", "--directory", directory.Path()}).Json().at(0);
        for (const json &finding : all["findings"]) {
            if (finding["finding"].get<std::string>().find("cannot be offered here") != std::string::npos) {
                EXPECT_THAT(finding["finding"].get<std::string>(), HasSubstr(std::strerror(error)));
                return finding["remedy"].get<std::string>();
            }
        }
        return std::string();
    };
    EXPECT_EQ(remedyOf(EADDRINUSE), "stop the server 'taken', or import under another name");
    const std::map<int, std::string> remedies = {{ENOSPC, "tarvoctl clean"},
                                                 {EDQUOT, "tarvoctl clean"},
                                                 {EACCES, "group of the FIFO directory"},
                                                 {EPERM, "as 'taken'"},
                                                 {EROFS, "writable"},
                                                 {ENOENT, "tarvoctl init"},
                                                 {ENOTDIR, "tarvoctl init"},
                                                 {EMFILE, "LimitNOFILE"},
                                                 {ENFILE, "fs.file-max"},
                                                 {ENOMEM, "memory"},
                                                 {EIO, "see the log of process " + std::to_string(getpid())}};
    for (const auto &[error, remedy] : remedies) {
        EXPECT_THAT(remedyOf(error), AllOf(HasSubstr(remedy), Not(HasSubstr("stop the server"))));
    }
}

TEST_F(BridgesTest, ListShowsTheLinksToOtherMachines) {
    Write(getpid());
    const UniqueFd lock = Lock();
    const std::string bridge = std::to_string(getpid());
    const ToolResult result = RunTool({"list", "--directory", directory.Path()});
    EXPECT_THAT(result.out, testing::ContainsRegex("front +up +3 +" + bridge));
    EXPECT_THAT(result.out, testing::ContainsRegex("attic +down +0 +" + bridge));
    EXPECT_THAT(result.out, testing::ContainsRegex("roof +idle +0 +" + bridge));
    EXPECT_THAT(result.out, testing::ContainsRegex("old +idle +0 +" + bridge)) << "it may be that nobody wants it";
    const json links = RunTool({"list", "--json", "--directory", directory.Path()}).Json().at(0)["bridge_links"];
    ASSERT_EQ(links.size(), 4U);
    EXPECT_EQ(links[0], json({{"machine", "front"}, {"state", "up"}, {"sessions", 3}, {"bridge", getpid()}}));
    EXPECT_EQ(links[1]["state"], "down");
}

TEST_F(BridgesTest, DoctorTellsWhatIsMissing) {
    Write(getpid());
    const UniqueFd lock = Lock();
    const ToolResult result = RunTool({"doctor", "--directory", directory.Path()});
    EXPECT_THAT(result.out, testing::ContainsRegex("ok +bridge +'radar' is exported"));
    EXPECT_THAT(result.out, testing::ContainsRegex("note +bridge +'gps' is to be exported .* has no server"));
    EXPECT_THAT(result.out, testing::ContainsRegex("ok +bridge +'camera' is offered, carried by machine front"));
    EXPECT_THAT(result.out, testing::ContainsRegex("warning +bridge +'second' .* no machine carries 'camera@rear'"));
    EXPECT_THAT(result.out,
                testing::ContainsRegex("warning +bridge +'camera' of machine front cannot be offered here: Address"));
    EXPECT_THAT(result.out, testing::ContainsRegex("warning +bridge +'deaf' .* link to machine attic, .* is down"));
    EXPECT_THAT(result.out, testing::ContainsRegex("ok +bridge +the link .* to machine front is up, with 3 sessions"));
    EXPECT_THAT(result.out, testing::ContainsRegex("warning +bridge +the link .* to machine attic is down"));
    EXPECT_THAT(result.out, Not(testing::ContainsRegex("to machine (roof|old)"))) << "nobody wants those";
}

TEST_F(BridgesTest, BridgeThatWasKilledAndGarbageAreNotShown) {
    Write(0x7FFFFFF0);
    std::ofstream(state.Path() + "bridge-2.json") << "{\"pid\": 1";
    const ToolResult result = RunTool({"list", "--directory", directory.Path()});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.find("BRIDGED"), std::string::npos);
    EXPECT_EQ(result.out.find("LINK TO"), std::string::npos);
    EXPECT_THAT(result.err, HasSubstr("bridge-2.json is no state of a bridge"));
    const json all = RunTool({"list", "--json", "--directory", directory.Path()}).Json().at(0);
    EXPECT_FALSE(all.contains("bridged"));
    EXPECT_FALSE(all.contains("bridge_links"));
}

// Its number may be that of another process, its name another bridge's.
TEST_F(BridgesTest, DoctorTellsOfABridgeThatWasKilled) {
    const UniqueFd lock = Lock();
    Write(getppid());
    const std::string process = "the bridge of process " + std::to_string(getppid()) + " is dead, ";
    const ToolResult result = RunTool({"doctor", "--directory", directory.Path()});
    EXPECT_THAT(result.out, HasSubstr(process + (IsInPidNamespace() ? "or outside" : "its file is left behind")));
    EXPECT_THAT(result.out, testing::ContainsRegex(IsInPidNamespace() ? "note +bridge" : "warning +bridge"));
    EXPECT_THAT(result.out, HasSubstr("rm " + state.Path() + "bridge-1.json"));
    EXPECT_EQ(result.out.find("'radar'"), std::string::npos) << result.out;
}

TEST_F(BridgesTest, BridgeInAContainerLivesUnderTheNumberThatItHasThere) {
    Write(1);
    ChildProcess container([this](Channel &test) {
        if (unshare(CLONE_NEWPID) != 0) {
            return SKIPPED;
        }
        ChildProcess bridge([&](Channel & /*container*/) {
            const UniqueFd lock = Lock();
            test.Signal();
            return test.Await() ? 0 : 1;
        });
        return bridge.Wait();
    });
    if (container.Await()) {
        EXPECT_THAT(RunTool({"list", "--directory", directory.Path()}).out, HasSubstr("radar"));
        EXPECT_EQ(RunTool({"doctor", "--directory", directory.Path()}).out.find("is dead"), std::string::npos);
        container.Signal();
    }
    const int status = container.Wait();
    if (status == SKIPPED) {
        GTEST_SKIP() << "no right to make a pid namespace";
    }
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace tarvo_test
