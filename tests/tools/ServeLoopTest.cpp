// tarvoctl serve on the two engines: what both of them promise, and several names on one loop.
#include <poll.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "support/Eventually.h"
#include "support/RawFrame.h"
#include "support/RawPeer.h"
#include "support/Sanitized.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;

// What serve promises holds on each engine.
class ServeEngineTest : public ToolTest, public testing::WithParamInterface<const char *> {
protected:
    std::vector<std::string> On(const std::vector<std::string> &more = {}) const {
        return Joined({"--engine", GetParam()}, more);
    }
};

INSTANTIATE_TEST_SUITE_P(Engines, ServeEngineTest, testing::Values("threads", "loop"),
                         [](const auto &engine) { return std::string(engine.param); });

TEST_P(ServeEngineTest, InterruptEndsItCleanlyAndLeavesNoFile) {
    ToolServer server(name, On());
    EXPECT_EQ(RunTool({"call", name, "hello"}).out, "hello");
    const ToolResult result = server.Interrupt();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, HasSubstr("serving as '" + name + "'; Ctrl-C ends it\n"));
    EXPECT_THAT(result.err, testing::ContainsRegex("tarvoctl_[0-9]+ connected\n"));
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_P(ServeEngineTest, NameInUseIsLeftToItsServer) {
    ToolServer server(name, On());
    const ToolResult second = RunTool(Joined({"serve", name}, On()));
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err,
                HasSubstr("process " + std::to_string(server->Pid()) + " serves as '" + name + "' already"));
    EXPECT_EQ(RunTool({"call", name, "still there"}).out, "still there");
}

TEST_P(ServeEngineTest, ReplacedServerLeavesTheFileOfItsSuccessor) {
    ToolServer first(name, On());
    ToolServer second(name, On({"--replace"}));
    EXPECT_EQ(first.Interrupt().status, 0);
    EXPECT_EQ(RunTool({"call", name, "who is it"}).out, "who is it");
}

TEST_P(ServeEngineTest, ExecAnswersWithWhatTheCommandPrints) {
    ToolServer server(name, On({"--exec", "tr a-z A-Z; printf ' for %s' \"${TARVO_CLIENT%%_*}\""}));
    EXPECT_EQ(RunTool({"call", name, "shout", "--as", "ada"}).out, "SHOUT for ada");
}

TEST_P(ServeEngineTest, CommandThatPrintsNothingOrTooMuchAnswersNothing) {
    ToolServer server(name, On({"--exec", "read -r size && head -c \"$size\" /dev/zero"}));
    EXPECT_EQ(RunTool({"call", name, "0\n", "--timeout", "200ms"}).status, 4);
    server->AwaitErr("the command ended with 0 and printed 0 bytes");
    EXPECT_EQ(RunTool({"call", name, "4001\n", "--timeout", "200ms"}).status, 4);
    server->AwaitErr("the command printed more than 4000 bytes or took too long");
    EXPECT_EQ(RunTool({"call", name, "4000\n"}).out.size(), 4000U);
}

TEST_P(ServeEngineTest, FailedCommandAnswersNothingAndSaysSo) {
    ToolServer server(name, On({"--exec", "echo half; exit 3"}));
    EXPECT_EQ(RunTool({"call", name, "x", "--timeout", "200ms"}).status, 4);
    server->AwaitErr("the command ended with 3 and printed 5 bytes");
}

TEST_P(ServeEngineTest, SlowCommandIsGivenUp) {
    ToolServer server(name, On({"--exec", "exec sleep 1000", "--exec-timeout", "50ms"}));
    EXPECT_EQ(RunTool({"call", name, "x", "--timeout", "200ms"}).status, 4);
    server->AwaitErr("took too long");
}

TEST_P(ServeEngineTest, CommandThatClosesItsOutputAndRunsOnIsGivenUpToo) {
    ToolServer server(name, On({"--exec", "echo half; exec >&-; exec sleep 1000", "--exec-timeout", "50ms"}));
    EXPECT_EQ(RunTool({"call", name, "x", "--timeout", "200ms"}).status, 4);
    server->AwaitErr("took too long");
}

TEST_P(ServeEngineTest, InterruptEndsARunningCommandToo) {
    ToolServer server(name, On({"--exec", "echo started >&2; exec sleep 1000", "--exec-timeout", "900s"}));
    const ToolProcess call({"call", name, "x", "--timeout", "900s"});
    server->AwaitErr("started");
    EXPECT_EQ(server.Interrupt().status, 0);
}

TEST_P(ServeEngineTest, CommandsOfSeveralClientsRunAtTheSameTime) {
    // Each waits for the other's file; one after another, none would end.
    const std::string folder = "/dev/shm/" + UniqueName("meeting");
    std::filesystem::create_directory(folder);
    ToolServer server(name, On({"--exec", "read -r me other; touch " + folder + "/$me; until [ -e " + folder +
                                              "/$other ]; do sleep 0.01; done; echo met"}));
    ToolProcess one({"call", name, "one two\n", "--timeout", "60s"});
    ToolProcess two({"call", name, "two one\n", "--timeout", "60s"});
    EXPECT_EQ(one.Wait().out, "met\n");
    EXPECT_EQ(two.Wait().out, "met\n");
    std::filesystem::remove_all(folder);
}

TEST_P(ServeEngineTest, CountAnswersNothingAndTellsWhatCame) {
    ToolServer server(name, On({"--count", "--limit", "300"}));
    EXPECT_EQ(RunTool({"send", name, "four", "--repeat", "300"}).status, 0);
    const ToolResult result = server->Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("300 requests, 1200 bytes, 1 clients\n"));
}

TEST_P(ServeEngineTest, CountIsPrintedWhileItRuns) {
    ToolServer server(name, On({"--count"}));
    const ToolProcess one({"call", name, "four", "--timeout", "900s"});
    server->AwaitOut("1 requests, 4 bytes, 1 clients\n");
    const ToolProcess two({"call", name, "four", "--timeout", "900s"});
    server->AwaitOut("2 requests, 8 bytes, 2 clients\n");
}

TEST_P(ServeEngineTest, JsonTellsEveryEvent) {
    ToolProcess server(Joined({"serve", name, "--json", "--print", "--limit", "2"}, On()));
    server.AwaitOut("\"serving\"");
    EXPECT_EQ(RunTool({"call", name, "--hex", "ff00", "--as", "ada"}).out, "ff00\n");
    server.AwaitOut("\"closed\"");
    EXPECT_EQ(RunTool({"call", name, "text", "--as", "ada"}).out, "text");
    const std::vector<json> events = server.Wait().Json();
    ASSERT_GE(events.size(), 7U);
    EXPECT_EQ(events[0], (json{{"event", "serving"}, {"name", name}, {"pid", events[0]["pid"]}}));
    const std::string client = events[1]["client"];
    EXPECT_EQ(client.rfind("ada_", 0), 0U);
    EXPECT_EQ(events[1], (json{{"event", "connected"}, {"client", client}}));
    EXPECT_EQ(events[2]["event"], "request");
    EXPECT_EQ(events[2]["client"], client);
    EXPECT_EQ(events[2]["hex"], "ff00");
    EXPECT_TRUE(events[2]["id"].is_number_unsigned());
    EXPECT_FALSE(events[2].contains("text")) << "these bytes are no text";
    EXPECT_EQ(events[3], (json{{"event", "closed"}, {"client", client}}));
    EXPECT_EQ(events[5]["text"], "text");
    EXPECT_EQ(events.back(), (json{{"event", "ended"}, {"requests", 2}, {"answers", 2}, {"bytes", 6}, {"clients", 2}}));
}

TEST_P(ServeEngineTest, PrintShowsEachRequestOnALine) {
    ToolServer server(name, On({"--print", "--limit", "2"}));
    EXPECT_EQ(RunTool({"call", name, "one"}).status, 0);
    EXPECT_EQ(RunTool({"call", name, "two\n"}).status, 0);
    EXPECT_EQ(server->Wait().out, "one\ntwo\n");
}

TEST_P(ServeEngineTest, GroupOfTheFileIsTheOneAskedFor) {
    ToolServer server(name, On({"--group", std::to_string(getgid())}));
    struct stat state {};
    ASSERT_EQ(lstat((FifoDirectory() + name).c_str(), &state), 0);
    EXPECT_EQ(state.st_gid, getgid());
    EXPECT_EQ(state.st_mode & 07777U, 0660U);
}

class ServeLoopTest : public ToolTest {
protected:
    // Several servers in one process, up and running.
    static void AwaitServing(ToolProcess &process, const std::vector<std::string> &names) {
        for (const std::string &one : names) {
            process.AwaitErr("serving as '" + one + "'; Ctrl-C ends it\n");
        }
    }
    static std::size_t ThreadsOf(pid_t pid) {
        const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task");
        return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
    }

    const std::string first = UniqueName("first");
    const std::string second = UniqueName("second");
    const std::string third = UniqueName("third");
};

TEST_F(ServeLoopTest, SeveralNamesAreServedByOneThread) {
    ToolProcess server({"serve", first, second, third});
    AwaitServing(server, {first, second, third});
    for (const std::string &one : {first, second, third}) {
        EXPECT_EQ(RunTool({"call", one, "to " + one}).out, "to " + one);
    }
    const std::size_t emulators = EMULATED ? 1 : 0;
    EXPECT_EQ(ThreadsOf(server.Pid()), 2U + emulators) << "one that serves, and one that waits for signals";
    EXPECT_EQ(server.Interrupt().status, 0);
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_F(ServeLoopTest, NameInUseAmongSeveralIsLeftAndNoneIsServed) {
    ToolServer other(second);
    const ToolResult result = RunTool({"serve", first, second});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                HasSubstr("process " + std::to_string(other->Pid()) + " serves as '" + second + "' already"));
    EXPECT_EQ(RunTool({"call", second, "still there"}).out, "still there");
    EXPECT_EQ(RunTool({"call", first, "x"}).status, 3);
    EXPECT_FALSE(std::filesystem::exists(FifoDirectory() + first));
}

TEST_F(ServeLoopTest, CommandIsToldTheNameThatWasCalled) {
    ToolProcess server({"serve", first, second, "--exec", "echo \"$TARVO_SERVER\""});
    AwaitServing(server, {first, second});
    EXPECT_EQ(RunTool({"call", second, "x"}).out, second + "\n");
    EXPECT_EQ(RunTool({"call", first, "x"}).out, first + "\n");
    EXPECT_EQ(server.Interrupt().status, 0);
}

TEST_F(ServeLoopTest, JsonNamesTheServerOfEachEvent) {
    ToolProcess server({"serve", first, second, "--json", "--print", "--limit", "3"});
    server.AwaitOut("\"serving\"", 2);
    EXPECT_EQ(RunTool({"call", first, "one"}).out, "one");
    server.AwaitOut("\"closed\"");
    EXPECT_EQ(RunTool({"call", second, "two", "--repeat", "2", "--interval", "1ms"}).out, "two\ntwo\n");
    const ToolResult result = server.Wait();
    EXPECT_EQ(result.status, 0);
    std::map<std::string, std::map<std::string, json>> last; // by name and event
    for (const json &event : result.Json()) {
        ASSERT_TRUE(event.contains("name")) << event;
        last[event["name"]][event["event"]] = event;
    }
    ASSERT_EQ(last.size(), 2U);
    EXPECT_EQ(last[first]["request"]["text"], "one");
    EXPECT_EQ(last[second]["request"]["text"], "two");
    EXPECT_EQ(last[first]["closed"]["client"], last[first]["connected"]["client"]);
    EXPECT_EQ(last[first]["ended"]["requests"], 1);
    EXPECT_EQ(last[second]["ended"]["requests"], 2);
    EXPECT_EQ(last[second]["ended"]["clients"], 1);
}

TEST_F(ServeLoopTest, CountsAreToldForEachNameAndTheLimitIsOverAll) {
    ToolProcess server({"serve", first, second, "--count", "--limit", "5"});
    AwaitServing(server, {first, second});
    EXPECT_EQ(RunTool({"send", first, "four", "--repeat", "2"}).status, 0);
    EXPECT_EQ(RunTool({"send", second, "four", "--repeat", "3"}).status, 0);
    const ToolResult result = server.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr(first + ": 2 requests, 8 bytes, 1 clients\n"));
    EXPECT_THAT(result.out, HasSubstr(second + ": 3 requests, 12 bytes, 1 clients\n"));
    EXPECT_THAT(result.err, HasSubstr(" connected to '" + second + "'\n"));
}

TEST_F(ServeLoopTest, RequestsOfOneClientRunInOrderAlsoWhenItHasGone) {
    const std::string file = "/dev/shm/" + UniqueName("order");
    ToolServer server(name, {"--engine", "loop", "--exec", "exec >>" + file + "; echo begun; sleep 0.05; echo done"});
    EXPECT_EQ(RunTool({"send", name, "x", "--repeat", "3"}).status, 0);
    std::stringstream text;
    EXPECT_TRUE(Eventually([&] {
        text.str("");
        text << std::ifstream(file).rdbuf();
        return text.str() == "begun\ndone\nbegun\ndone\nbegun\ndone\n";
    })) << text.str();
    std::filesystem::remove(file);
}

TEST_F(ServeLoopTest, AnswersWaitForAClientThatIsSlowToRead) {
    constexpr uint32_t REQUESTS = 200;
    const std::string payload(4000, 'x');
    ToolProcess server({"serve", name, "--engine", "loop", "--json"});
    server.AwaitOut("\"serving\"");
    const std::string client = UniqueName("slow");
    WriteToRawServer(name, RawConnectPacket(client, getgid(), getpid()));
    JoinedRawPeer peer(client, name);
    // No answer is read before the last request was: far more than fits into the FIFO of the answers.
    std::string unsent;
    for (uint32_t id = 1; id <= REQUESTS; ++id) {
        unsent += RawRequest(id, payload, 60000);
    }
    while (!unsent.empty()) {
        pollfd room = {peer.WriteDescriptor(), POLLOUT, 0};
        ASSERT_EQ(poll(&room, 1, 30000), 1);
        unsent.erase(0, peer.SendSome(unsent));
    }
    for (uint32_t id = 1; id <= REQUESTS; ++id) {
        const RawFrame answer = peer.Receive();
        ASSERT_EQ(answer.id, id);
        ASSERT_EQ(answer.payload, payload);
    }
    peer.CloseWrite();
    peer.CloseRead();
    server.AwaitOut("closed");
    const ToolResult result = server.Interrupt();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.Json().back()["answers"], REQUESTS);
}

TEST_F(ServeLoopTest, WhatTheEngineCannotDoIsRefusedBeforeAnythingIsMade) {
    const auto complaint = [](const std::vector<std::string> &arguments) {
        const ToolResult result = RunTool(Joined({"serve"}, arguments));
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.out, IsEmpty());
        return result.err;
    };
    EXPECT_THAT(complaint({first, second, "--engine", "threads"}), HasSubstr("the engine 'threads' serves one name"));
    EXPECT_THAT(complaint({first, second, first}), HasSubstr("'" + first + "' is named twice"));
    EXPECT_THAT(complaint({first, second, "--priority", "urgent"}), HasSubstr("chrt"));
    EXPECT_THAT(complaint({first, "--engine", "loop", "--priority", "urgent"}), HasSubstr("chrt"));
    EXPECT_THAT(complaint({first, "--engine", "loops"}), HasSubstr("loops"));
    EXPECT_THAT(complaint({first, "--engine", "both"}), HasSubstr("both"));
    EXPECT_THAT(complaint({first, "a..b"}), HasSubstr("'a..b': the name is refused"));
    EXPECT_THAT(complaint({"a..b", "--engine", "loop"}), HasSubstr("the name is refused"));
    EXPECT_THAT(complaint({first, ""}), HasSubstr("the name is refused"));
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_F(ServeLoopTest, MissingDirectoryIsTold) {
    TARVO_SKIP_UNLESS_ROOT();
    ExpectRun(RunWithoutFifoDirectory([] {
        const ToolResult serve = RunTool({"serve", "one", "two"});
        EXPECT_EQ(serve.status, 1);
        EXPECT_THAT(serve.err, HasSubstr("'tarvoctl init' makes it"));
        const ToolResult ping = RunTool({"ping", "srv", "--outstanding", "2"});
        EXPECT_EQ(ping.status, 3);
        EXPECT_THAT(ping.err, HasSubstr("/dev/shm/velm/tarvo/ is missing; 'tarvoctl init' makes it"));
        const ToolResult bench = RunTool({"bench", "--engine", "loop"});
        EXPECT_EQ(bench.status, 1);
        EXPECT_THAT(bench.err, HasSubstr("the server of the benchmark does not start"));
        return 0;
    }));
}

} // namespace
} // namespace tarvo_test
