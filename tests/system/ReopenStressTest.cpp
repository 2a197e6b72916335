// A remote that closes again and again, and a pipe that is opened anew at once: nothing may be lost between the two.
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>

#include "support/Eventually.h"
#include "support/FifoEnds.h"
#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/Pipes.h"
#include "support/RawPeer.h"
#include "support/Rounds.h"
#include "support/SyslogCapture.h"
#include "support/Threads.h"
#include "tarvo.h"

namespace tarvo_test {
namespace {

// Whether this process has a descriptor of one of the pair's files.
bool IsOpen(const PipePair &pair) {
    const auto open = OpenDescriptors();
    return std::any_of(open.begin(), open.end(), [&](const auto &descriptor) {
        const std::string &file = descriptor.second;
        return file.find(pair.nearName + "__to__") != std::string::npos ||
               file.find(pair.farName + "__to__") != std::string::npos;
    });
}

class ReopenStressTest : public testing::Test {
protected:
    // Answers the first call of each round, and closes instead of answering the second.
    void BeTheRemote(TarvoMode mode, int rounds) {
        for (int round = 0; round < rounds; ++round) {
            if (mode == TARVO_MODE_CLIENT) {
                const uint32_t id = peer.Receive().id;
                peer.OpenWrite();
                peer.Send(RawResponse(id, "here"));
            } else {
                // Not while the pipe has the read end of the round before, whose hang-up would go unnoticed.
                AwaitTurn(opened, round + 1);
                peer.OpenBoth();
                peer.Send(RawResponse(peer.Receive().id, "here"));
            }
            peer.Receive();
            if (mode == TARVO_MODE_SERVER) {
                peer.CloseRead();
            }
            peer.CloseWrite();
        }
    }

    // A turn lasts microseconds: nobody sleeps.
    static void AwaitTurn(const std::atomic<int> &turns, int turn) {
        while (turns < turn) {
            sched_yield();
        }
    }

    // The caller that is told of the end opens again at once, under the same handle.
    void OpenAfterEachClose(TarvoMode mode) {
        const int rounds = StressRounds(mode == TARVO_MODE_CLIENT ? 2000 : 300);
        if (mode == TARVO_MODE_CLIENT) {
            // Reads on, so that an open never has to wait for it; with a writer of its own, so that it sees no hang-up.
            peer.CreateFiles();
            keeper = WriteEnd(peer.ReadFile());
        }
        auto remote = InBackground([this, mode, rounds] { BeTheRemote(mode, rounds); });
        for (int round = 0; round < rounds; ++round) {
            TarvoAttr attr = MakeAttr(self, target, mode);
            fd = TarvoOpen(&attr);
            ++opened;
            const std::string first = AskOnceThere();
            const std::string second = Ask(fd, "and now?");
            // A call whose pipe closes between its sending and its wait yields nothing.
            if (first != "here" || (second != BROKEN && !second.empty())) {
                ADD_FAILURE() << "round " << round << ", handle " << fd << ": " << first << ", then " << second;
                break;
            }
        }
        TarvoClosePipe(fd);
        opened = rounds;
        EXPECT_NO_THROW(remote.get());
        keeper.Reset();
    }

    // In server mode the remote may not read yet.
    std::string AskOnceThere() const {
        std::string answer;
        do {
            answer = Ask(fd, "there?");
        } while (answer == "error " + std::to_string(-ENXIO));
        return answer;
    }

    const std::string BROKEN = "error " + std::to_string(-EPIPE);
    const std::string self = UniqueName("caller");
    const std::string target = UniqueName("fickle");
    RawPeer peer{target, self};
    int fd = 0;
    std::atomic<int> opened{0};
    UniqueFd keeper;
};

TEST_F(ReopenStressTest, PipeInClientModeIsHeardAfterEachReopening) { OpenAfterEachClose(TARVO_MODE_CLIENT); }

TEST_F(ReopenStressTest, PipeInServerModeIsHeardAfterEachReopening) { OpenAfterEachClose(TARVO_MODE_SERVER); }

// But for those that tell of a slow moment, which a machine with other things to do may have.
std::string FirstLineOf(const SyslogCapture &log) {
    for (const LogLine &line : log.Lines()) {
        if (line.message.find(" takes more than 50ms") == std::string::npos) {
            return line.message;
        }
    }
    return "";
}

// One end sends two requests and closes; the other is told, or closes silently. Either end may go first.
TEST(OrdinaryCloseStressTest, WritesNoLineAtEitherEnd) {
    SyslogCapture log;
    const int rounds = StressRounds(400);
    for (int round = 0; round < rounds; ++round) {
        const Callback callback = round % 4 < 2 ? Callback([](int, TarvoRequest *) {}) : Callback();
        const PipePair pair(callback, callback);
        ASSERT_GT(pair.far, 0);
        const int leaving = round % 2 == 0 ? pair.near : pair.far;
        TarvoRequest request{0, const_cast<char *>("two of them"), 11};
        ASSERT_EQ(TarvoSendRequest(leaving, &request), 0);
        ASSERT_EQ(TarvoSendRequest(leaving, &request), 0);
        ASSERT_EQ(TarvoClosePipe(leaving), 0);
        // Half of the time the other end closes at the same moment, and otherwise when it has noticed.
        if (round % 8 < 4) {
            ASSERT_EQ(TarvoClosePipe(leaving == pair.near ? pair.far : pair.near), 0);
        }
        ASSERT_TRUE(Eventually([&] { return !IsOpen(pair); }));
        ASSERT_EQ(FirstLineOf(log), "") << "round " << round;
    }
}

// Each client is gone before the next one comes. The server's part of opening a pipe sleeps on a worker's thread, which
// must be free again as soon as the pipe has its write end or is closed.
TEST(BriefClientsStressTest, ServerNeedsAHandfulOfThreads) {
    const std::string server = UniqueName("server");
    ASSERT_EQ(CreateServer(server, Echo), 0);
    const int rounds = StressRounds(300);
    std::size_t most = 0;
    for (int round = 0; round < rounds; ++round) {
        const std::string self = UniqueName("brief");
        const int fd = CreateClient(self, server);
        ASSERT_GT(fd, 0) << "round " << round;
        ASSERT_EQ(Ask(fd, "x"), "x");
        most = std::max(most, ThreadCount());
        ASSERT_EQ(TarvoClosePipe(fd), 0);
    }
    EXPECT_LT(most, 20U);
    TarvoCfgFinishServer();
}

} // namespace
} // namespace tarvo_test
