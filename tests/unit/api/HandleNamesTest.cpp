// Who serves, who is at the other end, and what exceptions say.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "HandleFixture.h"
#include "support/Threads.h"
#include "system/Users.h"

namespace tarvo_test {
namespace {

// Nobody in /dev/shm is this process's own, so the directory itself is not changed: names with a slash have one.
class NamesTest : public HandleTest {
protected:
    std::string Connecting(const std::string &name) {
        return Said([&] { (void)tarvo::Pipe::Connect(name, tarvo::Options().As(self).Timeout(1s)); });
    }

    bool Serves(const std::string &name) {
        const std::vector<std::string> names = tarvo::Servers();
        return std::count(names.begin(), names.end(), name) == 1;
    }

    // A server's file as one that was killed leaves it.
    void LeaveFile(const std::string &name) { EXPECT_EQ(mkfifo((FifoDirectory() + name).c_str(), 0660), 0); }
};

TEST_F(NamesTest, FailedConnectSaysToWhomAndWhy) {
    EXPECT_EQ(Connecting(remote), "tarvo connect to " + remote +
                                      " (no server of this name has been started: there is no FIFO " + FifoDirectory() +
                                      remote + "): No such device or address");
    LeaveFile(remote);
    EXPECT_EQ(Connecting(remote),
              "tarvo connect to " + remote + " (its file is there, and nobody behind it): No such device or address");
    EXPECT_EQ(Connecting(self + "/x"), "tarvo connect to " + self + "/x (there is no directory for " + FifoDirectory() +
                                           self + "/x): No such device or address");
    EXPECT_EQ(Connecting("a;b"), "tarvo connect to a;b: Invalid argument");
    EXPECT_EQ(Said([&] { (void)tarvo::Pipe::Open(remote, tarvo::Options().As(self).Timeout(1ms)); }),
              "tarvo open to " + remote + ": Connection timed out");
    EXPECT_EQ(Said([&] { tarvo::Server::Start(tarvo::ServerOptions().As("a;b")); }),
              "tarvo server as a;b: Invalid argument");
}

TEST_F(NamesTest, FailedConnectSaysThatTheDirectoryMayNotBeEntered) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs a user who may not enter";
    }
    const std::string directory = FifoDirectory() + self;
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    EXPECT_TRUE(StrangerCan([&] {
        EXPECT_EQ(Connecting(self + "/x"), "tarvo connect to " + self + "/x (no right to enter the directory of " +
                                               directory + "/x): No such device or address");
        return !HasFailure();
    }));
    EXPECT_EQ(rmdir(directory.c_str()), 0);
}

TEST_F(NamesTest, FailedCallAndSendSayToWhom) {
    OpenBoth(tarvo::Options().OnRequest(Ignore));
    EXPECT_EQ(Said([&] { (void)far.Call("anyone", 1ms); }), "tarvo call to " + self + ": Connection timed out");
    EXPECT_EQ(Said([&] { far.Send(""); }), "tarvo send to " + self + ": Invalid argument");
    EXPECT_EQ(far.RemoteName(), self);
    const tarvo::PipeView view = far;
    far = {};
    EXPECT_EQ(Said([&] { view.Send("x"); }), "tarvo send: No such file or directory");
    EXPECT_EQ(view.RemoteName(), "");
}

TEST_F(NamesTest, ServersAreThoseWhoseFileSomebodyReads) {
    LeaveFile(self);
    EXPECT_FALSE(Serves(self));
    EXPECT_FALSE(Serves(remote));
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(ReplyEcho));
    EXPECT_TRUE(Serves(remote));
    const tarvo::Pipe pipe = tarvo::Pipe::Connect(remote, tarvo::Options().As(self));
    EXPECT_EQ(pipe.Call("once", PATIENCE).Text(), "once");
    for (const std::string &name : tarvo::Servers()) {
        EXPECT_EQ(name.find("__to__"), std::string::npos);
    }
    EXPECT_EQ(pipe.Call("a look disturbs no pipe", PATIENCE).Text(), "a look disturbs no pipe");
    EXPECT_THAT(log.Messages(), testing::IsEmpty());
    tarvo::Finish();
    EXPECT_FALSE(Serves(remote));
}

TEST_F(NamesTest, WaitForServerEndsWhenItServesOrInTime) {
    EXPECT_FALSE(tarvo::WaitForServer(remote, 0ms));
    EXPECT_FALSE(tarvo::WaitForServer(remote, -1ms));
    LeaveFile(remote);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(tarvo::WaitForServer(remote, 30ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
    EXPECT_THAT(log.Messages(), testing::IsEmpty());
    auto waiting = InBackground([&] { return tarvo::WaitForServer(remote, PATIENCE); });
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(ReplyEcho));
    EXPECT_TRUE(waiting.get());
    EXPECT_EQ(tarvo::Pipe::Connect(remote).Call("there", PATIENCE).Text(), "there");
}

} // namespace
} // namespace tarvo_test
