// tarvoctl doctor.
#include <csignal>

#include "support/Process.h"
#include "support/Sanitized.h"
#include "tools/Scratch.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using DoctorTest = ToolTest;

ToolResult Examine(const std::string &path, const std::vector<std::string> &more = {}) {
    std::vector<std::string> arguments = {"doctor", "--json", "--directory", path};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunTool(arguments);
}

// The level of the finding of that check whose text holds `part`; empty without one.
std::string LevelOf(const ToolResult &result, const std::string &check, const std::string &part) {
    const json report = result.Json().at(0);
    for (const json &finding : report["findings"]) {
        if (finding["check"] == check && finding["finding"].get<std::string>().find(part) != std::string::npos) {
            return finding["level"];
        }
    }
    return "";
}

TEST_F(DoctorTest, SoundDirectoryHasNoErrors) {
    const ScratchDirectory directory;
    const ToolResult result = Examine(directory.Path());
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(LevelOf(result, "directory", "mode 2770"), "ok");
    EXPECT_EQ(LevelOf(result, "files", "0 FIFOs"), "ok");
    EXPECT_NE(LevelOf(result, "space", "files free"), "");
    for (const char *check : {"pipes", "descriptors", "threads", "real-time", "labels", "log"}) {
        EXPECT_NE(LevelOf(result, check, ""), "") << check;
    }
}

TEST_F(DoctorTest, TextHasALineForEachFindingAndOneForItsRemedy) {
    const ScratchDirectory directory;
    directory.AddFifo("stale");
    const ToolResult result = RunTool({"doctor", "--directory", directory.Path()});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("ok       directory    " + directory.Path() + ": mode 2770, group "));
    EXPECT_THAT(result.out, HasSubstr("warning  files        1 of 1 FIFOs are held by nobody\n"
                                      "                      -> tarvoctl clean\n"));
}

TEST_F(DoctorTest, ColoursAreForTerminals) {
    const ScratchDirectory directory;
    const std::vector<std::string> arguments = {"doctor", "--directory", directory.Path()};
    EXPECT_THAT(RunToolOnTerminal(arguments), HasSubstr("\033[32mok\033[0m       directory"));
    EXPECT_THAT(RunTool(arguments).out, Not(HasSubstr("\033[")));
}

TEST_F(DoctorTest, EveryComplaintHasARemedy) {
    const ScratchDirectory directory(0777);
    directory.AddFifo("stale");
    directory.AddFile("text");
    const json report = Examine(directory.Path()).Json().at(0);
    EXPECT_GE(report["findings"].size(), 8U);
    for (const json &finding : report["findings"]) {
        EXPECT_EQ(finding["level"] == "ok", finding["remedy"].is_null()) << finding;
    }
}

TEST_F(DoctorTest, MissingDirectoryIsAnError) {
    const ToolResult result = Examine("/dev/shm/no/such/directory");
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.Json().at(0)["worst"], "error");
    const ToolResult text = RunTool({"doctor", "--directory", "/dev/shm/no/such/directory"});
    EXPECT_EQ(text.status, 5);
    EXPECT_THAT(text.out, HasSubstr("error    directory"));
    EXPECT_THAT(text.out, HasSubstr("-> as root: tarvoctl init"));
}

TEST_F(DoctorTest, DirectoryOpenToAllIsAWarning) {
    const ScratchDirectory directory(0777);
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "directory", "every user may remove"), "warning");
    EXPECT_EQ(Examine(directory.Path()).status, 0);
    EXPECT_EQ(Examine(directory.Path(), {"--strict"}).status, 5);
}

TEST_F(DoctorTest, MissingSetGroupBitIsAWarning) {
    const ScratchDirectory directory(0770);
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "directory", "without the set-group-id bit"), "warning");
}

TEST_F(DoctorTest, DevelopmentDirectoryIsANote) {
    const ScratchDirectory directory(01777);
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "directory", "as suits development"), "note");
}

TEST_F(DoctorTest, FilesThatDoNotBelongAreNamed) {
    const ScratchDirectory directory;
    directory.AddFifo("stale");
    const std::string open = directory.AddFifo("open");
    chmod(open.c_str(), 0666);
    const std::string text = directory.AddFile("text");
    const ToolResult result = Examine(directory.Path());
    EXPECT_EQ(LevelOf(result, "files", "2 of 2 FIFOs are held by nobody"), "warning");
    EXPECT_EQ(LevelOf(result, "files", open + " has mode 0666"), "warning");
    EXPECT_EQ(LevelOf(result, "files", text + " is no FIFO"), "note");
}

TEST_F(DoctorTest, ProcessThatSigpipeWouldEndIsNamed) {
    if (EMULATED) {
        GTEST_SKIP() << "the emulator catches every signal of its program, and the kernel tells of no other";
    }
    const ScratchDirectory directory;
    const std::string path = directory.AddFifo("srv");
    ChildProcess careless([&](Channel &parent) {
        std::signal(SIGPIPE, SIG_DFL);
        const Opened held(path, O_RDONLY);
        parent.Signal();
        return parent.Await() ? 0 : 1;
    });
    ASSERT_TRUE(careless.Await());
    const std::string part = "process " + std::to_string(careless.Pid()) + " (";
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", part), "warning");
    careless.Signal();
    EXPECT_EQ(careless.Wait(), 0);
    ChildProcess careful([&](Channel &parent) {
        std::signal(SIGPIPE, SIG_IGN);
        const Opened held(path, O_RDONLY);
        parent.Signal();
        return parent.Await() ? 0 : 1;
    });
    ASSERT_TRUE(careful.Await());
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", "does not ignore SIGPIPE"), "");
    careful.Signal();
}

TEST_F(DoctorTest, ServerOnARemovedFifoIsNamed) {
    const ScratchDirectory directory;
    const Opened held(directory.AddFifo("srv"), O_RDONLY);
    unlink((directory.Path() + "srv").c_str());
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", "reads the FIFO 'srv', which was replaced or removed"),
              "warning");
}

TEST_F(DoctorTest, WrongUsageIsRefused) { EXPECT_EQ(RunTool({"doctor", "who"}).status, 2); }

} // namespace
} // namespace tarvo_test
