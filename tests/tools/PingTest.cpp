// tarvoctl ping.
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using PingTest = ToolTest;

TEST_F(PingTest, EveryCallHasALineAndTheEndASummary) {
    ToolServer server(name);
    const ToolResult result = RunTool({"ping", name, "-c", "3", "-i", "1ms", "-s", "100"});
    EXPECT_EQ(result.status, 0);
    for (const char *line : {"100 bytes to ", "seq=1 time=", "seq=2 time=", "seq=3 time=",
                             "3 calls, 3 answers, 0 lost (0%)", "min/mean/p50/p99/max = "}) {
        EXPECT_THAT(result.out, HasSubstr(line));
    }
    EXPECT_THAT(result.out, Not(HasSubstr("seq=4")));
}

TEST_F(PingTest, JsonFiguresAreInOrder) {
    ToolServer server(name);
    const std::vector<json> lines = RunTool({"ping", name, "--count", "20", "--interval", "0", "--json"}).Json();
    ASSERT_EQ(lines.size(), 21U);
    EXPECT_EQ(lines[0]["seq"], 1);
    EXPECT_EQ(lines[19]["seq"], 20);
    const json summary = lines[20]["summary"];
    EXPECT_EQ(summary["calls"], 20);
    EXPECT_EQ(summary["answers"], 20);
    EXPECT_EQ(summary["lost"], 0);
    double before = 0;
    for (const char *figure : {"min_us", "p50_us", "p99_us", "max_us"}) {
        EXPECT_GE(summary[figure].get<double>(), before) << figure;
        before = summary[figure].get<double>();
    }
    EXPECT_GE(summary["mean_us"].get<double>(), summary["min_us"].get<double>());
    EXPECT_LE(summary["mean_us"].get<double>(), summary["max_us"].get<double>());
}

TEST_F(PingTest, InterruptPrintsTheSummary) {
    ToolServer server(name);
    ToolProcess ping({"ping", name, "-i", "1ms"});
    ping.AwaitOut("seq=2 ");
    const ToolResult result = ping.Interrupt();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("0 lost (0%)"));
}

TEST_F(PingTest, SilentServerIsAllLosses) {
    ToolServer server(name, {"--count"});
    const ToolResult result = RunTool({"ping", name, "-c", "2", "-W", "20ms", "-i", "1ms"});
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.out, HasSubstr("seq=2 lost: "));
    EXPECT_THAT(result.out, HasSubstr("2 calls, 0 answers, 2 lost (100%)"));
    EXPECT_THAT(result.out, Not(HasSubstr("min/mean")));
}

TEST_F(PingTest, JsonTellsLosses) {
    ToolServer server(name, {"--count"});
    const ToolResult result = RunTool({"ping", name, "-c", "1", "-W", "20ms", "--json"});
    EXPECT_EQ(result.status, 4);
    const std::vector<json> lines = result.Json();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0]["error"].get<std::string>(), HasSubstr("did not answer in time"));
    EXPECT_EQ(lines[1]["summary"]["loss_percent"], 100);
    EXPECT_FALSE(lines[1]["summary"].contains("min_us"));
}

TEST_F(PingTest, ServerThatComesBackIsCalledAgain) {
    ToolServer first(name);
    ToolProcess ping({"ping", name, "-i", "1ms"});
    ping.AwaitOut("time=");
    first.Interrupt();
    ping.AwaitOut("lost: ");
    ToolServer second(name);
    second->AwaitErr("connected");
    ping.AwaitOut("time=", 2);
    EXPECT_EQ(ping.Interrupt().status, 0);
}

TEST_F(PingTest, MissingServerIsToldApartFromWrongUsage) {
    const ToolResult missing = RunTool({"ping", UniqueName("nobody"), "-c", "1"});
    EXPECT_EQ(missing.status, 3);
    EXPECT_THAT(missing.out, IsEmpty());
    EXPECT_THAT(missing.err, HasSubstr("no server runs under the name"));
    EXPECT_EQ(RunTool({"ping"}).status, 2);
    EXPECT_EQ(RunTool({"ping", "x", "-s", "0"}).status, 2);
    EXPECT_EQ(RunTool({"ping", "x", "-s", "4001"}).status, 2);
    EXPECT_EQ(RunTool({"ping", "x", "-c", "0"}).status, 2);
    EXPECT_EQ(RunTool({"ping", "x", "-i", "often"}).status, 2);
}

} // namespace
} // namespace tarvo_test
