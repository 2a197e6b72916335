// tarvoctl bench.
#include "support/Sanitized.h"
#include "tools/BenchKit.h"

namespace tarvo_test {
namespace {

using nlohmann::json;

TEST_F(BenchTest, EachSizeHasItsFigures) {
    ToolProcess bench(
        {"bench", "--size", "1,4000", "--clients", "2", "--threads", "2", "--duration", "300ms", "--json"});
    const pid_t pid = bench.Pid();
    const ToolResult result = bench.Wait();
    ASSERT_EQ(result.status, 0) << result.err;
    const json report = result.Json().at(0);
    EXPECT_EQ(report["clients"], 2);
    EXPECT_EQ(report["threads"], 2);
    EXPECT_GE(report["machine"]["processors"].get<int>(), 1);
    EXPECT_THAT(report["machine"]["kernel"].get<std::string>(), HasSubstr("Linux"));
    ASSERT_EQ(report["results"].size(), 2U);
    EXPECT_EQ(report["results"][1]["size"], 4000);
    for (const json &round : report["results"]) {
        ExpectFigures(round);
    }
    EXPECT_THAT(result.err, HasSubstr("4000 bytes: measuring for 300 ms"));
    AwaitNoFiles(pid);
}

TEST_F(BenchTest, TextShowsMachineTableAndHistogram) {
    const ToolResult result = RunTool({"bench", "--duration", SLOW ? "3s" : "100ms"});
    EXPECT_EQ(result.status, 0) << result.err;
    for (const char *part : {"machine  Linux", "processors", "1 clients of 1 threads, normal priority, flat out",
                             "CALLS/S", "P99.9", "64 bytes, from", "#"}) {
        EXPECT_THAT(result.out, HasSubstr(part));
    }
    EXPECT_THAT(result.out, Not(HasSubstr("\033[")));
}

TEST_F(BenchTest, PacedCallsComeAtTheRate) {
    const ToolResult result = RunTool({"bench", "--rate", "200", "--clients", "2", "--duration", "500ms", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const json round = result.Json().at(0)["results"][0];
    // 100 are due; one of each client may fall on either side of the end of the warm-up.
    EXPECT_LE(round["calls"].get<int>(), 104);
    EXPECT_GE(round["calls"].get<int>(), 90);
}

TEST_F(BenchTest, LostCallsAreAFinding) {
    ToolProcess bench({"bench", "--duration", "4s", "--json"});
    bench.AwaitErr("measuring");
    const pid_t server = ServerOf(bench.Pid());
    ASSERT_GT(server, 0);
    ASSERT_EQ(kill(server, SIGSTOP), 0);
    // A call waits for one second; the second of them falls into the time that is measured.
    bench.AwaitErr("64 bytes: 3 s");
    kill(server, SIGCONT);
    const ToolResult result = bench.Wait();
    EXPECT_EQ(result.status, 5);
    EXPECT_GE(result.Json().at(0)["results"][0]["failures"].get<int>(), 1);
}

TEST_F(BenchTest, ColoursAreForTerminals) {
    EXPECT_THAT(RunToolOnTerminal({"bench", "--duration", "50ms"}), HasSubstr("\033[1mBYTES\033[0m"));
}

TEST_F(BenchTest, InterruptEndsAllItsProcesses) {
    ToolProcess bench({"bench", "--duration", "600s"});
    const pid_t pid = bench.Pid();
    bench.AwaitErr("measuring");
    const ToolResult result = bench.Interrupt(); // and so have its children, who hold its standard error
    EXPECT_EQ(result.status, 130);
    EXPECT_THAT(result.out, IsEmpty());
    AwaitNoFiles(pid);
}

TEST_F(BenchTest, KilledBenchmarkTakesItsProcessesAlong) {
    ToolProcess bench({"bench", "--duration", "1s"});
    const pid_t pid = bench.Pid();
    bench.AwaitErr("measuring");
    bench.Signal(SIGKILL);
    EXPECT_EQ(bench.Wait().status, 128 + SIGKILL);
    AwaitNoFiles(pid);
}

TEST_F(BenchTest, WrongUsageIsRefused) {
    EXPECT_EQ(RunTool({"bench", "--size", "0"}).status, 2);
    EXPECT_EQ(RunTool({"bench", "--size", "4001"}).status, 2);
    EXPECT_EQ(RunTool({"bench", "--size", "large"}).status, 2);
    EXPECT_EQ(RunTool({"bench", "--clients", "0"}).status, 2);
    EXPECT_EQ(RunTool({"bench", "--threads", "-1"}).status, 2);
    EXPECT_EQ(RunTool({"bench", "--rate", "0"}).status, 2);
    EXPECT_EQ(RunTool({"bench", "--priority", "high"}).status, 2);
}

} // namespace
} // namespace tarvo_test
