// What goes out: bytes, sizes, batches, and a FIFO that is full.
#include <cerrno>
#include <climits>

#include "loop/LoopFixture.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

class SendingTest : public BothModes {
protected:
    // Sends until it is refused; how many went.
    int FillUp(std::size_t size = 4000) {
        int sent = 0;
        int result = 0;
        while ((result = link.Send(std::to_string(sent) + "." + std::string(size - 8, 'x'))) == 0) {
            ++sent;
        }
        EXPECT_EQ(result, -EAGAIN);
        return sent;
    }

    void ExpectNumbered(int count) {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(std::atoi(peer.Receive().payload.c_str()), i);
        }
    }
};
TARVO_BOTH_MODES(SendingTest);

TEST_P(SendingTest, OneWayRequestIsTheFrameOfTheOtherEngine) {
    ASSERT_EQ(link.Send(std::string(4000, 's')), 0);
    const RawFrame frame = peer.Receive();
    EXPECT_EQ(frame.type, 0U);
    EXPECT_EQ(frame.timeout, -1);
    EXPECT_EQ(frame.payload, std::string(4000, 's'));
    EXPECT_GT(frame.writeStartTime, 0);
}

TEST_P(SendingTest, CallCarriesItsTimeOut) {
    ASSERT_GT(link.Call("question", "call", 12345), 0);
    EXPECT_EQ(peer.Receive().timeout, 12345);
    ASSERT_GT(link.Call("question", "call", -1), 0);
    EXPECT_EQ(peer.Receive().timeout, -1);
}

TEST_P(SendingTest, SizesAgainstTheRulesAreRefused) {
    for (const std::string &text : {std::string(), std::string(4001, 'x')}) {
        EXPECT_EQ(link.Send(text), -EINVAL);
        EXPECT_EQ(link.Call(text, "call"), -EINVAL);
        char room[8];
        uint32_t size = sizeof(room);
        EXPECT_EQ(TarvoLinkCallSync(link.link, View(text), 10, room, &size), -EINVAL);
    }
    EXPECT_FALSE(peer.HasInput());
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings());
}

TEST_P(SendingTest, WhatIsSentOutsideOfARoundIsInTheFifoAtOnce) {
    const CallCounter writes(Call::Write, Where().ThisThread());
    ASSERT_EQ(link.Send("one"), 0);
    EXPECT_EQ(peer.Receive().payload, "one");
    ASSERT_EQ(link.Send("two"), 0);
    EXPECT_EQ(peer.Receive().payload, "two");
    EXPECT_EQ(writes.Count(), 2U);
}

TEST_P(SendingTest, WhatARoundSendsGoesOutInOneWrite) {
    link.onRequest = [&](uint32_t request, const std::string &) {
        EXPECT_EQ(link.Send("a"), 0);
        EXPECT_EQ(link.Reply(request, "b"), 0);
        EXPECT_GT(link.Call("c", "call"), 0);
    };
    peer.Send(RawRequest(1, "x") + RawRequest(2, "y"));
    const CallCounter writes(Call::Write, Where().ThisThread().If([](const CallInfo &info) { return info.size > 8; }));
    loop.RunWhileReadable();
    EXPECT_EQ(writes.Count(), 1U);
    for (const char *const text : {"a", "b", "c", "a", "b", "c"}) {
        EXPECT_EQ(peer.Receive().payload, text);
    }
}

TEST_P(SendingTest, NoWriteIsLongerThanAtomicOnesAreAndNoneBeginsInAFrame) {
    link.onRequest = [&](uint32_t, const std::string &) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(link.Send(std::to_string(i) + "." + std::string(700, 'x')), 0);
        }
    };
    std::vector<std::size_t> sizes;
    {
        const ScopedHook writes(Call::Write, [&](const CallInfo &info) {
            if (info.size > 8) {
                sizes.push_back(info.size);
            }
        });
        peer.Send(RawRequest(1, "x"));
        sizes.clear();
        EXPECT_TRUE(link.AwaitCount(1));
    }
    EXPECT_GE(sizes.size(), 4U);
    EXPECT_LE(sizes.size(), 5U);
    for (const std::size_t size : sizes) {
        EXPECT_LE(size, static_cast<std::size_t>(PIPE_BUF));
    }
    ExpectNumbered(20);
}

TEST_P(SendingTest, HeldFramesGoOutTogetherWithTheFlush) {
    const CallCounter writes(Call::Write, Where().ThisThread());
    ASSERT_EQ(TarvoLinkHold(link.link), 0);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(link.Send(std::to_string(i)), 0);
    }
    EXPECT_FALSE(peer.HasInput());
    EXPECT_EQ(TarvoLinkFlush(link.link), 0);
    EXPECT_EQ(writes.Count(), 1U);
    ExpectNumbered(10);
    ASSERT_EQ(link.Send("after"), 0);
    EXPECT_EQ(peer.Receive().payload, "after") << "the hold is over";
    EXPECT_EQ(TarvoLinkFlush(link.link), 0) << "of nothing";
}

TEST_P(SendingTest, FullBatchOfAHoldGoesOutByItself) {
    ASSERT_EQ(TarvoLinkHold(link.link), 0);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(link.Send(std::to_string(i) + "." + std::string(1000, 'x')), 0);
    }
    EXPECT_TRUE(peer.HasInput());
    EXPECT_EQ(TarvoLinkFlush(link.link), 0);
    ExpectNumbered(10);
}

TEST_P(SendingTest, HoldEndsWithNoRoundInBetween) {
    ASSERT_EQ(TarvoLinkHold(link.link), 0);
    ASSERT_EQ(link.Send("held"), 0);
    ExpectAlive();
    EXPECT_EQ(TarvoLinkFlush(link.link), 0);
    EXPECT_EQ(peer.Receive().payload, "held");
}

TEST_P(SendingTest, CloseWritesWhatWasHeld) {
    ASSERT_EQ(TarvoLinkHold(link.link), 0);
    ASSERT_EQ(link.Send("last words"), 0);
    EXPECT_EQ(link.Close(), 0);
    EXPECT_EQ(peer.Receive().payload, "last words");
    peer.AwaitHangup();
}

// ---- Full ----

TEST_P(SendingTest, FullFifoRefusesAndSaysOnceWhenThereIsRoom) {
    const int sent = FillUp();
    EXPECT_GE(sent, 16);
    EXPECT_EQ(link.Send("refused again"), -EAGAIN);
    EXPECT_EQ(link.Call("refused too", "call"), -EAGAIN);
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings()) << "there is no room yet";
    ExpectNumbered(sent - 1);
    EXPECT_TRUE(link.Await("writable"));
    // What the batch holds goes out by itself.
    EXPECT_EQ(std::atoi(peer.Receive().payload.c_str()), sent - 1);
    loop.RunWhileReadable();
    EXPECT_EQ(link.Take(), Strings{"writable"});
    ASSERT_EQ(link.Send("fits"), 0);
    EXPECT_EQ(peer.Receive().payload, "fits");
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings());
    EXPECT_FALSE(peer.HasInput());
}

TEST_P(SendingTest, LinkThatWasNotRefusedIsNotToldThatItMayWrite) {
    ASSERT_EQ(link.Send("x"), 0);
    peer.Receive();
    loop.RunWhileReadable();
    EXPECT_EQ(link.events, Strings());
}

TEST_P(SendingTest, LinkWithoutAWritableMaySendAgainOnceThereIsRoom) {
    const std::string other = UniqueName("other");
    RawPeer reader(other, self);
    TarvoLinkOptions options = Probe::Options(other, self);
    options.kind = TARVO_LINK_ARRANGED_SERVER;
    TarvoLink *mute = nullptr;
    ASSERT_EQ(TarvoLinkOpen(loop.Get(), &options, &mute), 0);
    loop.RunBeside([&] { reader.OpenBoth(); });
    ASSERT_TRUE(loop.RunUntil([&] { return TarvoLinkSend(mute, {"x", 1}) == 0; }));
    int sent = 1;
    while (TarvoLinkSend(mute, {"x", 1}) == 0) {
        ++sent;
    }
    EXPECT_EQ(TarvoLinkSend(mute, {"x", 1}), -EAGAIN);
    loop.RunBeside([&] {
        for (int i = 0; i < sent; ++i) {
            reader.Receive();
        }
    });
    loop.RunWhileReadable();
    EXPECT_EQ(TarvoLinkSend(mute, {"again", 5}), 0);
    EXPECT_EQ(reader.Receive().payload, "again");
    EXPECT_EQ(TarvoLinkClose(mute), 0);
}

TEST_P(SendingTest, SenderThatFollowsWritableLosesNothing) {
    constexpr int MESSAGES = 500;
    int next = 0;
    const auto sendOn = [&] {
        while (next < MESSAGES && link.Send(std::to_string(next) + "." + std::string(3000, 'x')) == 0) {
            ++next;
        }
    };
    link.onWritable = sendOn;
    sendOn();
    loop.RunBeside([&] { ExpectNumbered(MESSAGES); });
    EXPECT_EQ(next, MESSAGES);
    EXPECT_GT(link.Count("writable"), 1U);
}

TEST_P(SendingTest, ReplyThatWasRefusedStillWaits) {
    peer.Send(RawRequest(5, "question"));
    EXPECT_TRUE(link.AwaitCount(1));
    const int sent = FillUp();
    EXPECT_EQ(link.Reply(link.requests[0], std::string(4000, 'r')), -EAGAIN);
    int result = -1;
    link.onWritable = [&] { result = link.Reply(link.requests[0], std::string(4000, 'r')); };
    loop.RunBeside([&] {
        ExpectNumbered(sent);
        EXPECT_EQ(peer.Receive().id, 5U);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(link.Reply(link.requests[0], "twice"), -ENOENT);
}

TEST_P(SendingTest, FlushIntoAFullFifoIsDoneLaterByItself) {
    ASSERT_EQ(TarvoLinkHold(link.link), 0);
    const int sent = FillUp(1000);
    EXPECT_EQ(TarvoLinkFlush(link.link), -EAGAIN);
    loop.RunBeside([&] { ExpectNumbered(sent); });
    EXPECT_EQ(TarvoLinkFlush(link.link), 0);
}

TEST_P(SendingTest, RemoteThatIsGoneBreaksThePipe) {
    peer.CloseRead();
    const int result = link.Send("x");
    EXPECT_TRUE(result == -EPIPE) << result;
    EXPECT_EQ(link.Call("x", "call"), -EPIPE);
    loop.RunWhileReadable();
    EXPECT_EQ(link.Count("done"), 0U);
}

} // namespace
} // namespace tarvo_test
