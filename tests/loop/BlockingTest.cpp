// The blocking call while others want something of the loop's thread, too.
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "loop/LoopFixture.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

class BlockingTest : public LoopTest {
protected:
    void SetUp() override { OpenLink(TARVO_LINK_ARRANGED_SERVER); }

    static int Ask(TarvoLink *asked, int timeoutMs) {
        char room[16];
        uint32_t size = sizeof(room);
        return TarvoLinkCallSync(asked, {"x", 1}, timeoutMs, room, &size);
    }
};

// So many that there is always one to read when it looks.
TEST_F(BlockingTest, RemoteThatSendsWithoutEndDoesNotHoldItUpBeyondItsTime) {
    constexpr unsigned MANY = 2000;
    unsigned sent = 0;
    {
        const ScopedHook beforeEachLook(
            Call::Poll,
            [&](const CallInfo &) {
                if (sent < MANY) {
                    peer.Send(RawRequest(++sent, "more"));
                }
                poll(nullptr, 0, 1);
            },
            Where().Always().ThisThread());
        EXPECT_EQ(Ask(link.link, 50), -ETIMEDOUT);
    }
    EXPECT_GT(sent, 1U);
    EXPECT_LT(sent, MANY);
    EXPECT_TRUE(link.AwaitCount(sent)) << "nothing of it is lost";
    EXPECT_EQ(link.events.back(), "request more");
}

TEST_F(BlockingTest, OpenThatFailsInItsTimeEndsIt) {
    Probe opening(loop);
    ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("nobody"), self, 20), 0);
    EXPECT_EQ(Ask(opening.link, 30000), -ENOTCONN);
    EXPECT_EQ(opening.events, Strings());
    EXPECT_TRUE(loop.Readable());
    loop.RunWhileReadable();
    EXPECT_EQ(opening.events, Strings{"opened " + std::to_string(-ETIMEDOUT)});
}

// More news than one read of them takes, each time. Of two files by turns: the kernel tells the same only once.
TEST_F(BlockingTest, DirectoryThatIsNeverStillDoesNotHoldItUpBeyondItsTime) {
    constexpr unsigned MANY = 1000;
    constexpr int NEWS = 200;
    unsigned looks = 0;
    Probe opening(loop);
    ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_CLIENT, UniqueName("nobody"), self), 0);
    const std::string files[] = {FifoDirectory() + UniqueName("news"), FifoDirectory() + UniqueName("news")};
    const auto makeNews = [&] {
        for (int i = 0; i < NEWS && looks < MANY; ++i) {
            EXPECT_EQ(mkfifo(files[i % 2].c_str(), 0660), 0);
            EXPECT_EQ(unlink(files[i % 2].c_str()), 0);
        }
        ++looks;
    };
    makeNews();
    const ScopedHook beforeEachLook(
        Call::Read, [&](const CallInfo &) { makeNews(); }, Where().Always().ThisThread());
    EXPECT_EQ(Ask(opening.link, 50), -ETIMEDOUT);
    EXPECT_GT(looks, 1U);
    EXPECT_LT(looks, MANY);
}

TEST_F(BlockingTest, RemoteThatSpeaksBeforeItListensIsWaitedFor) {
    const std::string late = UniqueName("late");
    RawPeer speaker(late, self);
    Probe opening(loop);
    ASSERT_EQ(opening.Open(TARVO_LINK_ARRANGED_SERVER, late, self), 0);
    std::thread beside([&] {
        speaker.OpenWrite();
        speaker.Send(RawRequest(1, "early"));
        speaker.OpenRead();
        speaker.Send(RawResponse(speaker.Receive().id, "answer"));
    });
    EXPECT_EQ(Ask(opening.link, 30000), 0);
    beside.join();
    loop.RunWhileReadable();
    EXPECT_EQ(opening.events, (Strings{"opened 0", "request early"}));
}

// It may have written the answer before, and the kernel tells of its end at each look.
TEST_F(BlockingTest, RemoteThatStopsReadingIsWaitedForAsleep) {
    unsigned looks = 0;
    const ScopedHook beforeEachLook(
        Call::Poll,
        [&](const CallInfo &) {
            if (++looks == 1) {
                peer.CloseRead();
            }
        },
        Where().Always().ThisThread());
    EXPECT_EQ(Ask(link.link, 50), -ETIMEDOUT);
    EXPECT_GT(looks, 1U);
    EXPECT_LT(looks, 10U);
}

// ---- A FIFO that is full when it begins ----

// As many of the longest requests as a FIFO and the link's batch take, and not the one that would be refused.
constexpr int FILLING = 17;

class FullBlockingTest : public BlockingTest {
protected:
    void SetUp() override {
        BlockingTest::SetUp();
        for (int i = 0; i < FILLING; ++i) {
            ASSERT_EQ(link.Send(std::string(3900, 'x')), 0);
        }
    }
};

TEST_F(FullBlockingTest, WaitsForRoomAndForTheAnswer) {
    std::thread beside([&] {
        for (int i = 0; i < FILLING; ++i) {
            peer.Receive();
        }
        peer.Send(RawResponse(peer.Receive().id, "answer"));
    });
    EXPECT_EQ(Ask(link.link, 30000), 0);
    beside.join();
    EXPECT_EQ(link.events, Strings());
}

TEST_F(FullBlockingTest, RemoteThatStopsReadingEndsIt) {
    std::thread beside([&] { peer.CloseRead(); });
    EXPECT_EQ(Ask(link.link, 30000), -EPIPE);
    beside.join();
    ExpectAlive("still heard");
}

// ---- What may fail ----

TEST_F(BlockingTest, FailureOfTheSystemIsToldAndTheLinkGoesOn) {
    {
        const ScopedFault fault(Call::Poll, ENOMEM, Where().ThisThread());
        EXPECT_EQ(Ask(link.link, 30000), -ENOMEM);
    }
    EXPECT_EQ(peer.Receive().payload, "x");
    {
        const ScopedFault fault(Call::Poll, EINTR, Where().ThisThread());
        std::thread beside([&] { peer.Send(RawResponse(peer.Receive().id, "answer")); });
        EXPECT_EQ(Ask(link.link, 30000), 0);
        beside.join();
    }
    ExpectAlive();
}

} // namespace
} // namespace tarvo_test
