// tarvoctl sandbox.
#include <unistd.h>

#include <csignal>

#include "support/Sanitized.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

constexpr int NO_SANDBOX = 125;

// Most tests need a kernel that allows it to this user.
class SandboxTest : public ToolTest {
protected:
    void SetUp() override {
        ToolTest::SetUp();
        const ToolResult probe = RunTool({"sandbox", "true"});
        if (probe.status == NO_SANDBOX) {
            GTEST_SKIP() << probe.err;
        }
        ASSERT_EQ(probe.status, 0) << probe.err;
    }
};

std::vector<std::string> InSandbox(const std::vector<std::string> &command) {
    return Joined({"sandbox", "--"}, command);
}

std::vector<std::string> ToolInSandbox(const std::vector<std::string> &arguments) {
    return Joined(InSandbox({TARVOCTL_PROGRAM}), arguments);
}

TEST_F(SandboxTest, InsideAndOutsideDoNotMeet) {
    ToolServer outside(name);
    EXPECT_EQ(RunTool(InSandbox({"ls", FifoDirectory()})).out, "") << "it begins empty";
    EXPECT_EQ(RunTool(ToolInSandbox({"call", name, "x"})).status, 3);
    outside.Interrupt();
    const std::string inner = UniqueName("inner");
    ToolProcess inside(ToolInSandbox({"serve", inner}));
    inside.AwaitErr("serving as '" + inner + "'");
    EXPECT_EQ(RunTool({"call", inner, "x"}).status, 3);
    EXPECT_FALSE(std::filesystem::exists(FifoDirectory() + inner));
    EXPECT_EQ(inside.Interrupt().status, 0);
}

TEST_F(SandboxTest, TwoOfThemServeUnderTheSameName) {
    const std::string script = std::string(TARVOCTL_PROGRAM) + " serve hello --limit 1 --exec 'cat; echo " +
                               "$PPID' & " + TARVOCTL_PROGRAM + " wait hello && echo waiting && read line && " +
                               TARVOCTL_PROGRAM + " call hello $0 && wait";
    const auto words = [&](const std::string &text) { return InSandbox({"sh", "-c", script, text}); };
    ToolProcess first(words("one"), "\n");
    ToolProcess second(words("two"), "\n");
    const ToolResult one = first.Wait();
    const ToolResult two = second.Wait();
    EXPECT_EQ(one.status, 0) << one.err;
    EXPECT_EQ(two.status, 0) << two.err;
    EXPECT_THAT(one.out, testing::StartsWith("waiting\none"));
    EXPECT_THAT(two.out, testing::StartsWith("waiting\ntwo"));
}

TEST_F(SandboxTest, ExitStatusAndSignalsArePassedOn) {
    EXPECT_EQ(RunTool({"sandbox", "sh", "-c", "exit 7"}).status, 7);
    EXPECT_EQ(RunTool({"sandbox", "sh", "-c", "kill -TERM $$"}).status, 128 + SIGTERM);
    ToolProcess command({"sandbox", "sh", "-c", "trap 'exit 9' INT; echo ready; while :; do read line; done"}, "\n");
    command.AwaitOut("ready");
    EXPECT_EQ(command.Interrupt().status, 9);
}

TEST_F(SandboxTest, SignalsAreForTheCommandAsTheyWereForTheTool) {
    if (EMULATED) {
        GTEST_SKIP() << "the kernel tells of the emulator's signals, and not of its program's";
    }
    // What this test has itself been started with.
    std::string expected;
    std::ifstream own("/proc/self/status");
    for (std::string line; std::getline(own, line);) {
        expected += line.rfind("SigBlk:", 0) == 0 || line.rfind("SigIgn:", 0) == 0 ? line + "\n" : "";
    }
    EXPECT_EQ(RunTool({"sandbox", "grep", "-E", "Sig(Blk|Ign)", "/proc/self/status"}).out, expected);
}

TEST_F(SandboxTest, WordsOfTheCommandAreItsOwn) {
    EXPECT_EQ(RunTool({"sandbox", "echo", "--help", "--", "-h"}).out, "--help -- -h\n");
    EXPECT_EQ(RunTool({"sandbox", "--", "echo", "list"}).out, "list\n");
    EXPECT_EQ(RunTool({"sandbox", "printf", "%s|", "[a,b]", "%%", ""}).out, "[a,b]|%%||");
    EXPECT_EQ(RunTool({"sandbox", "cat"}, "input").out, "input");
}

TEST_F(SandboxTest, CommandThatCannotBeRunIsToldApart) {
    const ToolResult missing = RunTool({"sandbox", "/no/such/command"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_EQ(missing.err, "tarvoctl: cannot run '/no/such/command': No such file or directory\n");
    EXPECT_EQ(RunTool({"sandbox", "/dev"}).status, 126);
}

TEST_F(SandboxTest, WrongUsageIsRefused) {
    const ToolResult none = RunTool({"sandbox"});
    EXPECT_EQ(none.status, 2);
    EXPECT_THAT(none.err, HasSubstr("there is no command to run"));
    EXPECT_EQ(RunTool({"sandbox", "--"}).status, 2);
    EXPECT_EQ(RunTool({"sandbox", "--no-such-option", "true"}).status, 2);
    EXPECT_EQ(RunTool({"sandbox", "--help"}).status, 0);
}

TEST_F(SandboxTest, MountsOfTheMachineStayWhatTheyAre) {
    const auto mounts = [] {
        std::ifstream file("/proc/self/mountinfo");
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const std::string before = mounts();
    EXPECT_EQ(RunTool({"sandbox", "touch", FifoDirectory() + "file"}).status, 0);
    EXPECT_EQ(mounts(), before);
    EXPECT_FALSE(std::filesystem::exists(FifoDirectory() + "file"));
}

TEST_F(SandboxTest, OrdinaryUserStaysHimself) {
    TARVO_SKIP_UNLESS_ROOT();
    if (EMULATED) {
        GTEST_SKIP() << "an emulator has threads of its own, and the kernel gives such processes no user namespace";
    }
    ExpectRun(RunAsOtherUser([] {
        const ToolResult result = RunTool({"sandbox", "sh", "-c", "id -u; id -g; grep CapEff /proc/self/status"});
        if (result.status == NO_SANDBOX) {
            return SKIPPED;
        }
        EXPECT_EQ(result.out, "65534\n65534\nCapEff:\t0000000000000000\n") << result.err;
        const std::string script = std::string(TARVOCTL_PROGRAM) + " serve hello --limit 1 & " + TARVOCTL_PROGRAM +
                                   " wait hello && " + TARVOCTL_PROGRAM + " call hello there && wait";
        EXPECT_EQ(RunTool({"sandbox", "sh", "-c", script}).out, "there");
        return 0;
    }));
}

// A user without rights in a root directory of his own, where the kernel makes no user namespaces.
TEST_F(SandboxTest, RefusalOfTheKernelIsToldWithARemedy) {
    TARVO_SKIP_UNLESS_ROOT();
    if (EMULATED) {
        GTEST_SKIP() << "an emulator has threads of its own, for which the kernel refuses with another error";
    }
    ExpectRun(RunWithoutFifoDirectory([] {
        const char root[] = "/dev/shm/root";
        if (mkdir(root, 0755) != 0 || mount("/", root, nullptr, MS_BIND | MS_REC, nullptr) != 0 || chroot(root) != 0 ||
            chdir("/") != 0) {
            return SKIPPED;
        }
        return RunAsOtherUser([] {
            const ToolResult result = RunTool({"sandbox", "true"});
            EXPECT_EQ(result.status, NO_SANDBOX);
            EXPECT_THAT(result.err, testing::MatchesRegex("tarvoctl: the kernel refuses to make namespaces for this "
                                                          "user: Operation not permitted \\(run it as root[^\n]*\n"));
            return 0;
        });
    }));
}

} // namespace
} // namespace tarvo_test
