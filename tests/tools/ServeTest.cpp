// tarvoctl serve, and the ends of its clients.
#include <sys/stat.h>

#include "support/RawFrame.h"
#include "support/RawPeer.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using ServeTest = ToolTest;

TEST_F(ServeTest, InterruptEndsItCleanlyAndLeavesNoFile) {
    ToolServer server(name);
    const ToolResult result = server.Interrupt();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_F(ServeTest, TerminationEndsItAsInterruptDoes) {
    ToolServer server(UniqueName("srv"));
    server->Signal(SIGTERM);
    EXPECT_EQ(server->Wait().status, 0);
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_F(ServeTest, NameInUseIsLeftToItsServer) {
    ToolServer server(name);
    const ToolResult second = RunTool({"serve", name});
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err,
                HasSubstr("process " + std::to_string(server->Pid()) + " serves as '" + name + "' already"));
    EXPECT_EQ(RunTool({"call", name, "still there"}).out, "still there");
}

TEST_F(ServeTest, ReplacedServerLeavesTheFileOfItsSuccessor) {
    ToolServer first(name);
    ToolServer second(name, {"--replace"});
    EXPECT_EQ(first.Interrupt().status, 0);
    EXPECT_EQ(RunTool({"call", name, "who is it"}).out, "who is it");
}

TEST_F(ServeTest, ExecAnswersWithWhatTheCommandPrints) {
    ToolServer server(name, {"--exec", "tr a-z A-Z; printf ' for %s' \"${TARVO_CLIENT%%_*}\""});
    EXPECT_EQ(RunTool({"call", name, "shout", "--as", "ada"}).out, "SHOUT for ada");
}

TEST_F(ServeTest, FailedCommandAnswersNothingAndSaysSo) {
    ToolServer server(name, {"--exec", "echo half; exit 3"});
    EXPECT_EQ(RunTool({"call", name, "x", "--timeout", "200ms"}).status, 4);
    const ToolResult result = server.Interrupt();
    EXPECT_THAT(result.err, HasSubstr("the command ended with 3 and printed 5 bytes"));
}

TEST_F(ServeTest, SlowCommandIsGivenUp) {
    ToolServer server(name, {"--exec", "exec sleep 1000", "--exec-timeout", "50ms"});
    EXPECT_EQ(RunTool({"call", name, "x", "--timeout", "200ms"}).status, 4);
    server->AwaitErr("took too long");
}

TEST_F(ServeTest, InterruptEndsARunningCommandToo) {
    ToolServer server(name, {"--exec", "echo started >&2; exec sleep 1000", "--exec-timeout", "900s"});
    EXPECT_EQ(RunTool({"send", name, "x"}).status, 0);
    server->AwaitErr("started");
}

TEST_F(ServeTest, CountAnswersNothingAndTellsWhatCame) {
    ToolServer server(name, {"--count", "--limit", "300"});
    EXPECT_EQ(RunTool({"send", name, "four", "--repeat", "300"}).status, 0);
    const ToolResult result = server->Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("300 requests, 1200 bytes, 1 clients\n"));
}

TEST_F(ServeTest, JsonTellsEveryEvent) {
    ToolProcess server({"serve", name, "--json", "--print", "--limit", "1"});
    server.AwaitOut("\"serving\"");
    EXPECT_EQ(RunTool({"send", name, "--hex", "ff00", "--as", "ada"}).status, 0);
    const std::vector<json> events = server.Wait().Json();
    ASSERT_GE(events.size(), 4U);
    EXPECT_EQ(events[0]["event"], "serving");
    EXPECT_EQ(events[0]["name"], name);
    json request;
    for (const json &event : events) {
        request = event["event"] == "request" ? event : request;
    }
    EXPECT_EQ(request["hex"], "ff00");
    EXPECT_EQ(request["size"], 2);
    EXPECT_FALSE(request.contains("text")) << "these bytes are no text";
    EXPECT_EQ(events.back()["event"], "ended");
    EXPECT_EQ(events.back()["requests"], 1);
    EXPECT_EQ(events.back()["clients"], 1);
}

TEST_F(ServeTest, PrintShowsEachRequestOnALine) {
    ToolServer server(name, {"--print", "--limit", "2"});
    EXPECT_EQ(RunTool({"call", name, "one"}).status, 0);
    EXPECT_EQ(RunTool({"call", name, "two\n"}).status, 0);
    EXPECT_EQ(server->Wait().out, "one\ntwo\n");
}

TEST_F(ServeTest, GroupOfTheFileIsTheOneAskedFor) {
    ToolServer server(name, {"--group", std::to_string(getgid())});
    struct stat state {};
    ASSERT_EQ(lstat((FifoDirectory() + name).c_str(), &state), 0);
    EXPECT_EQ(state.st_gid, getgid());
    EXPECT_EQ(state.st_mode & 07777U, 0660U);
}

TEST_F(ServeTest, WrongUsageIsRefusedBeforeAnythingIsMade) {
    EXPECT_EQ(RunTool({"serve"}).status, 2);
    EXPECT_EQ(RunTool({"serve", name, "--echo", "--count"}).status, 2);
    EXPECT_EQ(RunTool({"serve", name, "--limit", "0"}).status, 2);
    EXPECT_EQ(RunTool({"serve", name, "--priority", "high"}).status, 2);
    EXPECT_EQ(RunTool({"serve", "a..b"}).status, 2);
    const ToolResult group = RunTool({"serve", name, "--group", "no-such-group"});
    EXPECT_EQ(group.status, 2);
    EXPECT_THAT(group.err, HasSubstr("there is no group 'no-such-group'"));
}

} // namespace
} // namespace tarvo_test
