#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "support/Asleep.h"
#include "support/Eventually.h"
#include "support/RawPeer.h"
#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

class CloseTest : public SystemTest {
protected:
    // `maker_` creates the files of the pipe, `joiner_` waits for them. The maker's write end opens in the background,
    // or with the first message that it sends: a test that needs it open lets the maker send.
    void Start(const std::string &makerCallback, const std::string &joinerCallback) {
        pair_ =
            OpenPair(maker_, Name("m"), "callback=" + makerCallback, joiner_, Name("j"), "callback=" + joinerCallback);
    }

    bool FilesExist() const {
        return access(FifoPath(Name("m"), Name("j")).c_str(), F_OK) == 0 &&
               access(FifoPath(Name("j"), Name("m")).c_str(), F_OK) == 0;
    }

    PeerProcess maker_;
    PeerProcess joiner_;
    Pair pair_ = {};
};

TEST_F(CloseTest, MakerOfTheFilesRemovesThemAndTheRemoteIsTold) {
    Start("echo", "echo");
    ExpectEcho(joiner_, pair_.second);
    EXPECT_EQ(maker_.AskInt("close" + Fd(pair_.first)), 0);
    EXPECT_FALSE(FilesExist());
    EXPECT_EQ(maker_.AskInt("send data=x" + Fd(pair_.first)), -ENOENT);
    EXPECT_EQ(maker_.AskInt("close" + Fd(pair_.first)), 0) << "a second time";
    EXPECT_EQ(HandleIn(joiner_.Await("gone")), pair_.second);
}

TEST_F(CloseTest, JoinerLeavesTheFilesAndTheMakerRemovesThem) {
    Start("echo", "echo");
    ExpectEcho(joiner_, pair_.second);
    maker_.Freeze();
    EXPECT_EQ(joiner_.AskInt("close" + Fd(pair_.second)), 0);
    EXPECT_TRUE(FilesExist());
    maker_.Thaw();
    EXPECT_EQ(HandleIn(maker_.Await("gone")), pair_.first);
    AwaitFilesGone(Name("m"), Name("j"));
    EXPECT_EQ(maker_.AskInt("send data=x" + Fd(pair_.first)), -ENOENT);
}

TEST_F(CloseTest, NullRequestComesAfterAllRequestsThatWereRead) {
    Start("gate", "echo");
    EXPECT_EQ(joiner_.AskInt("send times=3 data=x" + Fd(pair_.second)), 0);
    ExpectEcho(maker_, pair_.first, "mark");
    EXPECT_EQ(joiner_.AskInt("close" + Fd(pair_.second)), 0);
    maker_.Ask("gate permits=3");
    for (int id = 0; id < 3; ++id) {
        EXPECT_EQ(maker_.NextEvent().substr(0, 7), "entered");
        EXPECT_EQ(maker_.NextEvent().substr(0, 4), "left");
        // The answer finds nobody any more.
        maker_.Await("unanswered");
    }
    EXPECT_EQ(HandleIn(maker_.NextEvent()), pair_.first);
    AwaitFilesGone(Name("m"), Name("j"));
}

TEST_F(CloseTest, ExitOfTheRemoteIsTold) {
    Start("echo", "echo");
    ExpectEcho(joiner_, pair_.second);
    EXPECT_EQ(joiner_.Quit(), 0);
    EXPECT_EQ(HandleIn(maker_.Await("gone")), pair_.first);
    AwaitFilesGone(Name("m"), Name("j"));
}

TEST_F(CloseTest, SigkillOfTheJoinerIsTold) {
    Start("echo", "echo");
    ExpectEcho(joiner_, pair_.second);
    joiner_.KillAndWait();
    EXPECT_EQ(HandleIn(maker_.Await("gone")), pair_.first);
    AwaitFilesGone(Name("m"), Name("j"));
}

TEST_F(CloseTest, SigkillOfTheMakerIsTold) {
    FilesMayStay();
    Start("echo", "echo");
    ExpectEcho(joiner_, pair_.second);
    maker_.KillAndWait();
    EXPECT_EQ(HandleIn(joiner_.Await("gone")), pair_.second);
    EXPECT_EQ(joiner_.AskInt("close" + Fd(pair_.second)), 0);
    EXPECT_EQ(joiner_.AskInt("send data=x" + Fd(pair_.second)), -ENOENT);
}

// Whether every thread of the process sleeps.
bool AllAsleep(pid_t pid) {
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task");
    return std::all_of(begin(tasks), end(tasks), [](const auto &task) { return IsAsleep(task.path()); });
}

class WaitingCallerTest : public CloseTest, public ::testing::WithParamInterface<std::string> {
protected:
    static constexpr int CALLERS = 8;

    // Callers of the joiner whom the maker will never answer, with the time-out in `words`.
    void StartCallers(const std::string &words) {
        Start("report", GetParam());
        for (int i = 0; i < CALLERS; ++i) {
            joiner_.Ask("start data=x tag=" + std::to_string(i) + words + Fd(pair_.second));
            maker_.Await("request");
        }
        // The maker writes once, so that its end is open and its loss can be seen.
        EXPECT_EQ(maker_.AskInt("respond id=999999 data=x" + Fd(pair_.first)), 0);
        EXPECT_TRUE(Eventually([this] { return AllAsleep(joiner_.Pid()); }));
    }

    void ExpectBrokenCalls() {
        int broken = 0;
        for (int i = 0; i < CALLERS; ++i) {
            const std::string result = joiner_.Await("called tag=" + std::to_string(i) + " ");
            broken += result == "result=" + std::to_string(-EPIPE) ? 1 : 0;
            // A caller who slept on its way to the wait and not in it finds the pipe closed: 0 without an answer.
            EXPECT_TRUE(result == "result=" + std::to_string(-EPIPE) || result == "result=0") << result;
        }
        EXPECT_GE(broken, CALLERS / 2);
    }
};

TEST_P(WaitingCallerTest, ReturnsEpipeWhenTheRemoteDies) {
    FilesMayStay();
    StartCallers("");
    maker_.KillAndWait();
    ExpectBrokenCalls();
}

TEST_P(WaitingCallerTest, ReturnsEpipeWhenTheRemoteCloses) {
    StartCallers(" timeout=20000");
    EXPECT_EQ(maker_.AskInt("close" + Fd(pair_.first)), 0);
    ExpectBrokenCalls();
}

TEST_P(WaitingCallerTest, ReturnsEpipeWhenItsOwnProcessCloses) {
    StartCallers("");
    EXPECT_EQ(joiner_.AskInt("close" + Fd(pair_.second)), 0);
    ExpectBrokenCalls();
}

INSTANTIATE_TEST_SUITE_P(Callback, WaitingCallerTest, ::testing::Values("echo", "none"));

TEST_F(CloseTest, SendToAReaderThatIsGoneIsEpipe) {
    RawPeer raw(Name("raw"), Name("m"));
    const int fd =
        maker_.AskInt("open mode=1 timeout=10000 callback=echo self=" + Name("m") + " target=" + Name("raw"));
    ASSERT_GT(fd, 0);
    raw.OpenBoth();
    EXPECT_EQ(maker_.AskInt("send data=x" + Fd(fd)), 0);
    raw.CloseRead();
    EXPECT_EQ(maker_.AskInt("send data=x" + Fd(fd)), -EPIPE);
    EXPECT_EQ(maker_.AskInt("respond data=x" + Fd(fd)), -EPIPE);
    EXPECT_EQ(maker_.AskInt("call timeout=10000 data=x" + Fd(fd)), -EPIPE);
}

TEST_F(CloseTest, CleanPipeRemovesTheFilesOfAnOpenPipe) {
    Start("echo", "echo");
    ExpectEcho(joiner_, pair_.second);
    EXPECT_EQ(maker_.AskInt("clean" + Fd(pair_.first)), 0);
    EXPECT_TRUE(FilesExist()) << "refused for the side that made them";
    EXPECT_EQ(joiner_.AskInt("clean" + Fd(pair_.second)), 0);
    EXPECT_TRUE(Files().empty());
    ExpectEcho(joiner_, pair_.second, "on");
    EXPECT_EQ(joiner_.AskInt("clean" + Fd(pair_.second)), 0) << "a second time";
}

TEST_F(CloseTest, ClosedPipeOpensAgainUnderAFreshHandle) {
    Start("echo", "echo");
    EXPECT_EQ(joiner_.AskInt("close" + Fd(pair_.second)), 0);
    maker_.Await("gone");
    AwaitFilesGone(Name("m"), Name("j"));
    const Pair before = pair_;
    Start("echo", "echo");
    EXPECT_GT(pair_.first, before.first);
    EXPECT_GT(pair_.second, before.second);
    ExpectEcho(joiner_, pair_.second);
}

TEST_F(CloseTest, NullRequestMayCloseThePipeAndConnectAgain) {
    Serve(maker_, Name("s"), "callback=echo");
    pair_ = Connect(maker_, Name("s"), joiner_, Name("c"), "callback=reopen");
    ExpectEcho(joiner_, pair_.second, "before");
    EXPECT_EQ(maker_.AskInt("close" + Fd(pair_.first)), 0);
    joiner_.Await("gone");
    const int fd = HandleIn(joiner_.Await("reopened"));
    EXPECT_GT(fd, pair_.second);
    ExpectEcho(joiner_, fd, "after");
    EXPECT_GT(HandleIn(maker_.Await("client")), pair_.first);
}

TEST_F(CloseTest, ClientsReconnectToAServerThatWasKilled) {
    const std::string create = "client timeout=10000 callback=report self=" + Name("c") + " target=" + Name("s");
    Serve(maker_, Name("s"), "callback=echo");
    int fd = Connect(maker_, Name("s"), joiner_, Name("c"), "callback=report").second;
    ExpectEcho(joiner_, fd, "before");
    const auto files = Files();
    maker_.KillAndWait();

    EXPECT_EQ(HandleIn(joiner_.Await("gone")), fd);
    EXPECT_EQ(joiner_.AskInt("close" + Fd(fd)), 0);
    EXPECT_EQ(joiner_.AskInt(create), -ENXIO) << "no server runs";
    PeerProcess again;
    Serve(again, Name("s"), "callback=echo");
    fd = joiner_.AskInt(create);
    ASSERT_GT(fd, 0);
    ExpectEcho(joiner_, fd, "after");
    EXPECT_EQ(Files().size(), files.size()) << "the new server took over the names";
}

} // namespace
} // namespace tarvo_test
