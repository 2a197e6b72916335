// The FIFO directory as the package has it made: what members of its group can do there, and others cannot.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/Mounts.h"
#include "support/Names.h"
#include "system/SystemTest.h"
#include "system/Users.h"
#include "tarvo_stats.h"

namespace tarvo_test {
namespace {

constexpr char TMPFILES[] = "systemd-tmpfiles";
constexpr char GROUP_FILE[] = "/etc/group";
constexpr char SHARED_MEMORY[] = "/dev/shm";
constexpr gid_t NEW_GROUP = 61100;

// In this process and its children: an empty /dev/shm, and a group tarvo whether or not the machine has one.
bool ArrangeMachine() {
    if (!EnterMountNamespace() || mount("tarvo", SHARED_MEMORY, "tmpfs", 0, "mode=1777") != 0) {
        return false;
    }
    if (getgrnam("tarvo") != nullptr) {
        return true;
    }
    const std::string copy = std::string(SHARED_MEMORY) + "/group";
    std::ofstream(copy) << std::ifstream(GROUP_FILE).rdbuf() << "tarvo:x:" << NEW_GROUP << ":\n";
    return chmod(copy.c_str(), 0644) == 0 && mount(copy.c_str(), GROUP_FILE, nullptr, MS_BIND, nullptr) == 0;
}

struct stat StatusOf(const std::string &path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

class PackagedDirectoryTest : public SystemTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root, to become three other users";
        }
        if (std::system((std::string(TMPFILES) + " --version >/dev/null 2>&1").c_str()) != 0) {
            GTEST_SKIP() << "needs " << TMPFILES << " (scripts/install-deps.sh packages)";
        }
        if (!ArrangeMachine()) {
            GTEST_SKIP() << "needs the right to a mount namespace";
        }
        const std::string create = std::string(TMPFILES) + " --create " + TARVO_TMPFILES_ENTRY;
        ASSERT_EQ(std::system(create.c_str()), 0);
        const group *entry = getgrnam("tarvo");
        ASSERT_NE(entry, nullptr);
        group_ = entry->gr_gid;
        SystemTest::SetUp();
        if (!StrangerCan([] { return access(SYSTEM_PEER_PROGRAM, X_OK) == 0; })) {
            GTEST_SKIP() << "other users cannot reach " << SYSTEM_PEER_PROGRAM;
        }
    }

    // Members get the group beside their own, as users and services have it.
    PeerProcess Member(uid_t user) const {
        return PeerProcess([user, group = group_] { return Become(user, group); });
    }
    gid_t Group() const { return group_; }

private:
    gid_t group_ = NO_GROUP;
};

// Nobody names the group: the directory gives it to the files.
TEST_F(PackagedDirectoryTest, TwoUsersOfTheGroupCallEachOtherWhoeverMadeTheFiles) {
    PeerProcess first = Member(FIRST_USER);
    PeerProcess second = Member(SECOND_USER);
    Serve(first, Name("s"), "callback=echo");
    const Pair served = Connect(first, Name("s"), second, Name("c"), "callback=echo");
    const Pair arranged = OpenPair(second, Name("a"), "callback=echo", first, Name("b"), "callback=echo");
    ExpectEcho(first, served.first);
    ExpectEcho(second, served.second);
    ExpectEcho(second, arranged.first);
    ExpectEcho(first, arranged.second);

    ASSERT_EQ(Files().size(), 5U);
    for (const std::string &file : Files()) {
        const struct stat status = StatusOf(FifoDirectory() + file);
        EXPECT_EQ(status.st_gid, Group()) << file;
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFIFO | 0660)) << file;
    }
}

TEST_F(PackagedDirectoryTest, AUserOutsideTheGroupNeitherConnectsNorServesNorLists) {
    PeerProcess server = Member(FIRST_USER);
    PeerProcess stranger([] { return Become(STRANGER, NO_GROUP); });
    Serve(server, Name("s"), "callback=echo");

    EXPECT_EQ(stranger.AskInt("client timeout=100 self=" + Name("x") + " target=" + Name("s")), -ENXIO);
    EXPECT_LT(stranger.AskInt("serve self=" + Name("y")), 0);
    EXPECT_LT(stranger.AskInt("open mode=1 timeout=100 self=" + Name("x") + " target=" + Name("z")), 0);
    EXPECT_FALSE(StrangerCan([] { return opendir(FifoDirectory().c_str()) != nullptr; }));
    EXPECT_FALSE(StrangerCan([] { return Opens(FifoPath("x", "y"), O_WRONLY | O_CREAT); }));
    EXPECT_FALSE(StrangerCan([] { return Opens(FifoDirectory() + Name("s"), O_WRONLY); }));
    EXPECT_FALSE(StrangerCan([] { return unlink((FifoDirectory() + Name("s")).c_str()) == 0; }));
    EXPECT_EQ(Files().size(), 1U);
}

// Whether `action` is true in a process of another member.
bool OtherMemberCan(gid_t group, const std::function<bool()> &action) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(Become(SECOND_USER, group) ? (action() ? 1 : 0) : 2);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 2);
    return WEXITSTATUS(status) == 1;
}

TEST_F(PackagedDirectoryTest, MembersReadEachOthersStatisticsAndRemoveOnlyTheirOwn) {
    EXPECT_EQ(StatusOf(TARVO_STATS_DIRECTORY).st_mode, static_cast<mode_t>(S_IFDIR | 03770));
    EXPECT_EQ(StatusOf(TARVO_STATS_DIRECTORY).st_gid, Group());
    PeerProcess server = Member(FIRST_USER);
    Serve(server, Name("s"), "callback=echo");
    std::vector<std::string> files;
    for (const auto &entry : std::filesystem::directory_iterator(TARVO_STATS_DIRECTORY)) {
        files.push_back(entry.path());
    }
    ASSERT_EQ(files.size(), 1U);
    const std::string &file = files.front();
    EXPECT_EQ(StatusOf(file).st_uid, FIRST_USER);
    EXPECT_EQ(StatusOf(file).st_gid, Group());
    EXPECT_EQ(StatusOf(file).st_mode, static_cast<mode_t>(S_IFREG | 0640));
    EXPECT_TRUE(OtherMemberCan(Group(), [&file] { return Opens(file, O_RDONLY); }));
    EXPECT_FALSE(OtherMemberCan(Group(), [&file] { return Opens(file, O_WRONLY); }));
    EXPECT_FALSE(OtherMemberCan(Group(), [&file] { return unlink(file.c_str()) == 0; }));
    EXPECT_FALSE(StrangerCan([] { return opendir(TARVO_STATS_DIRECTORY) != nullptr; }));
    EXPECT_FALSE(StrangerCan([&file] { return Opens(file, O_RDONLY); }));
}

// With the sticky bit, the file of the dead server would stay another user's, who could shut the new one's clients out.
TEST_F(PackagedDirectoryTest, AServerOfAnotherUserTakesOverTheNameOfOneThatDied) {
    PeerProcess died = Member(FIRST_USER);
    Serve(died, Name("s"), "callback=echo");
    died.KillAndWait();
    ASSERT_EQ(StatusOf(FifoDirectory() + Name("s")).st_uid, FIRST_USER);

    PeerProcess server = Member(SECOND_USER);
    PeerProcess client = Member(FIRST_USER);
    Serve(server, Name("s"), "callback=echo");
    EXPECT_EQ(StatusOf(FifoDirectory() + Name("s")).st_uid, SECOND_USER);
    const Pair pair = Connect(server, Name("s"), client, Name("c"), "callback=echo");
    ExpectEcho(client, pair.second);
    ExpectEcho(server, pair.first);
}

// A client may have to: the server that made them hangs, or is gone.
TEST_F(PackagedDirectoryTest, AClientRemovesTheFilesOfAnotherUsersServer) {
    PeerProcess server = Member(FIRST_USER);
    PeerProcess client = Member(SECOND_USER);
    const Pair pair = OpenPair(server, Name("a"), "callback=echo", client, Name("b"), "callback=echo");
    server.Freeze();
    ASSERT_EQ(Files().size(), 2U);
    EXPECT_EQ(client.AskInt("clean" + Fd(pair.second)), 0);
    EXPECT_TRUE(Files().empty());
    server.KillAndWait();
}

} // namespace
} // namespace tarvo_test
