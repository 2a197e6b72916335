// What all subcommands have in common: help, refusals, and a machine without the FIFO directory.
#include <unistd.h>

#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

class SubcommandTest : public ToolTest, public testing::WithParamInterface<const char *> {};

TEST_P(SubcommandTest, HelpIsAnAnswer) {
    const ToolResult result = RunTool({GetParam(), "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, IsEmpty());
    for (const char *part : {"--json", "--log", "--color", "Exit status: 0 "}) {
        EXPECT_THAT(result.out, HasSubstr(part));
    }
}

TEST_P(SubcommandTest, UnknownOptionIsRefusedOnStandardError) {
    const ToolResult result = RunTool({GetParam(), "--no-such-option"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, Not(IsEmpty()));
}

INSTANTIATE_TEST_SUITE_P(All, SubcommandTest,
                         testing::Values("serve", "call", "send", "ping", "wait", "list", "watch", "stat", "top",
                                         "bench", "decode", "doctor", "init", "clean"),
                         [](const auto &subcommand) { return std::string(subcommand.param); });

using UsageTest = ToolTest;

TEST_F(UsageTest, WithoutASubcommandNothingIsDone) {
    EXPECT_EQ(RunTool({}).status, 2);
    EXPECT_EQ(RunTool({"juggle"}).status, 2);
    EXPECT_EQ(RunTool({"--help"}).status, 0);
    const ToolResult version = RunTool({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_THAT(version.out, testing::MatchesRegex("tarvoctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

// The line of a refusal that is not the same for all of them.
std::string Complaint(const std::vector<std::string> &arguments) {
    const ToolResult result = RunTool(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.out, IsEmpty());
    return result.err.substr(0, result.err.find('\n'));
}

TEST_F(UsageTest, MistypedSubcommandIsSuggested) {
    EXPECT_EQ(Complaint({"cal"}), "tarvoctl: there is no subcommand 'cal'; did you mean 'call'?");
    EXPECT_EQ(Complaint({"lsit"}), "tarvoctl: there is no subcommand 'lsit'; did you mean 'list'?");
    EXPECT_EQ(Complaint({"doc", "--strict"}), "tarvoctl: there is no subcommand 'doc'; did you mean 'doctor'?");
    EXPECT_EQ(Complaint({"juggle"}), "tarvoctl: there is no subcommand 'juggle'; see 'tarvoctl help'");
    EXPECT_EQ(Complaint({"bench-chil"}), "tarvoctl: there is no subcommand 'bench-chil'; see 'tarvoctl help'");
}

TEST_F(UsageTest, HelpSubcommandShowsWhatTheOptionShows) {
    EXPECT_EQ(RunTool({"help"}).out, RunTool({"--help"}).out);
    EXPECT_EQ(RunTool({"help", "call"}).out, RunTool({"call", "--help"}).out);
    EXPECT_EQ(RunTool({"help"}).status, 0);
    EXPECT_EQ(RunTool({"help", "call"}).status, 0);
    EXPECT_THAT(RunTool({"help", "call"}).out, HasSubstr("--no-timeout"));
    EXPECT_EQ(Complaint({"help", "cal"}), "tarvoctl: there is no subcommand 'cal'; did you mean 'call'?");
}

TEST_F(UsageTest, TimeIsExplainedWhereItIsAskedFor) {
    for (const char *subcommand : {"call", "send", "ping", "wait", "serve", "watch", "bench", "clean"}) {
        EXPECT_THAT(RunTool({subcommand, "--help"}).out, HasSubstr("\nTIME is a number with us, ms, s or min"));
    }
    EXPECT_THAT(RunTool({"list", "--help"}).out, Not(HasSubstr("TIME")));
    EXPECT_THAT(RunTool({"--help"}).out, HasSubstr("\nTIME, in all of them, is a number with us, ms, s or min"));
    EXPECT_THAT(Complaint({"call", "srv", "x", "--timeout", "5x"}),
                HasSubstr("--timeout: '5x' is not a number with us, ms, s or min"));
}

TEST_F(UsageTest, RangesAreToldInWords) {
    EXPECT_EQ(Complaint({"watch", "--count", "0"}), "--count: '0' is not a whole number of 1 or more");
    EXPECT_EQ(Complaint({"call", "srv", "x", "--repeat", "-1"}), "--repeat: '-1' is not a whole number of 1 or more");
    EXPECT_EQ(Complaint({"ping", "srv", "--size", "4001"}), "--size: '4001' is not a whole number from 1 to 4000");
    EXPECT_EQ(Complaint({"bench", "--rate", "0"}), "--rate: '0' is not a number above 0");
    // One that is larger than any counter is not silently another one.
    EXPECT_EQ(Complaint({"call", "srv", "x", "--repeat", "99999999999999999999"}),
              "--repeat: '99999999999999999999' is not a whole number of 1 or more");
}

TEST_F(UsageTest, FileThatCannotBeOpenedIsNamedWithTheReason) {
    const std::string missing = "/dev/shm/" + UniqueName("missing");
    const std::string complaint = "tarvoctl: cannot open " + missing + ": No such file or directory";
    EXPECT_EQ(Complaint({"call", "srv", "--file", missing}), complaint);
    EXPECT_EQ(Complaint({"send", "srv", "--file", missing}), complaint);
    EXPECT_EQ(Complaint({"decode", missing}), complaint);
    EXPECT_EQ(Complaint({"decode", "/dev/shm"}), "tarvoctl: cannot read /dev/shm: Is a directory");
}

TEST_F(UsageTest, ReadingFromATerminalIsTold) {
    const std::string typed = "abc\n\x04";
    for (const char *subcommand : {"call", "send"}) {
        EXPECT_THAT(RunToolOnTerminal({subcommand, UniqueName("nobody")}, typed),
                    HasSubstr("reading from the terminal; Ctrl-D on a line of its own ends it"));
    }
    EXPECT_THAT(RunToolOnTerminal({"decode"}, typed), HasSubstr("reading from the terminal"));
    EXPECT_THAT(RunToolOnTerminal({"call", UniqueName("nobody"), "x"}), Not(HasSubstr("reading")));
    EXPECT_THAT(RunTool({"call", UniqueName("nobody")}, "abc").err, Not(HasSubstr("reading")));
}

TEST_F(UsageTest, ClosedDirectoryIsNotTakenForAMissingServer) {
    TARVO_SKIP_UNLESS_ROOT();
    ExpectRun(RunWithoutFifoDirectory([] {
        EXPECT_EQ(RunTool({"init", "--group", std::to_string(getgid())}).status, 0);
        return RunAsOtherUser([] {
            const ToolResult call = RunTool({"call", "srv", "x"});
            EXPECT_EQ(call.status, 1);
            EXPECT_THAT(call.err, HasSubstr("this user may not enter " + FifoDirectory()));
            const ToolResult list = RunTool({"list"});
            EXPECT_EQ(list.status, 1);
            EXPECT_THAT(list.err, HasSubstr("Permission denied; see 'tarvoctl doctor'"));
            const ToolResult doctor = RunTool({"doctor"});
            EXPECT_EQ(doctor.status, 5);
            // The directory belongs to the group that ran init: root, whose right is not what a sender lacks.
            EXPECT_THAT(doctor.out, HasSubstr("-> as root: tarvoctl init --group GROUP; as root: usermod -aG GROUP "));
            EXPECT_THAT(doctor.out, Not(HasSubstr("-aG root")));
            return 0;
        });
    }));
}

TEST_F(UsageTest, MissingDirectoryIsToldByEveryOne) {
    TARVO_SKIP_UNLESS_ROOT();
    ExpectRun(RunWithoutFifoDirectory([] {
        const ToolResult serve = RunTool({"serve", "srv"});
        EXPECT_EQ(serve.status, 1);
        EXPECT_THAT(serve.err, HasSubstr("'tarvoctl init' makes it"));
        for (const char *subcommand : {"call", "send", "ping"}) {
            const ToolResult result = RunTool({subcommand, "srv"}, "x");
            EXPECT_EQ(result.status, 3) << subcommand;
            EXPECT_THAT(result.err, HasSubstr("/dev/shm/velm/tarvo/ is missing; 'tarvoctl init' makes it"));
        }
        EXPECT_EQ(RunTool({"list"}).status, 1);
        EXPECT_EQ(RunTool({"clean"}).status, 1);
        EXPECT_EQ(RunTool({"doctor"}).status, 5);
        const ToolResult bench = RunTool({"bench"});
        EXPECT_EQ(bench.status, 1);
        EXPECT_THAT(bench.err, HasSubstr("the server of the benchmark does not start"));
        EXPECT_EQ(RunTool({"init", "--group", std::to_string(getgid())}).status, 0);
        EXPECT_EQ(RunTool({"list"}).status, 0);
        return 0;
    }));
}

} // namespace
} // namespace tarvo_test
