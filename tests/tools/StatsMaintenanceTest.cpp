// What doctor, clean and init have to do with statistics.
#include <sys/wait.h>

#include "tools/StatsKit.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using StatsDoctorTest = ToolTest;
using StatsCleanTest = ToolTest;
using StatsInitTest = ToolTest;

struct Found {
    std::string level;
    std::string text;
    std::string remedy;
};

std::vector<Found> Examine(const std::string &stats) {
    const ScratchDirectory fifos;
    const ToolResult result = RunTool({"doctor", "--json", "--directory", fifos.Path(), "--stats-directory", stats});
    std::vector<Found> found;
    const json report = result.Json().at(0);
    for (const json &finding : report["findings"]) {
        if (finding["check"] == "statistics") {
            found.push_back({finding["level"], finding["finding"],
                             finding["remedy"].is_null() ? "" : finding["remedy"].get<std::string>()});
        }
    }
    return found;
}

Found FindingOf(const std::vector<Found> &all, const std::string &part) {
    for (const Found &one : all) {
        if (one.text.find(part) != std::string::npos) {
            return one;
        }
    }
    return {};
}

TEST_F(StatsDoctorTest, EachTroubleIsNamedWithItsPipeAndItsRemedy) {
    const StatsScene scene;
    const std::vector<Found> all = Examine(scene.directory.Path());
    const char *const where = "on the pipe hello to slow";
    const Found refused = FindingOf(all, "process 4711 (telemetry): 7 messages were refused");
    EXPECT_EQ(refused.level, "warning");
    EXPECT_THAT(refused.text, HasSubstr(where));
    EXPECT_THAT(refused.remedy, HasSubstr("tarvoctl stat slow"));
    EXPECT_THAT(FindingOf(all, "5 requests were dropped since the queue").text, HasSubstr(where));
    EXPECT_THAT(FindingOf(all, "10 calls timed out").text, HasSubstr(where));
    EXPECT_THAT(FindingOf(all, "callbacks are slow, the 99th percentile is 250 ms").text, HasSubstr(where));
    const Found died = FindingOf(all, "process 4712 (gone) died with 1 pipes open");
    EXPECT_EQ(died.level, "warning");
    EXPECT_THAT(died.remedy, HasSubstr("tarvoctl stat 4712"));
    const Found left = FindingOf(all, "1 processes have left their last numbers");
    EXPECT_EQ(left.level, "note");
    EXPECT_THAT(left.remedy, HasSubstr("clean --stats"));
    EXPECT_EQ(all.size(), 6U);
    for (const Found &one : all) {
        EXPECT_THAT(one.remedy, Not(IsEmpty())) << one.text;
    }
}

TEST_F(StatsDoctorTest, WhatIsWellIsToldToo) {
    const StatsDirectory directory;
    const StatsFile file(directory, "1.1", StatsHeader(1));
    file.Set(0, StatsSlot(TARVO_STATS_PIPE, "a", "b"));
    const std::vector<Found> all = Examine(directory.Path());
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].level, "ok");
    const std::vector<Found> absent = Examine("/no/such/directory");
    ASSERT_EQ(absent.size(), 1U);
    EXPECT_EQ(absent[0].level, "note");
    EXPECT_THAT(absent[0].remedy, HasSubstr("tarvoctl init"));
}

TEST_F(StatsDoctorTest, FileThatIsNoneIsAWarning) {
    const StatsDirectory directory;
    const StatsFile file(directory, "1.1");
    file.Cut(3);
    EXPECT_EQ(
        FindingOf(Examine(directory.Path()), "1 files cannot be read, such as " + directory.Path() + "/1.1: no").level,
        "warning");
}

ToolResult Clean(const StatsScene &scene, const std::vector<std::string> &more) {
    const ScratchDirectory fifos;
    return scene.Run(Joined({"clean", "--directory", fifos.Path()}, more));
}

TEST_F(StatsCleanTest, DeadFilesAreRemovedOnRequestAndLivingOnesNever) {
    const StatsScene scene;
    const StatsFile garbage(scene.directory, ".half");
    garbage.Cut(0);
    EXPECT_THAT(Clean(scene, {"--yes", "--min-age", "0"}).out, IsEmpty()) << "not asked for";
    const ToolResult dry = Clean(scene, {"--stats", "--min-age", "0"});
    EXPECT_EQ(dry.out, "would remove " + scene.directory.File("4712.1") + ": its process has ended\n");
    EXPECT_THAT(dry.err, HasSubstr("--yes removes them"));
    EXPECT_TRUE(scene.directory.Has("4712.1"));
    const ToolResult done = Clean(scene, {"--stats", "--yes", "--min-age", "0", "--json"});
    EXPECT_EQ(done.status, 0);
    EXPECT_FALSE(scene.directory.Has("4712.1"));
    EXPECT_TRUE(scene.directory.Has("4711.1"));
    EXPECT_TRUE(scene.directory.Has(".half")) << "its maker holds it";
    EXPECT_EQ(done.Json().at(0)["files"].size(), 3U);
}

TEST_F(StatsCleanTest, WhatNobodyHoldsIsRemovedWhateverItHolds) {
    const StatsScene scene;
    StatsFile half(scene.directory, "4713.1");
    half.Cut(0);
    half.Die();
    EXPECT_THAT(Clean(scene, {"--stats", "--yes"}).out, HasSubstr("4713.1: too young to be sure"))
        << "between the making of a file and its lock nobody holds it";
    EXPECT_TRUE(scene.directory.Has("4713.1"));
    Clean(scene, {"--stats", "--yes", "--min-age", "0"});
    EXPECT_FALSE(scene.directory.Has("4713.1"));
}

TEST_F(StatsCleanTest, LinksFoldersAndFifosAreLeftAlone) {
    const StatsScene scene;
    ASSERT_EQ(symlink("4711.1", scene.directory.File("link").c_str()), 0);
    ASSERT_EQ(mkfifo(scene.directory.File("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(scene.directory.File("folder").c_str(), 0700), 0);
    Clean(scene, {"--stats", "--yes", "--min-age", "0"});
    for (const char *left : {"link", "fifo", "folder", "4711.1"}) {
        EXPECT_TRUE(scene.directory.Has(left)) << left;
    }
}

TEST_F(StatsCleanTest, MembersRemoveOnlyTheirOwn) {
    TARVO_SKIP_UNLESS_ROOT();
    const StatsScene scene;
    chmod(scene.directory.Path().c_str(), 01777);
    ExpectRun(RunAsOtherUser([&] {
        StatsFile own(scene.directory, "4713.1");
        own.Die();
        chmod(scene.dead->Path().c_str(), 0644);
        const ScratchDirectory fifos(01777);
        const ToolResult result =
            scene.Run({"clean", "--directory", fifos.Path(), "--stats", "--yes", "--min-age", "0"});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.out, HasSubstr("failed " + scene.directory.File("4712.1")));
        EXPECT_FALSE(scene.directory.Has("4713.1"));
        return 0;
    }));
    EXPECT_TRUE(scene.directory.Has("4712.1"));
}

TEST_F(StatsCleanTest, OwnFifoDirectoryNeedsTheOtherOneNamed) {
    const ScratchDirectory fifos;
    const ToolResult result = RunTool({"clean", "--directory", fifos.Path(), "--stats"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("--stats-directory"));
}

mode_t ModeOf(const std::string &path) {
    struct stat state {};
    return stat(path.c_str(), &state) == 0 ? state.st_mode & 07777U : 0;
}

TEST_F(StatsInitTest, BothDirectoriesAreMadeWhereTheLibraryLooks) {
    TARVO_SKIP_UNLESS_ROOT();
    ExpectRun(RunWithoutFifoDirectory([] {
        const std::string group = std::to_string(getgid());
        EXPECT_EQ(RunTool({"init", "--group", group, "--no-stats"}).status, 0);
        EXPECT_FALSE(std::filesystem::exists(TARVO_STATS_DIRECTORY));
        const ToolResult result = RunTool({"init", "--group", group});
        EXPECT_EQ(result.out, "unchanged /dev/shm/velm/tarvo: group " + group +
                                  ", mode 2770\ncreated /dev/shm/velm/tarvo-stats: group " + group + ", mode 3770\n");
        EXPECT_EQ(ModeOf(TARVO_STATS_DIRECTORY), 03770U);
        EXPECT_EQ(RunTool({"init", "--group", group, "--mode", "1777", "--json"}).Json().size(), 2U);
        EXPECT_EQ(ModeOf(TARVO_STATS_DIRECTORY), 01777U);
        return 0;
    }));
}

TEST_F(StatsInitTest, OneOfItsOwnIsMadeBesideOnlyWhenNamed) {
    const ScratchDirectory directory;
    const std::string group = std::to_string(getgid());
    RunTool({"init", "--directory", directory.Path() + "fifos", "--group", group});
    EXPECT_FALSE(directory.Has("stats"));
    RunTool({"init", "--directory", directory.Path() + "fifos", "--stats-directory", directory.Path() + "stats/",
             "--group", group});
    EXPECT_EQ(ModeOf(directory.Path() + "stats"), 03770U);
}

} // namespace
} // namespace tarvo_test
