// tarvoctl bench on the loop, and on both engines.
#include "support/Sanitized.h"
#include "tools/BenchKit.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using BenchLoopTest = BenchTest;

TEST_F(BenchLoopTest, EachSizeHasItsFigures) {
    ToolProcess bench({"bench", "--engine", "loop", "--size", "1,4000", "--clients", "2", "--outstanding", "50",
                       "--duration", "300ms", "--json"});
    const pid_t pid = bench.Pid();
    const ToolResult result = bench.Wait();
    ASSERT_EQ(result.status, 0) << result.err;
    const json report = result.Json().at(0);
    EXPECT_EQ(report["engine"], "loop");
    EXPECT_EQ(report["server_engine"], "loop");
    EXPECT_EQ(report["outstanding"], 50);
    EXPECT_EQ(report["clients"], 2);
    ASSERT_EQ(report["results"].size(), 2U);
    EXPECT_EQ(report["results"][1]["size"], 4000);
    for (const json &round : report["results"]) {
        EXPECT_EQ(round["engine"], "loop");
        ExpectFigures(round);
    }
    EXPECT_THAT(result.err, HasSubstr("4000 bytes: measuring for 300 ms"));
    AwaitNoFiles(pid);
}

TEST_F(BenchLoopTest, SeveralOutstandingAreTheLoops) {
    const ToolResult result = RunTool({"bench", "--outstanding", "4", "--duration", "100ms"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("engine loop, server loop, 1 clients of 4 calls outstanding"));
    for (const char *part : {"CALLS/S", "P99.9", "64 bytes, from", "#"}) {
        EXPECT_THAT(result.out, HasSubstr(part));
    }
}

TEST_F(BenchLoopTest, BothEnginesCallTheSameServerInTurn) {
    // Long enough to look at it.
    ToolProcess bench({"bench", "--engine", "both", "--duration", SLOW ? "10s" : "2s", "--json"});
    bench.AwaitErr("64 bytes, threads: measuring");
    const pid_t server = ServerOf(bench.Pid());
    EXPECT_GT(server, 0);
    bench.AwaitErr("64 bytes, loop: measuring");
    EXPECT_EQ(ServerOf(bench.Pid()), server);
    EXPECT_EQ(bench.Wait().status, 0);
}

TEST_F(BenchLoopTest, RatioIsThatOfTheLoopToTheThreads) {
    const ToolResult result = RunTool({"bench", "--engine", "both", "--outstanding", "4", "--size", "64,1000",
                                       "--duration", "200ms", "--server-engine", "threads", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const json report = result.Json().at(0);
    EXPECT_EQ(report["engine"], "both");
    EXPECT_EQ(report["server_engine"], "threads");
    EXPECT_EQ(report["outstanding"], 4);
    ASSERT_EQ(report["results"].size(), 4U);
    ASSERT_EQ(report["ratios"].size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        const json threads = report["results"][2 * i];
        const json loop = report["results"][2 * i + 1];
        const json ratio = report["ratios"][i];
        EXPECT_EQ(threads["engine"], "threads");
        EXPECT_EQ(loop["engine"], "loop");
        ExpectFigures(threads);
        ExpectFigures(loop);
        EXPECT_EQ(ratio["size"], loop["size"]);
        EXPECT_EQ(threads["size"], loop["size"]);
        for (const char *figure : {"calls_per_second", "min_us", "mean_us", "p50_us", "p99_us", "max_us"}) {
            EXPECT_DOUBLE_EQ(ratio[figure].get<double>(), loop[figure].get<double>() / threads[figure].get<double>())
                << figure;
        }
    }
}

TEST_F(BenchLoopTest, TextShowsBothEnginesSideBySide) {
    const ToolResult result = RunTool({"bench", "--engine", "both", "--duration", SLOW ? "3s" : "100ms"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("engines threads and loop, server loop, 1 clients of 1 calls outstanding"));
    EXPECT_THAT(result.out, testing::ContainsRegex("64 BYTES +THREADS +LOOP +LOOP/THREADS\n"));
    EXPECT_THAT(result.out, testing::ContainsRegex("\ncalls/s +[0-9]+ +[0-9]+ +[0-9]+\\.[0-9][0-9]\n"));
    EXPECT_THAT(result.out, testing::ContainsRegex("\np99\\.9 us +[0-9.]+ +[0-9.]+ +[0-9]+\\.[0-9][0-9]\n"));
    EXPECT_THAT(result.out, testing::ContainsRegex("\nlost +0 +0 *\n"));
    EXPECT_THAT(result.out, HasSubstr("64 bytes, threads, from"));
    EXPECT_THAT(result.out, HasSubstr("64 bytes, loop, from"));
}

TEST_F(BenchLoopTest, PlainRunTellsNothingOfEngines) {
    const ToolResult result = RunTool({"bench", "--duration", "100ms", "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    const json report = result.Json().at(0);
    for (const char *key : {"engine", "server_engine", "outstanding", "ratios"}) {
        EXPECT_FALSE(report.contains(key)) << key;
    }
    EXPECT_FALSE(report["results"][0].contains("engine"));
}

TEST_F(BenchLoopTest, PacedCallsComeAtTheRate) {
    const ToolResult result = RunTool({"bench", "--engine", "loop", "--outstanding", "8", "--rate", "200", "--clients",
                                       "2", "--duration", "500ms", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const json round = result.Json().at(0)["results"][0];
    // 100 are due; one of each client may fall on either side of the end of the warm-up.
    EXPECT_LE(round["calls"].get<int>(), 104);
    EXPECT_GE(round["calls"].get<int>(), 90);
}

TEST_F(BenchLoopTest, LostCallsAreAFinding) {
    ToolProcess bench(
        {"bench", "--engine", "loop", "--duration", "4s", "--outstanding", "100", "--size", "4000", "--json"});
    bench.AwaitErr("measuring");
    const pid_t server = ServerOf(bench.Pid());
    ASSERT_GT(server, 0);
    ASSERT_EQ(kill(server, SIGSTOP), 0);
    // A call waits for one second; the second of them falls into the time that is measured.
    bench.AwaitErr("4000 bytes: 3 s");
    kill(server, SIGCONT);
    const ToolResult result = bench.Wait();
    EXPECT_EQ(result.status, 5);
    EXPECT_GE(result.Json().at(0)["results"][0]["failures"].get<int>(), 100);
}

TEST_F(BenchLoopTest, ServerThatDiesIsAFinding) {
    ToolProcess bench({"bench", "--engine", "loop", "--duration", "600s", "--outstanding", "10", "--json"});
    const pid_t pid = bench.Pid();
    bench.AwaitErr("64 bytes: 1 s"); // past what does not count
    const pid_t server = ServerOf(bench.Pid());
    ASSERT_GT(server, 0);
    ASSERT_EQ(kill(server, SIGKILL), 0);
    const ToolResult result = bench.Wait(); // long before its time
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.Json().at(0)["results"][0]["failures"], 10);
    for (const auto &file : FilesOf(pid)) {
        std::filesystem::remove(file); // a killed server leaves its own
    }
}

TEST_F(BenchLoopTest, InterruptEndsAllItsProcesses) {
    ToolProcess bench({"bench", "--engine", "both", "--duration", "600s", "--outstanding", "8"});
    const pid_t pid = bench.Pid();
    bench.AwaitErr("measuring");
    const ToolResult result = bench.Interrupt(); // and so have its children, who hold its standard error
    EXPECT_EQ(result.status, 130);
    EXPECT_THAT(result.out, IsEmpty());
    AwaitNoFiles(pid);
}

TEST_F(BenchLoopTest, KilledBenchmarkTakesItsProcessesAlong) {
    ToolProcess bench({"bench", "--engine", "loop", "--duration", "1s"});
    const pid_t pid = bench.Pid();
    bench.AwaitErr("measuring");
    bench.Signal(SIGKILL);
    EXPECT_EQ(bench.Wait().status, 128 + SIGKILL);
    AwaitNoFiles(pid);
}

TEST_F(BenchLoopTest, WhatMakesNoSenseIsRefused) {
    const auto complaint = [](const std::vector<std::string> &arguments) {
        const ToolResult result = RunTool(Joined({"bench"}, arguments));
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.out, IsEmpty());
        return result.err;
    };
    for (const char *number : {"0", "-1", "65537", "many", ""}) {
        EXPECT_THAT(complaint({"--outstanding", number}), HasSubstr("a whole number from 1 to 65536"));
    }
    EXPECT_THAT(complaint({"--engine", "fast"}), HasSubstr("fast"));
    EXPECT_THAT(complaint({"--server-engine", "both"}), HasSubstr("both"));
    EXPECT_THAT(complaint({"--engine", "threads", "--outstanding", "8"}), HasSubstr("--threads 8"));
    EXPECT_THAT(complaint({"--engine", "loop", "--threads", "2"}), HasSubstr("--outstanding"));
    EXPECT_THAT(complaint({"--engine", "both", "--threads", "2"}), HasSubstr("--outstanding"));
    EXPECT_THAT(complaint({"--outstanding", "2", "--threads", "2"}), HasSubstr("--outstanding"));
    EXPECT_THAT(complaint({"--engine", "both", "--outstanding", "1001"}), HasSubstr("at most 1000"));
    EXPECT_THAT(complaint({"--engine", "loop", "--priority", "urgent"}), HasSubstr("chrt"));
    EXPECT_THAT(complaint({"--server-engine", "loop", "--priority", "urgent"}), HasSubstr("chrt"));
}

} // namespace
} // namespace tarvo_test
