// What becomes of the bytes that arrive: of frames, of everything that is none, and of more than a round takes.
#include <cerrno>

#include "loop/LoopFixture.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

class ReceivingTest : public BothModes {};
TARVO_BOTH_MODES(ReceivingTest);

std::string WithMagic(uint32_t magic) {
    RawFrame frame = MakeRawFrame(1, 0, "");
    frame.magic = magic;
    return EncodeRawFrame(frame);
}

std::string WithLength(uint32_t length) {
    RawFrame frame = MakeRawFrame(1, 0, "");
    frame.length = length;
    return EncodeRawFrame(frame);
}

std::string WithWrongChecksum(const std::string &payload) {
    RawFrame frame = MakeRawFrame(1, 0, payload);
    frame.checksum += 1;
    return EncodeRawFrame(frame);
}

struct Garbage {
    const char *what;
    std::string bytes;
};

std::vector<Garbage> AllGarbage() {
    return {
        {"wrong magic", WithMagic(0x12345678)},
        {"magic of no bits", WithMagic(0)},
        {"length of zero", WithLength(0)},
        {"length of 4001", WithLength(4001)},
        {"length of 4064", WithLength(4064)},
        {"length of the largest int", WithLength(0x7FFFFFFF)},
        {"length of the largest number", WithLength(0xFFFFFFFF)},
        {"wrong checksum", WithWrongChecksum("payload")},
        {"wrong checksum of the longest", WithWrongChecksum(std::string(4000, 'x'))},
        {"unknown type", EncodeRawFrame(MakeRawFrame(1, 2, "payload"))},
        {"largest type", EncodeRawFrame(MakeRawFrame(1, 0xFFFFFFFF, "payload"))},
        {"answer that nobody waits for", RawResponse(1, "payload")},
        {"zeroes", std::string(32, '\0')},
        {"many zeroes", std::string(3200, '\0')},
        {"letters", std::string(32 * 128, 'l')},
    };
}

TEST_P(ReceivingTest, RequestsArriveAsTheyWereSent) {
    std::string longest(4000, '\x80');
    longest[1234] = '\xFF';
    for (const std::string &payload : {std::string("a\0b", 3), std::string("x"), longest}) {
        peer.Send(RawRequest(5, payload));
        EXPECT_TRUE(link.Await("request " + payload));
    }
    EXPECT_EQ(link.events.size(), 3U);
}

TEST_P(ReceivingTest, WhatIsNoFrameIsDroppedAndTheNextFrameDelivered) {
    for (const Garbage &garbage : AllGarbage()) {
        SCOPED_TRACE(garbage.what);
        peer.Send(garbage.bytes);
        ExpectAlive(garbage.what);
        EXPECT_EQ(link.Take(), Strings{std::string("request ") + garbage.what});
    }
}

TEST_P(ReceivingTest, AllOfItInOneWriteIsReadTheSameWay) {
    std::string bytes;
    Strings expected;
    for (const Garbage &garbage : AllGarbage()) {
        bytes += garbage.bytes + RawRequest(1, garbage.what);
        expected.push_back(std::string("request ") + garbage.what);
    }
    peer.Send(bytes);
    EXPECT_TRUE(link.AwaitCount(expected.size()));
    EXPECT_EQ(link.events, expected);
}

TEST_P(ReceivingTest, PayloadOfAWrongLengthIsReadAsHeadsAgain) {
    // 4001 announced: its bytes are taken for heads, 32 at a time, and the next frame is found where one ends.
    RawFrame frame = MakeRawFrame(1, 0, std::string(64, 'p'));
    frame.length = 4001;
    peer.Send(EncodeRawFrame(frame));
    ExpectAlive();
    EXPECT_EQ(link.events.size(), 1U);
}

TEST_P(ReceivingTest, FrameInTwoPiecesIsWaitedFor) {
    const std::string bytes = RawRequest(1, "in pieces");
    for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
        peer.Send(bytes.substr(0, cut));
        loop.RunWhileReadable();
        EXPECT_EQ(link.events, Strings()) << cut;
        peer.Send(bytes.substr(cut));
        EXPECT_TRUE(link.Await("request in pieces")) << cut;
        EXPECT_EQ(link.Take().size(), 1U);
    }
}

TEST_P(ReceivingTest, FramesByteByByteArriveWhole) {
    const std::string bytes = RawRequest(1, "first") + RawRequest(2, std::string(200, 's'));
    for (const char byte : bytes) {
        peer.Send(std::string(1, byte));
        loop.RunWhileReadable();
    }
    EXPECT_EQ(link.events, (Strings{"request first", "request " + std::string(200, 's')}));
}

// Everything that a FIFO holds.
TEST_P(ReceivingTest, FullFifoOfFramesArrivesInOrderAndWithFewReads) {
    std::string bytes;
    Strings expected;
    for (uint32_t i = 0; bytes.size() < 60000; ++i) {
        const std::string text = std::to_string(i) + std::string(i % 97, '.');
        bytes += RawRequest(i, text);
        expected.push_back("request " + text);
    }
    const CallCounter reads(Call::Read, Where().ThisThread());
    peer.Send(bytes);
    EXPECT_TRUE(link.AwaitCount(expected.size()));
    EXPECT_EQ(link.events, expected);
    EXPECT_LE(reads.Count(), 4U);
}

TEST_P(ReceivingTest, WhatMaxLeavesOverComesInTheNextRoundsWithoutNewBytes) {
    std::string bytes;
    for (uint32_t i = 0; i < 20; ++i) {
        bytes += RawRequest(i, std::to_string(i));
    }
    peer.Send(bytes + RawRequest(20, "cut").substr(0, 34));
    for (std::size_t i = 0; i < 20; ++i) {
        ASSERT_TRUE(loop.Readable(30000)) << i;
        ASSERT_EQ(TarvoLoopDispatch(loop.Get(), 1), 1) << i;
        ASSERT_EQ(link.events.back(), "request " + std::to_string(i));
    }
    loop.RunWhileReadable();
    EXPECT_EQ(link.events.size(), 20U);
    peer.Send(RawRequest(20, "cut").substr(34));
    EXPECT_TRUE(link.Await("request cut"));
}

// A second link beside the first.
class TwoLinksTest : public ReceivingTest {
protected:
    void SetUp() override {
        ReceivingTest::SetUp();
        ASSERT_EQ(second.Open(TARVO_LINK_ARRANGED_SERVER, other, self), 0);
        loop.RunBeside([&] { quiet.OpenBoth(); });
        ASSERT_TRUE(second.Await("opened 0"));
    }

    const std::string other = UniqueName("other");
    RawPeer quiet{other, self};
    Probe second{loop};
};
TARVO_BOTH_MODES(TwoLinksTest);

TEST_P(TwoLinksTest, LinkWithMuchToReadLeavesTheOthersTheirTurn) {
    std::string bytes;
    for (uint32_t i = 0; bytes.size() < 60000; ++i) {
        bytes += RawRequest(i, "much");
    }
    peer.Send(bytes);
    quiet.Send(RawRequest(1, "little"));
    const std::size_t much = bytes.size() / RawRequest(1, "much").size();
    loop.max = 8;
    EXPECT_TRUE(second.Await("request little"));
    EXPECT_LT(link.events.size(), much / 2);
    EXPECT_TRUE(link.AwaitCount(much));
}

TEST_P(TwoLinksTest, WhatOneLinkDoesNotUseOfADispatchIsAnothers) {
    std::string bytes;
    for (uint32_t i = 0; i < 10; ++i) {
        bytes += RawRequest(i, "much");
    }
    peer.Send(bytes);
    quiet.Send(RawRequest(1, "little"));
    // Whichever comes first: its half is less than the ten, and what the one of the other leaves is enough.
    EXPECT_EQ(TarvoLoopDispatch(loop.Get(), 11), 11);
    EXPECT_FALSE(loop.Readable());
}

TEST_P(ReceivingTest, FailingReadLosesNothing) {
    {
        const ScopedFault fault(Call::Read, EINTR, Where().ThisThread());
        ExpectAlive("interrupted");
    }
    {
        const ScopedFault fault(Call::Read, EAGAIN, Where().ThisThread());
        ExpectAlive("again");
    }
}

TEST_P(ReceivingTest, LinkWithoutCallbacksReadsOn) {
    const std::string other = UniqueName("other");
    RawPeer speaker(other, self);
    TarvoLinkOptions options = Probe::Options(other, self);
    options.kind = TARVO_LINK_ARRANGED_SERVER;
    TarvoLink *deaf = nullptr;
    ASSERT_EQ(TarvoLinkOpen(loop.Get(), &options, &deaf), 0);
    loop.RunBeside([&] {
        speaker.OpenBoth();
        for (int i = 0; i < 500; ++i) {
            while (speaker.TrySend(RawRequest(1, std::string(4000, 'x'))) == EAGAIN) {
                sched_yield();
            }
        }
    });
    ExpectAlive();
    EXPECT_EQ(TarvoLinkClose(deaf), 0);
}

TEST_P(ReceivingTest, BadHeadsThatComeInPiecesAreDroppedAlike) {
    for (const Garbage &garbage : AllGarbage()) {
        SCOPED_TRACE(garbage.what);
        const std::string bytes = garbage.bytes + RawRequest(1, garbage.what);
        for (const std::size_t cut : {std::size_t{1}, std::size_t{31}, garbage.bytes.size() / 2}) {
            peer.Send(bytes.substr(0, cut));
            loop.RunWhileReadable();
            peer.Send(bytes.substr(cut));
            EXPECT_TRUE(link.Await(std::string("request ") + garbage.what));
            EXPECT_EQ(link.Take().size(), 1U);
        }
    }
}

// ---- Replies ----

TEST_P(ReceivingTest, ReplyEchoesTheIdOfTheRequestAndNamesNoTimeOut) {
    MakeEcho(link);
    peer.Send(RawRequest(0xFFFFFFFFU, std::string(4000, 'q'), 777));
    loop.RunBeside([&] {
        const RawFrame frame = peer.Receive();
        EXPECT_EQ(frame.id, 0xFFFFFFFFU);
        EXPECT_EQ(frame.type, 1U);
        EXPECT_EQ(frame.timeout, -1);
        EXPECT_EQ(frame.payload, std::string(4000, 'q'));
    });
}

TEST_P(ReceivingTest, RequestIsAnsweredOnceNowOrLater) {
    link.onRequest = [&](uint32_t request, const std::string &text) {
        if (text == "now") {
            EXPECT_EQ(link.Reply(request, "at once"), 0);
            EXPECT_EQ(link.Reply(request, "twice"), -ENOENT);
        }
    };
    peer.Send(RawRequest(1, "now") + RawRequest(2, "later") + RawRequest(3, "never"));
    EXPECT_TRUE(link.AwaitCount(3));
    EXPECT_EQ(peer.Receive().payload, "at once");
    EXPECT_EQ(link.Reply(link.requests[1], "late"), 0);
    const RawFrame late = peer.Receive();
    EXPECT_EQ(late.id, 2U);
    EXPECT_EQ(late.payload, "late");
    EXPECT_EQ(link.Reply(link.requests[1], "twice"), -ENOENT);
    EXPECT_EQ(link.Reply(link.requests[0], "twice"), -ENOENT);
    EXPECT_EQ(link.Reply(4711000, "unasked"), -ENOENT);
    EXPECT_FALSE(peer.HasInput());
}

TEST_P(ReceivingTest, RequestsOfTheSameIdAreToldApart) {
    peer.Send(RawRequest(9, "one") + RawRequest(9, "two"));
    EXPECT_TRUE(link.AwaitCount(2));
    ASSERT_NE(link.requests[0], link.requests[1]);
    EXPECT_EQ(link.Reply(link.requests[1], "second"), 0);
    EXPECT_EQ(link.Reply(link.requests[0], "first"), 0);
    EXPECT_EQ(peer.Receive().payload, "second");
    EXPECT_EQ(peer.Receive().payload, "first");
}

TEST_P(ReceivingTest, RepliesOfAWrongSizeAreRefusedAndTheRequestStillWaits) {
    peer.Send(RawRequest(9, "question"));
    EXPECT_TRUE(link.AwaitCount(1));
    EXPECT_EQ(link.Reply(link.requests[0], ""), -EINVAL);
    EXPECT_EQ(link.Reply(link.requests[0], std::string(4001, 'x')), -EINVAL);
    EXPECT_EQ(link.Reply(link.requests[0], "fine"), 0);
    EXPECT_EQ(peer.Receive().payload, "fine");
}

TEST_P(ReceivingTest, OldestRequestIsForgottenWhenTooManyWait) {
    const auto flood = [&](uint32_t count) {
        const std::string frame = RawRequest(1, "w");
        for (uint32_t sent = 0; sent < count;) {
            std::string bytes;
            for (; sent < count && bytes.size() < 60000; ++sent) {
                bytes += frame;
            }
            peer.Send(bytes);
            EXPECT_TRUE(loop.RunUntil([&] { return link.requests.size() == sent; }));
        }
    };
    peer.Send(RawRequest(1, "first") + RawRequest(2, "second"));
    EXPECT_TRUE(link.AwaitCount(2));
    const uint32_t first = link.requests[0];
    const uint32_t second = link.requests[1];
    link.requests.clear();
    flood(TARVO_LOOP_MAX_REQUESTS - 1);
    EXPECT_EQ(link.Reply(second, "still there"), 0);
    EXPECT_EQ(link.Reply(first, "too late"), -ENOENT);
}

} // namespace
} // namespace tarvo_test
