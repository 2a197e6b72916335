// What stat and doctor say of processes that run, hang and die.
#include <csignal>

#include "support/Eventually.h"
#include "tools/StatsKit.h"

namespace tarvo_test {
namespace {

using nlohmann::json;

// Each test has directories of its own, so that nobody else's processes count.
class StatsLiveTest : public ToolTest {
protected:
    void RunCounted(const std::function<int()> &body) {
        ExpectRun(RunWithoutFifoDirectory([&body] {
            const ToolResult init = RunTool({"init", "--mode", "1777", "--group", std::to_string(getgid())});
            EXPECT_EQ(init.status, 0) << init.err;
            return body();
        }));
    }
};

json Report(const std::string &pattern) { return RunTool({"stat", pattern, "--json"}).Json().at(0); }

// The numbers of the pipe whose own name and whose remote's begin so.
json NumbersOf(const json &report, const std::string &prefix, const std::string &remote = "") {
    for (const json &process : report["processes"]) {
        for (const json &slot : process["slots"]) {
            if (slot["kind"] == "pipe" && slot["name"].get<std::string>().rfind(prefix, 0) == 0 &&
                slot["remote"].get<std::string>().rfind(remote, 0) == 0) {
                return slot["numbers"];
            }
        }
    }
    return json();
}

std::string Findings() {
    std::string all;
    const json report = RunTool({"doctor", "--json"}).Json().at(0);
    for (const json &finding : report["findings"]) {
        if (finding["check"] == "statistics") {
            all += finding["finding"].get<std::string>() + "\n";
        }
    }
    return all;
}

TEST_F(StatsLiveTest, SumsOfBothEndsAgree) {
    RunCounted([this] {
        ToolServer server(name);
        EXPECT_EQ(RunTool({"ping", name, "--count", "50", "--interval", "0", "--size", "100"}).status, 0);
        EXPECT_EQ(RunTool({"send", name, "one", "--repeat", "30", "--as", "sender"}).status, 0);
        server.Interrupt();
        const json report = Report("*");
        const json client = NumbersOf(report, "tarvoctl_");
        const json served = NumbersOf(report, name, "tarvoctl_");
        EXPECT_EQ(client["sent_messages"]["call"], 50);
        EXPECT_EQ(client["sent_bytes"]["call"], 5000);
        EXPECT_EQ(client["calls_begun"], 50);
        EXPECT_EQ(client["calls_ended"]["answered"], 50);
        EXPECT_THAT(client["round_trip"]["count"].get<int>(), AllOf(Ge(5), Le(9))) << "one call in 8 is timed";
        EXPECT_EQ(client["received_messages"]["response"], 50);
        EXPECT_EQ(served["received_messages"]["call"], 50);
        EXPECT_EQ(served["received_bytes"]["call"], 5000);
        EXPECT_EQ(served["callbacks_begun"], 50);
        EXPECT_EQ(served["callbacks_finished"], 50);
        EXPECT_EQ(served["callback"]["count"], client["round_trip"]["count"]);
        EXPECT_EQ(served["sent_messages"]["response"], 50);
        EXPECT_EQ(served["requests_queued"]["now"], 0);
        EXPECT_EQ(NumbersOf(report, "sender")["sent_messages"]["one_way"], 30);
        EXPECT_EQ(NumbersOf(report, name, "sender")["received_messages"]["one_way"], 30);
        return 0;
    });
}

TEST_F(StatsLiveTest, SlowCallbackIsToldFromWantOfThreads) {
    RunCounted([this] {
        ToolServer server(name, {"--exec", "sleep 0.15; cat"});
        RunTool({"ping", name, "--count", "12", "--interval", "0", "--timeout", "5s"});
        const json served = NumbersOf(Report(name), name);
        EXPECT_EQ(served["callbacks_finished"], 12);
        EXPECT_EQ(served["callback"]["count"], 2) << "the first and the sixth";
        EXPECT_GE(served["callback"]["p50_ns"], 150000000);
        EXPECT_LT(served["wait"]["p50_ns"], 100000000) << "one after another, none waits";
        EXPECT_THAT(Findings(), HasSubstr("callbacks are slow"));
        return 0;
    });
}

TEST_F(StatsLiveTest, CallsThatTimeOutAreTold) {
    RunCounted([this] {
        ToolServer server(name, {"--exec", "sleep 0.2; cat"});
        RunTool({"ping", name, "--count", "3", "--interval", "0", "--timeout", "50ms"});
        const json client = NumbersOf(Report("tarvoctl_*"), "tarvoctl_");
        EXPECT_EQ(client["calls_ended"]["timed_out"], 3);
        EXPECT_THAT(Findings(), HasSubstr("3 calls timed out"));
        return 0;
    });
}

TEST_F(StatsLiveTest, FullFifoIsTold) {
    RunCounted([this] {
        ToolServer server(name);
        ToolProcess sender({"send", name, "hello", "--repeat", "100000000", "--timeout", "200ms"});
        // With some messages through, the pipe is open at both ends.
        EXPECT_TRUE(Eventually([this] {
            const json served = NumbersOf(Report(name), name);
            return served.is_object() && served["callbacks_begun"] > 10;
        }));
        server->Freeze();
        EXPECT_EQ(sender.Wait().status, 1);
        const json client = NumbersOf(Report("tarvoctl_*"), "tarvoctl_");
        EXPECT_GT(client["sends_refused"]["full"], 0);
        EXPECT_THAT(Findings(), HasSubstr("messages were refused since the FIFO was full"));
        server->Signal(SIGCONT);
        return 0;
    });
}

TEST_F(StatsLiveTest, DeadServerLeavesItsLastNumbersUntilTheyAreCleaned) {
    RunCounted([this] {
        ToolProcess server({"serve", name});
        server.AwaitErr("serving as");
        const std::string pid = std::to_string(server.Pid());
        ToolProcess client({"ping", name, "--interval", "1ms"});
        client.AwaitOut("seq", 20);
        server.Signal(SIGKILL);
        server.Wait();
        client.Interrupt();
        const json report = Report(pid);
        EXPECT_EQ(report["processes"][0]["alive"], false);
        EXPECT_EQ(report["processes"][0]["left_open"], 1);
        EXPECT_GE(NumbersOf(report, name)["callbacks_begun"], 20);
        EXPECT_THAT(Findings(), HasSubstr("process " + pid + " (tarvoctl) died with 1 pipes open"));
        EXPECT_EQ(RunTool({"clean", "--stats", "--yes", "--min-age", "0"}).status, 0);
        EXPECT_EQ(Report("*")["processes"].size(), 0U);
        return 0;
    });
}

TEST_F(StatsLiveTest, LivingProcessKeepsItsFile) {
    RunCounted([this] {
        ToolServer server(name);
        EXPECT_EQ(RunTool({"clean", "--stats", "--yes", "--min-age", "0"}).status, 0);
        EXPECT_EQ(Report("*")["processes"].size(), 1U);
        return 0;
    });
}

} // namespace
} // namespace tarvo_test
