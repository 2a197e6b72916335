// tarvoctl stat.
#include <algorithm>
#include <fstream>

#include "support/Asleep.h"
#include "support/Eventually.h"
#include "tools/StatsKit.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using StatTest = ToolTest;
using testing::ContainsRegex;

json SlotOf(const json &report, const std::string &remote) {
    for (const json &process : report["processes"]) {
        for (const json &slot : process["slots"]) {
            if (slot.value("remote", "") == remote) {
                return slot;
            }
        }
    }
    return json();
}

TEST_F(StatTest, TableHasALineForEachPipeServerAndProcess) {
    const StatsScene scene;
    const ToolResult result = scene.Run({"stat"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, IsEmpty());
    EXPECT_THAT(result.out,
                ContainsRegex("4711 +hello +slow +open +100 +140 +7 +5 +10 +5 +3 +2 ms +2 ms +- +250 ms\n"));
    EXPECT_THAT(result.out, ContainsRegex("4711 +hello +quiet +open +0 +0 "));
    EXPECT_THAT(result.out, ContainsRegex("4712 +gone +hello +died "));
    EXPECT_THAT(result.out, HasSubstr("\n3 pipes: 100 out, 140 in, 7 refused, 5 dropped, 10 timed out\n"));
    EXPECT_THAT(result.out, ContainsRegex("4711 +hello +3 +2 +0 "));
    EXPECT_THAT(result.out, ContainsRegex("4711 +telemetry +alive .* 2 of 4 "));
    EXPECT_THAT(result.out, ContainsRegex("4712 +gone +died "));
    EXPECT_THAT(result.out, Not(HasSubstr("closed before"))) << "no pipe was";
}

TEST_F(StatTest, NameIsAPatternForProcessPipeAndRemote) {
    const StatsScene scene;
    for (const char *pattern : {"slow", "sl*", "[a-s]low"}) {
        EXPECT_THAT(scene.Run({"stat", pattern}).out, HasSubstr("\n1 pipes: 100 out")) << pattern;
    }
    EXPECT_THAT(scene.Run({"stat", "telemetry"}).out, HasSubstr("\n2 pipes: 100 out"));
    EXPECT_THAT(scene.Run({"stat", "4712"}).out, HasSubstr("\n1 pipes: 0 out"));
    const ToolResult nothing = scene.Run({"stat", "nobody"});
    EXPECT_EQ(nothing.status, 0);
    EXPECT_THAT(nothing.out, HasSubstr("\n0 pipes"));
}

TEST_F(StatTest, JsonHasEachNumberByItsName) {
    const StatsScene scene;
    const json report = scene.Run({"stat", "--json"}).Json().at(0);
    EXPECT_EQ(report["directory"], scene.directory.Path());
    EXPECT_EQ(report["processes"].size(), 2U);
    EXPECT_EQ(report["processes"][0]["alive"], true);
    EXPECT_EQ(report["processes"][1]["alive"], false);
    EXPECT_EQ(report["processes"][0]["owner"], geteuid());
    const json slot = SlotOf(report, "slow");
    EXPECT_EQ(slot["state"], "open");
    const json numbers = slot["numbers"];
    EXPECT_EQ(numbers["sent_messages"]["call"], 100);
    EXPECT_EQ(numbers["sends_refused"]["full"], 7);
    EXPECT_EQ(numbers["requests_dropped"]["queue"], 5);
    EXPECT_EQ(numbers["requests_queued"]["now"], 5);
    EXPECT_EQ(numbers["callbacks_running"]["now"], 1);
    EXPECT_EQ(numbers["calls_ended"]["timed_out"], 10);
    EXPECT_EQ(numbers["calls_outstanding"]["now"], 3);
    EXPECT_EQ(numbers["round_trip"]["count"], 90);
    EXPECT_EQ(numbers["round_trip"]["sum_ns"], 180000000);
    EXPECT_EQ(numbers["round_trip"]["p99_ns"], 2000000) << "the longest is less than the end of its bucket";
    EXPECT_EQ(numbers["round_trip"]["buckets"].size(), 1U);
}

TEST_F(StatTest, IntervalShowsWhatCameInIt) {
    const StatsScene scene;
    ToolProcess stat(scene.Arguments({"stat", "slow", "--interval", "1500ms", "--json"}));
    // Both come before the second reading, however the first one fell.
    TarvoStatsSlot slot = TroubledPipe();
    ASSERT_TRUE(Eventually([&stat] {
        const std::string fds = "/proc/" + std::to_string(stat.Pid()) + "/fd";
        for (const auto &entry : std::filesystem::directory_iterator(fds)) {
            std::error_code error;
            if (std::filesystem::read_symlink(entry, error).filename() == "4712.1") {
                return true; // the last file is open, and read before the tool sleeps
            }
        }
        return false;
    }));
    ASSERT_TRUE(Eventually([&stat] { return IsAsleep("/proc/" + std::to_string(stat.Pid())); }));
    slot.of.pipe.sent.messages[TARVO_STATS_CALL] += 900;
    scene.writer->Set(1, slot);
    const json report = stat.Wait().Json().at(0);
    const json told = SlotOf(report, "slow");
    EXPECT_EQ(told["numbers"]["sent_messages"]["call"], 1000);
    EXPECT_EQ(told["since"]["sent_messages"]["call"], 900);
    EXPECT_EQ(told["since"]["sends_refused"]["full"], 0);
    EXPECT_GE(report["processes"][0]["seconds"].get<double>(), 1.5);
}

TEST_F(StatTest, FullTextNamesEachNumber) {
    const StatsScene scene;
    const std::string text = scene.Run({"stat", "slow", "--full"}).out;
    EXPECT_THAT(text, HasSubstr("pipe hello to slow: threads, open of process 4711\n"));
    EXPECT_THAT(text, ContainsRegex("  sends_refused +full 7, broken 0, other 0\n"));
    EXPECT_THAT(text, ContainsRegex("  calls_outstanding +3 now, 3 at most\n"));
    EXPECT_THAT(text, ContainsRegex("  callback +40 times, mean 250 ms, p50 250 ms, "));
    EXPECT_THAT(text, Not(HasSubstr("quiet")));
}

TEST_F(StatTest, HostileFilesAreNamedOnceAndTheOthersShown) {
    const StatsScene scene;
    ASSERT_EQ(symlink("4711.1", scene.directory.File("link").c_str()), 0);
    ASSERT_EQ(mkfifo(scene.directory.File("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(scene.directory.File("folder").c_str(), 0700), 0);
    TarvoStatsHeader header = StatsHeader(0);
    header.version = 77;
    const StatsFile other(scene.directory, "other", header);
    const StatsFile empty(scene.directory, "empty");
    empty.Cut(0);
    const ToolResult result = scene.Run({"stat"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("\n3 pipes: 100 out"));
    const std::string path = "tarvoctl: " + scene.directory.Path();
    EXPECT_THAT(result.err, HasSubstr(path + "/link: a symbolic link\n"));
    EXPECT_THAT(result.err, HasSubstr(path + "/fifo: no statistics file, or a damaged one\n"));
    EXPECT_THAT(result.err, HasSubstr(path + "/folder: no statistics file, or a damaged one\n"));
    EXPECT_THAT(result.err, HasSubstr(path + "/other: of another version than this program\n"));
    EXPECT_THAT(result.err, HasSubstr(path + "/empty: no statistics file, or a damaged one\n"));
    EXPECT_EQ(scene.Run({"stat", "--json"}).Json().at(0)["problems"].size(), 5U);
}

TEST_F(StatTest, DirectoryFullOfGarbageIsToldInShort) {
    const StatsScene scene;
    for (int i = 0; i < 1500; ++i) {
        std::ofstream(scene.directory.File("garbage" + std::to_string(i))) << "text";
    }
    const ToolResult result = scene.Run({"stat"});
    EXPECT_THAT(result.out, HasSubstr("\n3 pipes: 100 out"));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 11);
    EXPECT_THAT(result.err, HasSubstr(": 1490 more files that cannot be read\n"));
}

TEST_F(StatTest, NothingInANameReachesTheTerminalButCharacters) {
    const StatsDirectory directory;
    const StatsFile file(directory, "1.1", StatsHeader(1, "\033[2Jevil\n"));
    file.Set(0, StatsSlot(TARVO_STATS_PIPE, "tür\xc2\x9b\xff", "a\"b\\c\r"));
    for (const std::vector<std::string> &form :
         {std::vector<std::string>{"stat"}, {"stat", "--full"}, {"stat", "--prometheus"}, {"top", "--count", "1"}}) {
        const std::string out = RunTool(Joined(form, {"--stats-directory", directory.Path()})).out;
        EXPECT_THAT(out, HasSubstr("tür\\")) << "letters of other languages are letters";
        EXPECT_THAT(out, HasSubstr("xff"));
        EXPECT_THAT(out, Not(HasSubstr("\033")));
        EXPECT_THAT(out, Not(HasSubstr("\r")));
        EXPECT_THAT(out, Not(HasSubstr("\x9b")));
    }
    const ToolResult raw = RunTool({"stat", "--json", "--stats-directory", directory.Path()});
    EXPECT_EQ(raw.Json().at(0)["processes"][0]["slots"][0]["remote"], "a\"b\\c\r");
}

TEST_F(StatTest, AbsentDirectoryIsToldWithTheRemedy) {
    const ToolResult result = RunTool({"stat", "--stats-directory", "/no/such/directory"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, HasSubstr("is missing, so nothing is counted; 'tarvoctl init' makes it"));
    EXPECT_EQ(RunTool({"top", "--stats-directory", "/no/such/directory"}).status, 1);
}

TEST_F(StatTest, WrongUsageIsRefused) {
    EXPECT_EQ(RunTool({"stat", "a", "b"}).status, 2);
    EXPECT_EQ(RunTool({"stat", "--prometheus", "--json"}).status, 2);
    EXPECT_EQ(RunTool({"stat", "--prometheus", "--interval", "1s"}).status, 2);
    EXPECT_EQ(RunTool({"stat", "--full", "--interval", "1s"}).status, 2);
    EXPECT_EQ(RunTool({"top", "--sort", "colour"}).status, 2);
    EXPECT_EQ(RunTool({"top", "--count", "0"}).status, 2);
}

TEST_F(StatTest, InterruptEndsTheIntervalAtOnce) {
    const StatsScene scene;
    ToolProcess stat(scene.Arguments({"stat", "--interval", "10min"}));
    EXPECT_EQ(stat.Interrupt().status, 130);
}

} // namespace
} // namespace tarvo_test
