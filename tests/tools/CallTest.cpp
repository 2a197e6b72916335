// tarvoctl call and send.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "support/RawFrame.h"
#include "support/RawPeer.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using CallTest = ToolTest;
using SendTest = ToolTest;

// A file with that content, gone with the object.
class ScratchFile {
public:
    explicit ScratchFile(const std::string &content) : path_("/dev/shm/" + UniqueName("file")) {
        std::ofstream(path_, std::ios::binary) << content;
    }
    ~ScratchFile() { unlink(path_.c_str()); }
    ScratchFile(const ScratchFile &) = delete;
    ScratchFile &operator=(const ScratchFile &) = delete;
    const std::string &Path() const { return path_; }

private:
    const std::string path_;
};

TEST_F(CallTest, AnswerIsPassedOnByteForByte) {
    ToolServer server(name);
    const ToolResult result = RunTool({"call", name, "ping\n\n"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "ping\n\n");
    EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(CallTest, RequestComesFromStandardInputOrAFile) {
    ToolServer server(name);
    EXPECT_EQ(RunTool({"call", name}, std::string("a\0b", 3)).out, std::string("a\0b", 3));
    EXPECT_EQ(RunTool({"call", name, "--file", "-"}, "dash").out, "dash");
    const ScratchFile file(std::string(4000, 'x'));
    EXPECT_EQ(RunTool({"call", name, "--file", file.Path()}).out, std::string(4000, 'x'));
}

TEST_F(CallTest, HexIsTakenAndPrinted) {
    ToolServer server(name);
    EXPECT_EQ(RunTool({"call", name, "--hex", "DE:ad be ef"}).out, "deadbeef\n");
}

TEST_F(CallTest, JsonHoldsTheAnswerAndItsTime) {
    ToolServer server(name);
    const std::vector<json> answers = RunTool({"call", name, "hello", "--json", "--repeat", "3"}).Json();
    ASSERT_EQ(answers.size(), 3U);
    for (const json &answer : answers) {
        EXPECT_EQ(answer["server"], name);
        EXPECT_EQ(answer["text"], "hello");
        EXPECT_EQ(answer["hex"], "68656c6c6f");
        EXPECT_EQ(answer["size"], 5);
        EXPECT_GT(answer["time_us"].get<double>(), 0);
    }
}

TEST_F(CallTest, RepeatedAnswersStandOnLines) {
    ToolServer server(name);
    EXPECT_EQ(RunTool({"call", name, "x", "--repeat", "3", "--interval", "1ms"}).out, "x\nx\nx\n");
}

TEST_F(CallTest, MissingServerIsToldAtOnce) {
    const auto start = std::chrono::steady_clock::now();
    const ToolResult result = RunTool({"call", UniqueName("nobody"), "x", "--open-timeout", "300s"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, HasSubstr("no server runs under the name"));
}

TEST_F(CallTest, SilentServerTimesOut) {
    ToolServer server(name, {"--count"});
    const ToolResult result = RunTool({"call", name, "x", "--timeout", "50ms"});
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.err, HasSubstr("did not answer in time"));
}

TEST_F(CallTest, InterruptEndsAWaitingCall) {
    ToolServer server(name, {"--count", "--print"});
    ToolProcess call({"call", name, "patience", "--no-timeout"});
    server->AwaitOut("patience");
    EXPECT_EQ(call.Interrupt().status, 130);
    server->AwaitErr("closed");
}

TEST_F(CallTest, InterruptEndsItWhileItWaitsForItsRequest) {
    const std::string path = "/dev/shm/" + UniqueName("input");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    for (const char *subcommand : {"call", "send"}) {
        ToolProcess tool({subcommand, UniqueName("nobody"), "--file", path});
        const int writer = open(path.c_str(), O_WRONLY | O_CLOEXEC); // returns once the tool opens it
        EXPECT_EQ(tool.Interrupt().status, 130) << subcommand;
        close(writer);
    }
    unlink(path.c_str());
}

TEST_F(CallTest, InterruptEndsAnOpenThatNobodyMeets) {
    // A server's FIFO with a reader that never opens its end.
    const std::string path = FifoDirectory() + name;
    ASSERT_EQ(mkfifo(path.c_str(), 0660), 0);
    const Opened reader(path, O_RDONLY);
    ToolProcess call({"call", name, "x", "--open-timeout", "900s"});
    pollfd entry = {reader.Fd(), POLLIN, 0};
    ASSERT_EQ(poll(&entry, 1, 60000), 1) << "the connect packet";
    EXPECT_EQ(call.Interrupt().status, 130);
    unlink(path.c_str());
}

// The server dies now, and the client ends and says so.
void ExpectToldOfDeath(ToolProcess &client, ToolServer &server, const std::string &told) {
    server->Signal(SIGKILL);
    const ToolResult result = client.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(told));
    server->Wait();
    RemoveOwnFifoFiles(); // of the server, which had no time to
}

TEST_F(CallTest, ServerThatDiesMeanwhileIsTold) {
    ToolServer server(name);
    ToolProcess call({"call", name, "x", "--no-timeout", "--repeat", "1000000000"});
    call.AwaitOut("x\n"); // both ends of the pipe are open
    ExpectToldOfDeath(call, server, "has closed the pipe or is gone");
}

TEST_F(CallTest, DataThatCannotBeSentIsRefused) {
    EXPECT_THAT(RunTool({"call", name, ""}).err, HasSubstr("1 to 4000 bytes, this one 0"));
    EXPECT_EQ(RunTool({"call", name}, std::string(4001, 'x')).status, 2);
    EXPECT_EQ(RunTool({"call", name, "--hex", "abc"}).status, 2);
    EXPECT_EQ(RunTool({"call", name, "--file", "/no/such/file"}).status, 2);
    EXPECT_EQ(RunTool({"call", name, "x", "--file", "-"}).status, 2);
    EXPECT_EQ(RunTool({"call", name, "x", "--timeout", "soon"}).status, 2);
    EXPECT_EQ(RunTool({"call", name, "x", "--timeout", "2fortnights"}).status, 2);
    EXPECT_EQ(RunTool({"call", "a|b", "x"}).status, 2);
    EXPECT_EQ(RunTool({"call"}).status, 2);
}

TEST_F(CallTest, LibraryLinesAreShownOnRequest) {
    const ToolResult result = RunTool({"call", UniqueName("nobody"), "x", "--log"});
    EXPECT_THAT(result.err, HasSubstr("server fifo not exist"));
}

TEST_F(SendTest, EveryRequestIsReadBeforeItEnds) {
    // More than the pipe holds, and closed right after the last one.
    ToolServer server(name, {"--count", "--limit", "1000"});
    const ToolResult result =
        RunTool({"send", name, "--repeat", "1000", "--json", "--timeout", "60s"}, std::string(4000, 'x'));
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(result.Json().size(), 1U);
    EXPECT_EQ(result.Json()[0]["sent"], 1000);
    EXPECT_EQ(result.Json()[0]["read"], true);
    EXPECT_THAT(server->Wait().out, HasSubstr("1000 requests, 4000000 bytes"));
}

TEST_F(SendTest, NothingIsPrinted) {
    ToolServer server(name);
    const ToolResult result = RunTool({"send", name, "x"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out + result.err, IsEmpty());
}

TEST_F(SendTest, InterruptEndsAWaitBetweenTwo) {
    ToolServer server(name, {"--print"});
    ToolProcess send({"send", name, "first", "--repeat", "2", "--interval", "900s"});
    server->AwaitOut("first");
    EXPECT_EQ(send.Interrupt().status, 130);
    server->AwaitErr("closed");
}

TEST_F(SendTest, ServerThatDiesMeanwhileIsTold) {
    ToolServer server(name, {"--print"});
    ToolProcess send({"send", name, "x", "--repeat", "1000000000", "--interval", "1ms"});
    server->AwaitOut("x\n");
    ExpectToldOfDeath(send, server, "has closed the pipe or is gone; sent ");
}

TEST_F(SendTest, DataThatCannotBeSentIsRefused) {
    EXPECT_THAT(RunTool({"send", name, ""}).err, HasSubstr("1 to 4000 bytes, this one 0"));
    EXPECT_EQ(RunTool({"send", name}, std::string(4001, 'x')).status, 2);
    EXPECT_EQ(RunTool({"send", name, "--hex", "abc"}).status, 2);
    EXPECT_EQ(RunTool({"send", name, "x", "--repeat", "0"}).status, 2);
    EXPECT_EQ(RunTool({"send", "a|b", "x"}).status, 2);
}

TEST_F(SendTest, ServerThatDoesNotReadIsTold) {
    ToolServer server(name);
    server->Signal(SIGSTOP);
    // The stopped server opens nothing.
    EXPECT_EQ(RunTool({"send", name, "x", "--open-timeout", "100ms"}).status, 4);
    server->Signal(SIGCONT);
}

TEST_F(SendTest, MissingServerIsToldAtOnce) {
    EXPECT_EQ(RunTool({"send", UniqueName("nobody"), "x"}).status, 3);
    EXPECT_EQ(RunTool({"send"}).status, 2);
}

} // namespace
} // namespace tarvo_test
