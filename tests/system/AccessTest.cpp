// Who may talk to whom: the group of the FIFO files and of their directory decides.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/Mounts.h"
#include "support/Names.h"
#include "system/SystemTest.h"
#include "system/Users.h"

namespace tarvo_test {
namespace {

constexpr gid_t SHARED_GROUP = 61100;

class AccessTest : public SystemTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root, to become three other users";
        }
        SystemTest::SetUp();
        if (!EnterMountNamespace()) {
            GTEST_SKIP() << NO_MOUNTS;
        }
        const std::string options = "mode=2770,gid=" + std::to_string(SHARED_GROUP);
        ASSERT_EQ(mount("tarvo", FifoDirectory().c_str(), "tmpfs", 0, options.c_str()), 0);
        if (!StrangerCan([] { return access(SYSTEM_PEER_PROGRAM, X_OK) == 0; })) {
            GTEST_SKIP() << "other users cannot reach " << SYSTEM_PEER_PROGRAM;
        }
    }

    static std::string Group() { return " gid=" + std::to_string(SHARED_GROUP) + " "; }
};

TEST_F(AccessTest, TwoUsersWhoShareAGroupTalk) {
    PeerProcess server([] { return Become(FIRST_USER, SHARED_GROUP); });
    PeerProcess client([] { return Become(SECOND_USER, SHARED_GROUP); });
    Serve(server, Name("s"), "callback=echo" + Group());
    const Pair pair = Connect(server, Name("s"), client, Name("c"), "callback=echo" + Group());
    ExpectEcho(client, pair.second);
    ExpectEcho(server, pair.first);

    const Pair arranged =
        OpenPair(server, Name("a"), "callback=echo" + Group(), client, Name("b"), "callback=echo" + Group());
    ExpectEcho(client, arranged.second);
}

TEST_F(AccessTest, StrangerNeitherConnectsNorListsNorDisturbs) {
    PeerProcess server([] { return Become(FIRST_USER, SHARED_GROUP); });
    PeerProcess client([] { return Become(SECOND_USER, SHARED_GROUP); });
    PeerProcess stranger([] { return Become(STRANGER, NO_GROUP); });
    Serve(server, Name("s"), "callback=echo" + Group());
    const Pair pair = Connect(server, Name("s"), client, Name("c"), "callback=echo" + Group());

    EXPECT_EQ(stranger.AskInt("client timeout=100 self=" + Name("x") + " target=" + Name("s")), -ENXIO);
    EXPECT_LT(stranger.AskInt("serve self=" + Name("s")), 0);
    EXPECT_LT(stranger.AskInt("open mode=1 timeout=100 self=" + Name("s") + " target=" + Name("c")), 0);
    EXPECT_FALSE(StrangerCan([] { return opendir(FifoDirectory().c_str()) != nullptr; }));

    // Even in a directory that everybody may list, and for every file of the pair.
    ASSERT_EQ(chmod(FifoDirectory().c_str(), 02775), 0);
    ASSERT_EQ(Files().size(), 3U);
    for (const std::string &file : Files()) {
        const std::string path = FifoDirectory() + file;
        for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR}) {
            EXPECT_FALSE(StrangerCan([&] { return Opens(path, flags); })) << file;
        }
        EXPECT_FALSE(StrangerCan([&] { return unlink(path.c_str()) == 0; })) << file;
        EXPECT_FALSE(StrangerCan([&] { return chmod(path.c_str(), 0666) == 0; })) << file;
    }
    EXPECT_LT(stranger.AskInt("client timeout=100 self=" + Name("x") + " target=" + Name("s")), 0);

    ExpectEcho(client, pair.second, "on");
}

TEST_F(AccessTest, UrgentPipeOfAUserWithoutTheRightRunsInTimeSharing) {
    PeerProcess first([] { return Become(FIRST_USER, SHARED_GROUP); });
    PeerProcess second([] { return Become(SECOND_USER, SHARED_GROUP); });
    const Pair pair = OpenPair(first, Name("a"), "callback=policy priority=2" + Group(), second, Name("b"), Group());
    EXPECT_EQ(second.Ask("call text timeout=20000 data=x fd=" + std::to_string(pair.second)), "0 other:0");
}

} // namespace
} // namespace tarvo_test
