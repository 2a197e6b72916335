// Programs over the library and the pure Python peer of the examples, each in both roles. The two share no code, so
// what one of them takes for the wire format the other has understood from its description.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "support/Eventually.h"
#include "support/FifoEnds.h"
#include "support/RawPeer.h"
#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

// The parameter: whether Python is the first peer, which serves or creates the files.
class PythonPeerTest : public SystemTest, public testing::WithParamInterface<bool> {
protected:
    void Start(const std::string &callback, const std::string &clientCallback = "none") {
        Serve(first_, Name("s"), "callback=" + callback);
        pair_ = Connect(first_, Name("s"), second_, Name("c"), "callback=" + clientCallback);
    }

    PeerProcess first_{nullptr, GetParam() ? PYTHON_PEER_PROGRAM : SYSTEM_PEER_PROGRAM};
    PeerProcess second_{nullptr, GetParam() ? SYSTEM_PEER_PROGRAM : PYTHON_PEER_PROGRAM};
    Pair pair_ = {};
};

INSTANTIATE_TEST_SUITE_P(Roles, PythonPeerTest, testing::Bool(), [](const testing::TestParamInfo<bool> &role) {
    return role.param ? "PythonServes" : "PythonCalls";
});

TEST_P(PythonPeerTest, CallsOfEverySizeAreAnswered) {
    Start("echo", "echo");
    for (const std::size_t size : PAYLOAD_SIZES) {
        const std::string right = "0 " + FillDigest(size, 5);
        EXPECT_EQ(second_.Ask("call timeout=20000 " + FillWords(size, 5) + Fd(pair_.second)), right);
        EXPECT_EQ(first_.Ask("call timeout=20000 " + FillWords(size, 5) + Fd(pair_.first)), right);
        EXPECT_EQ(second_.Ask("call " + FillWords(size, 5) + Fd(pair_.second)), right) << "without a time-out";
    }
    EXPECT_EQ(second_.AskInt("call timeout=20000 fill=4001" + Fd(pair_.second)), -EINVAL);
    EXPECT_EQ(second_.AskInt("send fill=0" + Fd(pair_.second)), -EINVAL);
}

TEST_P(PythonPeerTest, OneWayRequestsArriveInOrderWithIdAndContent) {
    Start("report", "report");
    for (const std::size_t size : PAYLOAD_SIZES) {
        ASSERT_EQ(second_.AskInt("send id=-16 " + FillWords(size, 3) + Fd(pair_.second)), 0);
        EXPECT_EQ(first_.NextEvent(),
                  "request fd=" + std::to_string(pair_.first) + " id=4294967280 " + FillDigest(size, 3));
    }
    ASSERT_EQ(first_.AskInt("send times=50 id=0 data=x" + Fd(pair_.first)), 0);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(second_.NextEvent(),
                  "request fd=" + std::to_string(pair_.second) + " id=" + std::to_string(i) + " " + Digest("x"));
    }
}

TEST_P(PythonPeerTest, CallTimesOutAndItsLateAnswerIsDropped) {
    Start("report");
    EXPECT_EQ(second_.AskInt("call timeout=20 data=first" + Fd(pair_.second)), -ETIMEDOUT);
    EXPECT_EQ(first_.AskInt("respond data=late " + IdIn(first_.Await("request")) + Fd(pair_.first)), 0);
    second_.Tell("call timeout=20000 text data=second" + Fd(pair_.second));
    EXPECT_EQ(first_.AskInt("respond data=right " + IdIn(first_.Await("request")) + Fd(pair_.first)), 0);
    EXPECT_EQ(second_.Reply(), "0 right");
}

TEST_P(PythonPeerTest, CallsGoBothWaysOnOnePipeAtTheSameTime) {
    Start("echo", "echo");
    for (unsigned i = 0; i < 20; ++i) {
        const std::string words = "start timeout=20000 tag=" + std::to_string(i) + " " + FillWords(1000, i);
        first_.Ask(words + Fd(pair_.first));
        second_.Ask(words + Fd(pair_.second));
    }
    for (unsigned i = 0; i < 20; ++i) {
        const std::string right = "result=0 " + FillDigest(1000, i);
        EXPECT_EQ(first_.Await("called tag=" + std::to_string(i) + " "), right);
        EXPECT_EQ(second_.Await("called tag=" + std::to_string(i) + " "), right);
    }
}

TEST_P(PythonPeerTest, ServerIsToldThatItsClientHasClosed) {
    Start("report");
    ASSERT_EQ(second_.AskInt("send data=last" + Fd(pair_.second)), 0);
    EXPECT_NE(first_.Await("request").find(Digest("last")), std::string::npos);
    EXPECT_EQ(second_.AskInt("close" + Fd(pair_.second)), 0);
    EXPECT_EQ(HandleIn(first_.Await("gone")), pair_.first);
    AwaitFilesGone(Name("s"), Name("c") + "_" + std::to_string(second_.Pid()));
    EXPECT_EQ(first_.AskInt("send data=x" + Fd(pair_.first)), -ENOENT);
}

TEST_P(PythonPeerTest, ServerIsToldThatItsClientWasKilledAndServesTheNext) {
    Start("echo");
    second_.KillAndWait();
    EXPECT_EQ(HandleIn(first_.Await("gone")), pair_.first);
    PeerProcess next(nullptr, GetParam() ? SYSTEM_PEER_PROGRAM : PYTHON_PEER_PROGRAM);
    const Pair again = Connect(first_, Name("s"), next, Name("c"), "");
    ExpectEcho(next, again.second, "again");
}

TEST_P(PythonPeerTest, CallerIsReleasedWhenTheServerIsKilled) {
    FilesMayStay();
    Start("report", "report");
    // The server's write end opens in the background, or with its first message. Before that its end goes unnoticed.
    ASSERT_EQ(first_.AskInt("send data=open" + Fd(pair_.first)), 0);
    second_.Await("request");
    second_.Tell("call data=question" + Fd(pair_.second));
    first_.Await("request");
    first_.KillAndWait();
    EXPECT_EQ(second_.Reply(), std::to_string(-EPIPE));
    EXPECT_EQ(HandleIn(second_.Await("gone")), pair_.second);
    EXPECT_EQ(second_.AskInt("client timeout=20000 target=" + Name("s") + " self=" + Name("c")), -ENXIO);
}

TEST_P(PythonPeerTest, PipeByArrangementOpensWhoeverComesFirst) {
    second_.Tell("open mode=0 timeout=20000 callback=echo self=" + Name("j") + " target=" + Name("m"));
    const int maker =
        first_.AskInt("open mode=1 timeout=20000 callback=echo self=" + Name("m") + " target=" + Name("j"));
    const int joiner = std::stoi(second_.Reply());
    ASSERT_GT(maker, 0);
    ASSERT_GT(joiner, 0);
    ExpectEcho(second_, joiner, "there");
    ExpectEcho(first_, maker, "back");
    EXPECT_EQ(first_.AskInt("close" + Fd(maker)), 0);
    EXPECT_EQ(HandleIn(second_.Await("gone")), joiner);
}

TEST_P(PythonPeerTest, RemoteThatDoesNotComeIsWaitedForInVain) {
    EXPECT_EQ(first_.AskInt("open mode=0 timeout=30 self=" + Name("j") + " target=" + Name("m")), -ETIMEDOUT);
    EXPECT_EQ(first_.AskInt("client timeout=30 self=" + Name("j") + " target=" + Name("m")), -ENXIO);
}

TEST_P(PythonPeerTest, SenderIsToldThatTheFifoIsFull) {
    Start("report");
    first_.Freeze();
    const std::string refusal = second_.Ask("fillup fill=4000" + Fd(pair_.second));
    first_.Thaw();
    EXPECT_EQ(refusal.substr(refusal.find(' ')), " " + std::to_string(-EAGAIN));
    const int sent = std::stoi(refusal);
    EXPECT_GE(sent, 1);
    for (int id = 0; id < sent; ++id) {
        EXPECT_EQ(IdIn(first_.Await("request")), "id=" + std::to_string(id));
    }
}

// Python alone, against bytes written by hand.
class PythonWireTest : public SystemTest {
protected:
    PeerProcess python_{nullptr, PYTHON_PEER_PROGRAM};
};

TEST_F(PythonWireTest, GarbageInThePipeIsDroppedAndTheNextGoodFrameServed) {
    const int fd =
        python_.AskInt("open mode=1 timeout=20000 callback=echo self=" + Name("p") + " target=" + Name("raw"));
    ASSERT_GT(fd, 0);
    RawPeer raw(Name("raw"), Name("p"));
    raw.OpenBoth();
    RawFrame wrongSum = MakeRawFrame(1, 0, "wrong sum");
    wrongSum.checksum += 1;
    raw.Send(EncodeRawFrame(wrongSum));
    RawFrame wrongMagic = MakeRawFrame(2, 0, std::string(32, 'm'));
    wrongMagic.magic += 1;
    raw.Send(EncodeRawFrame(wrongMagic));
    RawFrame tooLong = MakeRawFrame(3, 0, "x");
    tooLong.length = 4001;
    raw.Send(EncodeRawFrame(tooLong).substr(0, RAW_HEAD_SIZE));
    RawFrame unknownType = MakeRawFrame(4, 2, "unknown type");
    raw.Send(EncodeRawFrame(unknownType));
    raw.Send(RawResponse(5, "nobody asked"));
    raw.Send(RawRequest(0xFFFFFFFFU, Fill(4000, 4), 777));
    const RawFrame frame = raw.Receive();
    EXPECT_EQ(frame.id, 0xFFFFFFFFU);
    EXPECT_EQ(frame.type, 1U);
    EXPECT_EQ(frame.timeout, -1);
    EXPECT_EQ(frame.payload, Fill(4000, 4));
}

TEST_F(PythonWireTest, GarbageInTheServersFileIsSkipped) {
    Serve(python_, Name("s"), "callback=echo");
    WriteToRawServer(Name("s"), "no packet at all");
    WriteToRawServer(Name("s"), RawTerminatePacket().substr(0, 7));
    WriteToRawServer(Name("s"), RawConnectPacket(std::string(111, 'n'), 0, 1));
    WriteToRawServer(Name("s"), RawConnectPacket("../" + Name("climber"), 0, 1));
    WriteToRawServer(Name("s"), RawConnectPacket(Name("cut"), 0, 1).substr(0, 22));
    // Else the next packet could follow so soon that it is taken for the rest of the one cut off.
    EXPECT_TRUE(Eventually([fifo = FifoDirectory() + Name("s")] {
        int unread = -1;
        return ioctl(ReadEnd(fifo).Get(), FIONREAD, &unread) == 0 && unread == 0;
    }));
    PeerProcess client;
    const Pair pair = Connect(python_, Name("s"), client, Name("c"), "");
    ExpectEcho(client, pair.second, "fine");
}

TEST_F(PythonWireTest, ItsFramesAreTheLibrarys) {
    const int fd = python_.AskInt("open mode=1 timeout=20000 self=" + Name("p") + " target=" + Name("raw"));
    RawPeer raw(Name("raw"), Name("p"));
    raw.OpenBoth();
    EXPECT_EQ(python_.AskInt("send id=305419896 " + FillWords(4000, 2) + Fd(fd)), 0);
    const RawFrame oneWay = raw.Receive();
    EXPECT_EQ(oneWay.id, 0x12345678U);
    EXPECT_EQ(oneWay.type, 0U);
    EXPECT_EQ(oneWay.timeout, -1);
    EXPECT_EQ(oneWay.payload, Fill(4000, 2));
    EXPECT_GT(oneWay.writeStartTime, 0);
    python_.Tell("call text timeout=12345 data=question" + Fd(fd));
    const RawFrame call = raw.Receive();
    EXPECT_EQ(call.timeout, 12345);
    raw.Send(RawResponse(call.id + 1, "wrong"));
    raw.Send(RawResponse(call.id, "right"));
    EXPECT_EQ(python_.Reply(), "0 right");
}

} // namespace
} // namespace tarvo_test
