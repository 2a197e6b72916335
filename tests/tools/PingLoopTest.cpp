// tarvoctl ping with several calls outstanding.
#include <set>

#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;

class PingLoopTest : public ToolTest {
protected:
    // The numbers of the calls whose end is told, each once; with how many of them were lost.
    struct Ends {
        std::set<int> answered;
        std::set<int> lost;
        json summary;
    };
    static Ends EndsOf(const std::vector<json> &lines) {
        Ends ends;
        for (const json &line : lines) {
            if (line.contains("summary")) {
                ends.summary = line["summary"];
                continue;
            }
            const int sequence = line.at("seq");
            EXPECT_EQ(ends.answered.count(sequence) + ends.lost.count(sequence), 0U) << "told twice: " << line;
            (line.contains("error") ? ends.lost : ends.answered).insert(sequence);
        }
        return ends;
    }
    static std::set<int> UpTo(int last) {
        std::set<int> numbers;
        for (int i = 1; i <= last; ++i) {
            numbers.insert(i);
        }
        return numbers;
    }
};

TEST_F(PingLoopTest, EveryCallIsToldOnceAndTheEndIsASummary) {
    ToolServer server(name);
    const ToolResult result =
        RunTool({"ping", name, "-c", "500", "-i", "0", "-s", "100", "--outstanding", "32", "--json"});
    EXPECT_EQ(result.status, 0);
    const Ends ends = EndsOf(result.Json());
    EXPECT_EQ(ends.answered, UpTo(500));
    EXPECT_THAT(ends.lost, IsEmpty());
    EXPECT_EQ(ends.summary["server"], name);
    EXPECT_EQ(ends.summary["outstanding"], 32);
    EXPECT_EQ(ends.summary["calls"], 500);
    EXPECT_EQ(ends.summary["answers"], 500);
    EXPECT_EQ(ends.summary["lost"], 0);
    EXPECT_LE(ends.summary["p50_us"].get<double>(), ends.summary["max_us"].get<double>());
}

TEST_F(PingLoopTest, TextIsThatOfOneCallAtATime) {
    ToolServer server(name, {"--engine", "loop"});
    const ToolResult result = RunTool({"ping", name, "-c", "3", "-i", "1ms", "--outstanding", "2"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("64 bytes to " + name + ": seq=3 time="));
    EXPECT_THAT(result.out, HasSubstr("--- " + name + " ping statistics ---\n3 calls, 3 answers, 0 lost (0%), time "));
    EXPECT_THAT(result.out, HasSubstr("min/mean/p50/p99/max = "));
}

TEST_F(PingLoopTest, OneOutstandingIsWhatItIsWithoutTheOption) {
    ToolServer server(name);
    const ToolResult result = RunTool({"ping", name, "-c", "2", "-i", "1ms", "--outstanding", "1", "--json"});
    EXPECT_EQ(result.status, 0);
    const Ends ends = EndsOf(result.Json());
    EXPECT_EQ(ends.answered, UpTo(2));
    EXPECT_FALSE(ends.summary.contains("outstanding"));
}

TEST_F(PingLoopTest, ServerThatEndsWithCallsOutstandingLosesEachOfThemOnce) {
    // The server ends once it has got all of them, and none is answered: one after another, the second never came.
    ToolServer server(name, {"--count", "--limit", "8"});
    const ToolResult result = RunTool({"ping", name, "-c", "8", "-W", "60s", "--outstanding", "8", "--json"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(server->Wait().status, 0);
    const Ends ends = EndsOf(result.Json());
    EXPECT_EQ(ends.lost, UpTo(8));
    EXPECT_THAT(ends.answered, IsEmpty());
    EXPECT_EQ(ends.summary["lost"], 8);
}

TEST_F(PingLoopTest, KilledServerWithCallsOutstandingLosesEachOfThemOnce) {
    for (const char *engine : {"threads", "loop"}) {
        const std::string victim = UniqueName(engine);
        ToolProcess server({"serve", victim, "--count", "--engine", engine});
        server.AwaitErr("serving as");
        ToolProcess ping({"ping", victim, "-c", "16", "-W", "60s", "--outstanding", "16"});
        server.AwaitOut("16 requests, ");
        server.Signal(SIGKILL);
        const ToolResult result = ping.Wait();
        EXPECT_EQ(result.status, 4);
        for (int i = 1; i <= 16; ++i) {
            const std::string line =
                "seq=" + std::to_string(i) + " lost: '" + victim + "' has closed the pipe or is gone\n";
            const std::size_t at = result.out.find(line);
            EXPECT_NE(at, std::string::npos) << line;
            EXPECT_EQ(result.out.find(line, at + 1), std::string::npos) << line;
        }
        EXPECT_THAT(result.out, HasSubstr("16 calls, 0 answers, 16 lost (100%)"));
        server.Wait();
        RemoveOwnFifoFiles(); // a killed server leaves its files
    }
}

TEST_F(PingLoopTest, InterruptCutsOffWhatIsOutstanding) {
    ToolServer server(name, {"--count"});
    ToolProcess ping({"ping", name, "-W", "60s", "--outstanding", "4"});
    server->AwaitOut("4 requests, ");
    const ToolResult result = ping.Interrupt();
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.out, Not(HasSubstr("seq=")));
    EXPECT_THAT(result.out, HasSubstr("0 calls, 0 answers, 0 lost (0%)"));
}

TEST_F(PingLoopTest, InterruptPrintsTheSummary) {
    ToolServer server(name);
    ToolProcess ping({"ping", name, "-i", "1ms", "--outstanding", "4"});
    ping.AwaitOut("seq=9 ");
    const ToolResult result = ping.Interrupt();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr(" 0 lost (0%)"));
}

TEST_F(PingLoopTest, SilentServerIsAllLosses) {
    ToolServer server(name, {"--count"});
    const ToolResult result = RunTool({"ping", name, "-c", "6", "-W", "20ms", "-i", "1ms", "--outstanding", "3"});
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.out, HasSubstr("seq=6 lost: '" + name + "' did not answer in time\n"));
    EXPECT_THAT(result.out, HasSubstr("6 calls, 0 answers, 6 lost (100%)"));
    EXPECT_THAT(result.out, Not(HasSubstr("min/mean")));
}

TEST_F(PingLoopTest, ServerThatComesBackIsCalledAgain) {
    ToolServer first(name);
    // So few lines that they fit into its pipe, which nobody reads while the second server starts.
    ToolProcess ping({"ping", name, "-i", "50ms", "--outstanding", "4"});
    ping.AwaitOut("time=");
    first.Interrupt();
    ping.AwaitOut("lost: no server");
    ToolServer second(name);
    second->AwaitErr("connected");
    ping.AwaitOut("time=", 2);
    const ToolResult result = ping.Interrupt();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("lost: no server runs under the name '" + name + "'"));
}

TEST_F(PingLoopTest, CallsForWhichThereIsNoRoomWaitForIt) {
    // The other engine drops an answer for which the client's FIFO has no room.
    ToolServer server(name, {"--engine", "loop"});
    const ToolResult result =
        RunTool({"ping", name, "-c", "2000", "-i", "0", "-s", "4000", "--outstanding", "200", "-W", "60s", "--json"});
    EXPECT_EQ(result.status, 0);
    const Ends ends = EndsOf(result.Json());
    EXPECT_EQ(ends.answered, UpTo(2000));
}

TEST_F(PingLoopTest, FullPipeIsALossWhenTheTimeIsOver) {
    ToolServer server(name);
    ToolProcess ping({"ping", name, "-i", "1ms", "-s", "4000", "--outstanding", "64", "-W", "200ms"});
    ping.AwaitOut("time=");
    server->Freeze();
    ping.AwaitOut("lost: the pipe to '" + name + "' is full: it does not keep up\n");
    ping.AwaitOut("lost: '" + name + "' did not answer in time\n");
    server->Signal(SIGCONT);
    EXPECT_EQ(ping.Interrupt().status, 0);
}

TEST_F(PingLoopTest, NameOfTheClientIsTheOneAskedFor) {
    ToolServer server(name);
    EXPECT_EQ(RunTool({"ping", name, "-c", "1", "--outstanding", "2", "--as", "ada"}).status, 0);
    server->AwaitErr("ada_");
}

TEST_F(PingLoopTest, MissingServerIsToldApartFromWrongUsage) {
    const ToolResult missing = RunTool({"ping", UniqueName("nobody"), "-c", "1", "--outstanding", "2"});
    EXPECT_EQ(missing.status, 3);
    EXPECT_THAT(missing.out, IsEmpty());
    EXPECT_THAT(missing.err, HasSubstr("no server runs under the name"));
    const ToolResult refused = RunTool({"ping", "a..b", "--outstanding", "2"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("a name is refused"));
    for (const char *number : {"0", "-1", "65537", "many", "1.5", "99999999999999999999", ""}) {
        const ToolResult result = RunTool({"ping", name, "--outstanding", number});
        EXPECT_EQ(result.status, 2) << number;
        EXPECT_THAT(result.err, HasSubstr("a whole number from 1 to 65536")) << number;
    }
    const ToolResult urgent = RunTool({"ping", name, "--outstanding", "2", "--priority", "urgent"});
    EXPECT_EQ(urgent.status, 2);
    EXPECT_THAT(urgent.err, HasSubstr("chrt"));
}

} // namespace
} // namespace tarvo_test
