// tarvoctl top.
#include <sys/resource.h>

#include "support/Sanitized.h"
#include "tools/StatsKit.h"

namespace tarvo_test {
namespace {

using TopTest = ToolTest;

std::size_t PlaceOf(const std::string &text, const std::string &part) {
    const std::size_t at = text.find(part);
    EXPECT_NE(at, std::string::npos) << part << " is not in\n" << text;
    return at;
}

// Three pipes whose remotes' names tell what they are.
struct TopScene {
    TopScene() {
        TarvoStatsSlot busy = StatsSlot(TARVO_STATS_PIPE, "hello", "the_busy");
        busy.of.pipe.sent.messages[TARVO_STATS_ONE_WAY] = 100000;
        TarvoStatsSlot idle = StatsSlot(TARVO_STATS_PIPE, "hello", "an_idle");
        idle.of.pipe.sent.messages[TARVO_STATS_ONE_WAY] = 1;
        TarvoStatsSlot refused = StatsSlot(TARVO_STATS_PIPE, "hello", "the_refused");
        refused.of.pipe.sent.messages[TARVO_STATS_ONE_WAY] = 10;
        refused.of.pipe.sent.refused[TARVO_STATS_SEND_FULL] = 5;
        file.Set(0, idle);
        file.Set(1, busy);
        file.Set(2, refused);
    }
    std::vector<std::string> Arguments(const std::vector<std::string> &words) const {
        return Joined(words, {"--stats-directory", directory.Path()});
    }
    StatsDirectory directory;
    StatsFile file{directory, "1.1", StatsHeader(8)};
};

TEST_F(TopTest, TroubleComesFirstThenTheBusiest) {
    const TopScene scene;
    const std::string out = RunTool(scene.Arguments({"top", "--count", "1"})).out;
    EXPECT_LT(PlaceOf(out, "the_refused"), PlaceOf(out, "the_busy"));
    EXPECT_LT(PlaceOf(out, "the_busy"), PlaceOf(out, "an_idle"));
    const std::string busy = RunTool(scene.Arguments({"top", "--count", "1", "--sort", "busy"})).out;
    EXPECT_LT(PlaceOf(busy, "the_busy"), PlaceOf(busy, "the_refused"));
    const std::string byName = RunTool(scene.Arguments({"top", "--count", "1", "--sort", "name"})).out;
    EXPECT_LT(PlaceOf(byName, "an_idle"), PlaceOf(byName, "the_busy"));
}

TEST_F(TopTest, PlainOutputIsOneTableAfterAnother) {
    const TopScene scene;
    const ToolResult result = RunTool(scene.Arguments({"top", "--count", "2", "--interval", "10ms"}));
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, Not(HasSubstr("\033")));
    EXPECT_LT(PlaceOf(result.out, " 3 pipes: 100011 out"), PlaceOf(result.out, " 3 pipes: 0 out, 0 in, 0 refused"))
        << "totals, then rates";
}

TEST_F(TopTest, JsonIsALineForEachReading) {
    const TopScene scene;
    const auto lines = RunTool(scene.Arguments({"top", "--count", "3", "--interval", "1ms", "--json"})).Json();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[2]["processes"][0]["slots"][1]["since"]["sent_messages"]["one_way"], 0);
}

TEST_F(TopTest, ProcessesThatComeAndGoAreFollowed) {
    const TopScene scene;
    ToolProcess top(scene.Arguments({"top", "--interval", "10ms"}));
    top.AwaitOut("3 pipes");
    {
        const StatsFile more(scene.directory, "2.1", StatsHeader(1, "more", 2));
        more.Set(0, StatsSlot(TARVO_STATS_PIPE, "more", "hello"));
        top.AwaitOut("4 pipes");
    }
    top.AwaitOut("died");
    unlink(scene.directory.File("2.1").c_str());
    top.AwaitOut("3 pipes", 2);
    EXPECT_EQ(top.Interrupt().status, 0);
}

TEST_F(TopTest, KeysSortFilterAndEnd) {
    const TopScene scene;
    const auto typed = [&scene](const std::string &keys) {
        return RunToolOnTerminal(scene.Arguments({"top", "--interval", "10min"}), keys, {24, 200});
    };
    EXPECT_THAT(typed("q"), HasSubstr("by trouble; ? helps, q ends"));
    EXPECT_THAT(typed("bq"), HasSubstr("by busy; "));
    EXPECT_THAT(typed("?q"), HasSubstr("order: w trouble"));
    const std::string filtered = typed("/idle\nq");
    EXPECT_THAT(filtered, HasSubstr("by trouble, only *idle*"));
    EXPECT_THAT(filtered, HasSubstr(" 1 pipes: "));
    EXPECT_THAT(typed("pq"), HasSubstr("paused"));
    EXPECT_THAT(typed("/x\033q"), Not(HasSubstr("only")));
}

TEST_F(TopTest, SmallWindowShowsTheFirstAndTellsHowManyMore) {
    const TopScene scene;
    const std::string out = RunToolOnTerminal(scene.Arguments({"top", "--count", "1"}), "", {6, 60});
    EXPECT_THAT(out, HasSubstr("the_refused"));
    EXPECT_THAT(out, Not(HasSubstr("an_idle")));
    EXPECT_THAT(out, HasSubstr("more lines"));
}

double ChildSeconds() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

TEST_F(TopTest, ThousandPipesOnceASecondTakeLessThanAFiftiethOfAProcessor) {
    if (SLOW) {
        GTEST_SKIP() << "the program is slower here than it is";
    }
    constexpr uint32_t PIPES = 1000;
    constexpr int READINGS = 40;
    const StatsDirectory directory;
    const StatsFile file(directory, "1.1", StatsHeader(PIPES));
    for (uint32_t index = 0; index < PIPES; ++index) {
        file.Set(index, TroubledPipe("client_" + std::to_string(index)));
    }
    const double before = ChildSeconds();
    const ToolResult result = RunTool(
        {"top", "--stats-directory", directory.Path(), "--interval", "1ms", "--count", std::to_string(READINGS)});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr(" 1000 pipes: "));
    EXPECT_LT((ChildSeconds() - before) / READINGS, 0.02) << "seconds for each reading";
}

} // namespace
} // namespace tarvo_test
