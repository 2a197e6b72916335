// What does not arrive, with its reason.
#include "pipe/Message.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "unit/api/StatsFixture.h"

namespace {

using namespace tarvo_test;

class CountedLossesTest : public ApiStatsTest {
protected:
    static bool EventuallyBad(int fd, unsigned reason, uint64_t count = 1) {
        return EventuallyOf(fd, [=](const TarvoStatsPipe &stats) { return stats.received.bad[reason] == count; });
    }
    static bool EventuallyDropped(int fd, unsigned reason, uint64_t count = 1) {
        return EventuallyOf(fd, [=](const TarvoStatsPipe &stats) { return stats.requests.dropped[reason] == count; });
    }
    static int SendOne(int fd) {
        char text[] = "12345";
        TarvoRequest request{0, text, 5};
        return TarvoSendRequest(fd, &request);
    }
};

TEST_F(CountedLossesTest, RefusedSendsAreCountedByReason) {
    const int fd = OpenToRaw();
    EXPECT_EQ(-ENXIO, SendOne(fd));
    EXPECT_EQ(1U, Of(fd).sent.refused[TARVO_STATS_SEND_OTHER]);
    JoinedRawPeer peer(remote, self);
    uint64_t sent = 0;
    int ret = 0;
    while ((ret = SendOne(fd)) == 0) {
        ++sent;
    }
    EXPECT_EQ(-EAGAIN, ret);
    EXPECT_EQ(1U, Of(fd).sent.refused[TARVO_STATS_SEND_FULL]);
    EXPECT_EQ(sent, Of(fd).sent.messages[TARVO_STATS_ONE_WAY]);
    peer.CloseRead();
    EXPECT_EQ(-EPIPE, SendOne(fd));
    EXPECT_EQ(1U, Of(fd).sent.refused[TARVO_STATS_SEND_BROKEN]);
    EXPECT_EQ(sent, Of(fd).sent.messages[TARVO_STATS_ONE_WAY]);
}

TEST_F(CountedLossesTest, ACallThatFindsNoRoomIsARefusedSendToo) {
    const int fd = OpenToRaw();
    JoinedRawPeer peer(remote, self);
    while (SendOne(fd) == 0) {
    }
    EXPECT_EQ("error " + std::to_string(-EAGAIN), Ask(fd, "12345"));
    EXPECT_EQ(1U, Of(fd).calls.ended[TARVO_STATS_END_NOT_SENT]);
    EXPECT_EQ(2U, Of(fd).sent.refused[TARVO_STATS_SEND_FULL]);
}

TEST_F(CountedLossesTest, BadFramesAreCountedByReason) {
    const int fd = OpenToRaw(Ignore);
    JoinedRawPeer peer(remote, self);
    RawFrame frame = MakeRawFrame(1, 0, "");
    frame.magic = 1;
    peer.Send(EncodeRawFrame(frame));
    EXPECT_TRUE(EventuallyBad(fd, TARVO_STATS_BAD_MAGIC));
    peer.Send(EncodeRawFrame(MakeRawFrame(1, 0, "")));
    EXPECT_TRUE(EventuallyBad(fd, TARVO_STATS_BAD_LENGTH));
    frame = MakeRawFrame(1, 0, "text");
    ++frame.checksum;
    peer.Send(EncodeRawFrame(frame));
    EXPECT_TRUE(EventuallyBad(fd, TARVO_STATS_BAD_CHECKSUM));
    peer.Send(EncodeRawFrame(MakeRawFrame(1, 7, "text")));
    EXPECT_TRUE(EventuallyBad(fd, TARVO_STATS_BAD_KIND));
    peer.Send(std::string(10, 'x'));
    EXPECT_TRUE(EventuallyBad(fd, TARVO_STATS_BAD_SHORT));
    const std::string whole = EncodeRawFrame(MakeRawFrame(1, 0, "text"));
    peer.Send(whole.substr(0, whole.size() - 2));
    EXPECT_TRUE(EventuallyBad(fd, TARVO_STATS_BAD_SHORT, 2));
    peer.Send(whole);
    EXPECT_TRUE(EventuallyReceives(fd, TARVO_STATS_ONE_WAY, 1));
    const TarvoStatsPipe stats = Of(fd);
    EXPECT_EQ(6U, SumOf(stats.received.bad));
    EXPECT_EQ(1U, SumOf(stats.received.messages));
}

TEST_F(CountedLossesTest, AFrameForWhichThereIsNoMemoryIsCounted) {
    constexpr uint32_t LENGTH = 3131; // no other allocation has this size
    const int fd = OpenToRaw([](int, TarvoRequest *) {
        // Another thread than the one whose memory ends.
    });
    JoinedRawPeer peer(remote, self);
    // The rule is one thread's: it is made on that of the receiving, when it reads the head.
    std::unique_ptr<AllocFault> fault;
    const ScopedHook hook(
        Call::Read,
        [&fault](const CallInfo &) {
            const OwnMemory own;
            fault = std::make_unique<AllocFault>(1, LENGTH + InMessage::ROOM);
        },
        Where().If([](const CallInfo &info) { return info.size == sizeof(MsgHead); }));
    peer.Send(EncodeRawFrame(MakeRawFrame(1, 0, std::string(LENGTH, 'x'))));
    EXPECT_TRUE(EventuallyOf(fd, [](const TarvoStatsPipe &stats) { return stats.received.noMemory == 1; }));
    EXPECT_EQ(0U, SumOf(Of(fd).received.bad));
}

TEST_F(CountedLossesTest, BytesThatAreLeftInTheFifoAreCounted) {
    const int fd = OpenToRaw();
    JoinedRawPeer peer(remote, self);
    const std::string frame = RawRequest(1, "12345");
    // The receive thread is held before its next wait.
    Gate &gate = Gate::Make();
    const ScopedHook hook(Call::EpollWait, [&gate](const CallInfo &) { gate.Pass(); });
    peer.Send(frame);
    gate.AwaitWaiting(1);
    peer.Send(frame + frame + frame);
    TarvoClosePipe(fd);
    gate.Open();
    const TarvoStatsPipe stats = InFile(fd).of.pipe;
    // The first one too, if the thread had not begun to wait.
    EXPECT_GE(stats.received.unread, 3 * frame.size());
    EXPECT_EQ(4 * frame.size(), stats.received.unread + stats.received.messages[TARVO_STATS_ONE_WAY] * frame.size());
    EXPECT_EQ(0U, SumOf(stats.received.bad));
}

TEST_F(CountedLossesTest, RequestsForAFullQueueAreDropped) {
    Gate &gate = Gate::Make();
    const PipePair pair([&gate](int, TarvoRequest *) { gate.Pass(); });
    SendMany(pair.far, 1);
    gate.AwaitWaiting(1);
    SendMany(pair.far, 1003);
    EXPECT_TRUE(EventuallyDropped(pair.near, TARVO_STATS_DROP_QUEUE, 3));
    EXPECT_EQ(1000U, Of(pair.near).requests.queued.now);
    EXPECT_GE(Of(pair.near).requests.queued.most, 1000U);
    gate.Open();
    EXPECT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.finished == 1001; }));
    EXPECT_EQ(0U, Of(pair.near).requests.queued.now);
}

TEST_F(CountedLossesTest, RequestsBeyond200CallbacksAreDropped) {
    Gate &gate = Gate::Make();
    const PipePair pair([&gate](int, TarvoRequest *) { gate.Pass(); }, {}, true);
    SendMany(pair.far, 202);
    EXPECT_TRUE(EventuallyDropped(pair.near, TARVO_STATS_DROP_CALLBACKS, 2));
    gate.AwaitWaiting(200);
    EXPECT_EQ(200U, Of(pair.near).requests.running.now);
    EXPECT_EQ(200U, Of(pair.near).requests.running.most);
    gate.Open();
    EXPECT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.finished == 200; }));
}

TEST_F(CountedLossesTest, WhatAPipeWithoutACallbackKeepsIsQueuedAndThenDropped) {
    PipePair pair;
    SendMany(pair.far, 1002);
    EXPECT_TRUE(EventuallyDropped(pair.near, TARVO_STATS_DROP_CACHE, 2));
    EXPECT_EQ(1000U, Of(pair.near).requests.queued.now);
    TarvoClosePipe(pair.near);
    ASSERT_TRUE(
        Eventually([&] { return InFile(pair.near).of.pipe.requests.dropped[TARVO_STATS_DROP_CLOSING] == 1000; }));
}

TEST_F(CountedLossesTest, RequestsThatWaitWhenThePipeClosesAreDropped) {
    Gate &gate = Gate::Make();
    const PipePair pair([&gate](int, TarvoRequest *) { gate.Pass(); });
    SendMany(pair.far, 4);
    gate.AwaitWaiting(1);
    ASSERT_TRUE(EventuallyReceives(pair.near, TARVO_STATS_ONE_WAY, 4));
    ASSERT_TRUE(EventuallyOf(pair.near, [](const TarvoStatsPipe &stats) { return stats.requests.queued.now == 3; }));
    TarvoClosePipe(pair.near);
    EXPECT_EQ(3U, InFile(pair.near).of.pipe.requests.dropped[TARVO_STATS_DROP_CLOSING]);
    gate.Open();
    EXPECT_TRUE(Eventually([&] { return InFile(pair.near).of.pipe.requests.finished == 1; }));
}

TEST_F(CountedLossesTest, ARequestForWhichThereIsNoMemoryIsDropped) {
    constexpr uint32_t LENGTH = 3131;
    const int fd = OpenToRaw(); // without a callback: a request that is kept has a block of its own
    JoinedRawPeer peer(remote, self);
    std::unique_ptr<AllocFault> fault;
    const ScopedHook hook(
        Call::Read,
        [&fault](const CallInfo &) {
            const OwnMemory own;
            fault = std::make_unique<AllocFault>(1);
        },
        Where().If([](const CallInfo &info) { return info.size == LENGTH; }));
    peer.Send(EncodeRawFrame(MakeRawFrame(1, 0, std::string(LENGTH, 'x'))));
    EXPECT_TRUE(EventuallyDropped(fd, TARVO_STATS_DROP_MEMORY));
    EXPECT_EQ(1U, Of(fd).received.messages[TARVO_STATS_ONE_WAY]);
}

} // namespace
