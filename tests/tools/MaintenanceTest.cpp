// tarvoctl clean and init.
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <ctime>

#include "support/Eventually.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using CleanTest = ToolTest;
using InitTest = ToolTest;

ToolResult Clean(const ScratchDirectory &directory, const std::vector<std::string> &more) {
    return RunTool(Joined({"clean", "--directory", directory.Path()}, more));
}

json VerdictOf(const ToolResult &result, const std::string &path) {
    const json report = result.Json().at(0);
    for (const json &file : report["files"]) {
        if (file["path"] == path) {
            return file;
        }
    }
    return json();
}

TEST_F(CleanTest, NothingIsChangedWithoutYes) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    const std::string stale = directory.AddFifo("srv");
    const ToolResult result = Clean(directory, {"--min-age", "0"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "would remove " + stale + ": no process holds it\n");
    EXPECT_THAT(result.err, HasSubstr("--yes removes them"));
    EXPECT_TRUE(directory.Has("srv"));
}

TEST_F(CleanTest, YesRemovesOnlyWhatNobodyHolds) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    const std::string stale = directory.AddFifo("stale");
    const std::string held = directory.AddFifo("held");
    const std::string text = directory.AddFile("text");
    // The side that waits for its peer holds one of the two files only.
    const std::string waiting = directory.AddFifo("peer__to__held");
    directory.AddFifo("held__to__peer");
    directory.AddFifo("a__to__b");
    directory.AddFifo("b__to__a");
    const Opened server(held, O_RDONLY);
    const Opened reader(waiting, O_RDONLY);
    const ToolResult result = Clean(directory, {"--yes", "--min-age", "0", "--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_FALSE(result.Json().at(0)["dry_run"].get<bool>());
    for (const char *gone : {"stale", "a__to__b", "b__to__a"}) {
        EXPECT_FALSE(directory.Has(gone)) << gone;
        EXPECT_EQ(VerdictOf(result, directory.Path() + gone)["action"], "removed") << gone;
    }
    for (const char *kept : {"held", "peer__to__held", "held__to__peer"}) {
        EXPECT_TRUE(directory.Has(kept)) << kept;
        EXPECT_EQ(VerdictOf(result, directory.Path() + kept)["action"], "kept") << kept;
    }
    EXPECT_TRUE(directory.Has("text"));
    EXPECT_TRUE(VerdictOf(result, text).is_null()) << "no business of ours";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.Path()), {}), 4) << "nothing was left aside";
}

// As its maker leaves it that is killed between giving the FIFO its name and removing the temporary one.
TEST_F(CleanTest, BothNamesOfOneFileAreRemoved) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    const std::string file = directory.AddFifo("a__to__b");
    ASSERT_EQ(link(file.c_str(), (file + "1234").c_str()), 0);
    // Setting one name aside changes the time of the file, which is told apart in seconds.
    struct stat state {};
    ASSERT_EQ(stat(file.c_str(), &state), 0);
    ASSERT_TRUE(Eventually([&state] { return std::time(nullptr) > state.st_ctim.tv_sec; }));
    const ToolResult result = Clean(directory, {"--yes", "--min-age", "0", "--json"});
    EXPECT_EQ(VerdictOf(result, file)["action"], "removed");
    EXPECT_EQ(VerdictOf(result, file + "1234")["action"], "removed");
    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST_F(CleanTest, TextTellsWhatWasRemoved) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    const std::string stale = directory.AddFifo("srv");
    const ToolResult result = Clean(directory, {"--yes", "--min-age", "0"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "removed " + stale + ": no process holds it\n");
    EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(CleanTest, InterruptLeavesNothingAside) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    constexpr int FILES = 300;
    const ScratchDirectory directory;
    for (int i = 0; i < FILES; ++i) {
        directory.AddFifo("srv" + std::to_string(1000 + i));
    }
    ToolProcess clean({"clean", "--yes", "--min-age", "0", "--directory", directory.Path()});
    while (directory.Has("srv1000")) {
        sched_yield(); // until the first one is set aside
    }
    EXPECT_EQ(clean.Interrupt().status, 0) << "what has been begun is finished";
    EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

TEST_F(CleanTest, YoungFilesAreKept) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    directory.AddFifo("srv");
    const ToolResult result = Clean(directory, {"--yes"});
    EXPECT_THAT(result.out, HasSubstr("kept " + directory.Path() + "srv: too young to be sure"));
    EXPECT_TRUE(directory.Has("srv"));
}

TEST_F(CleanTest, OtherUserRemovesNothing) {
    TARVO_SKIP_UNLESS_ROOT();
    const ScratchDirectory directory(01777);
    chmod(directory.Parent().c_str(), 0755);
    ExpectRun(RunAsOtherUser([&] {
        directory.AddFifo("srv");
        const ToolResult result = Clean(directory, {"--yes", "--min-age", "0"});
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.out, HasSubstr("srv: this user may not see every process"));
        EXPECT_TRUE(directory.Has("srv"));
        return 0;
    }));
}

TEST_F(CleanTest, ContainerRemovesNothingUnlessItIsAlone) {
    TARVO_SKIP_UNLESS_ROOT();
    const ScratchDirectory directory;
    directory.AddFifo("srv");
    ChildProcess container([&](Channel &) {
        if (unshare(CLONE_NEWPID) != 0) {
            return SKIPPED;
        }
        EXPECT_THAT(Clean(directory, {"--yes", "--min-age", "0"}).out, HasSubstr("outside of this pid namespace"));
        return 0;
    });
    const int status = container.Wait();
    if (status == SKIPPED) {
        GTEST_SKIP() << "no right to make a pid namespace";
    }
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(directory.Has("srv"));
    ChildProcess alone([&](Channel &) {
        return unshare(CLONE_NEWPID) == 0 ? Clean(directory, {"--yes", "--min-age", "0", "--this-namespace"}).status
                                          : SKIPPED;
    });
    EXPECT_EQ(alone.Wait(), 0);
    EXPECT_FALSE(directory.Has("srv"));
}

TEST_F(CleanTest, MissingDirectoryIsToldApartFromWrongUsage) {
    EXPECT_EQ(RunTool({"clean", "--directory", "/no/such/directory"}).status, 1);
    EXPECT_EQ(RunTool({"clean", "everything"}).status, 2);
    EXPECT_EQ(RunTool({"clean", "--min-age", "old"}).status, 2);
}

mode_t ModeOf(const std::string &path) {
    struct stat state {};
    return stat(path.c_str(), &state) == 0 ? state.st_mode & 07777U : 0;
}

TEST_F(InitTest, DirectoryIsMadeWithGroupAndMode) {
    const ScratchDirectory directory;
    const std::string path = directory.Path() + "above/fifos";
    const std::string group = std::to_string(getgid());
    const ToolResult dry = RunTool({"init", "--directory", path, "--group", group, "--dry-run"});
    EXPECT_EQ(dry.out, "would be created " + path + ": group " + group + ", mode 2770\n");
    EXPECT_FALSE(directory.Has("above"));

    const ToolResult made = RunTool({"init", "--directory", path, "--group", group});
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(made.out, "created " + path + ": group " + group + ", mode 2770\n");
    EXPECT_EQ(ModeOf(path), 02770U);
    EXPECT_EQ(ModeOf(directory.Path() + "above"), 0755U);

    EXPECT_EQ(RunTool({"init", "--directory", path + "/", "--group", group}).out,
              "unchanged " + path + ": group " + group + ", mode 2770\n");

    const ToolResult changed = RunTool({"init", "--directory", path, "--group", group, "--mode", "1777", "--json"});
    EXPECT_EQ(ModeOf(path), 01777U);
    EXPECT_EQ(changed.Json().at(0)["mode_changed"], true);
    EXPECT_EQ(changed.Json().at(0)["created"], false);
}

TEST_F(InitTest, GroupIsGivenAndTheSetGroupBitSurvivesIt) {
    TARVO_SKIP_UNLESS_ROOT();
    const ScratchDirectory directory;
    const std::string path = directory.Path() + "fifos";
    ASSERT_EQ(RunTool({"init", "--directory", path, "--group", "4711"}).status, 0);
    struct stat state {};
    ASSERT_EQ(stat(path.c_str(), &state), 0);
    EXPECT_EQ(state.st_gid, 4711U);
    EXPECT_EQ(state.st_mode & 07777U, 02770U);
}

TEST_F(InitTest, LinksAndFilesAreNotTaken) {
    const ScratchDirectory directory;
    const std::string group = std::to_string(getgid());
    std::filesystem::create_directory(directory.Path() + "target");
    chmod((directory.Path() + "target").c_str(), 0700);
    std::filesystem::create_directory_symlink(directory.Path() + "target", directory.Path() + "link");
    EXPECT_EQ(RunTool({"init", "--directory", directory.Path() + "link", "--group", group}).status, 1);
    EXPECT_EQ(ModeOf(directory.Path() + "target"), 0700U);
    directory.AddFile("file");
    EXPECT_EQ(RunTool({"init", "--directory", directory.Path() + "file", "--group", group}).status, 1);
}

TEST_F(InitTest, WrongUsageChangesNothing) {
    const ScratchDirectory directory;
    const std::string path = directory.Path() + "fifos";
    const ToolResult group = RunTool({"init", "--directory", path, "--group", "no-such-group"});
    EXPECT_EQ(group.status, 2);
    EXPECT_THAT(group.err, HasSubstr("groupadd --system no-such-group"));
    EXPECT_EQ(RunTool({"init", "--directory", path, "--group", "0", "--mode", "rwx"}).status, 2);
    EXPECT_EQ(RunTool({"init", "--directory", path, "--group", "0", "--mode", "17777"}).status, 2);
    EXPECT_FALSE(directory.Has("fifos"));
}

} // namespace
} // namespace tarvo_test
