// Programs over either engine and the pure Python peer of the examples, each with each and in both roles. Python shares
// no code with the engines, so what one of them takes for the wire format the other has understood from its
// description.
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

// The programs of the two peers. The first serves or creates the files.
struct Programs {
    const char *name;
    const char *first;
    const char *second;

    bool Have(const std::string &program) const { return first == program || second == program; }
};

class PeerPairsTest : public SystemTest, public testing::WithParamInterface<Programs> {
protected:
    void Start(const std::string &callback, const std::string &clientCallback = "none") {
        Serve(first_, Name("s"), "callback=" + callback);
        pair_ = Connect(first_, Name("s"), second_, Name("c"), "callback=" + clientCallback);
    }

    void Arrange() {
        pair_ = OpenPair(first_, Name("m"), "callback=echo", second_, Name("j"), "callback=echo");
        EXPECT_EQ(second_.Ask("call text timeout=20000 data=there" + Fd(pair_.second)), "0 there");
        EXPECT_EQ(first_.Ask("call text timeout=20000 data=back" + Fd(pair_.first)), "0 back");
    }

    // The loop numbers requests itself, for its sender and for its receiver.
    bool IdsAreTheSenders() const { return !GetParam().Have(LOOP_PEER_PROGRAM); }

    void ExpectRequest(PeerProcess &peer, int fd, const std::string &id, const std::string &digest) const {
        const std::string event = peer.NextEvent();
        EXPECT_EQ(event.rfind("request fd=" + std::to_string(fd) + " ", 0), 0U) << event;
        EXPECT_EQ(event.substr(event.rfind(' ') + 1), digest);
        EXPECT_TRUE(IdIn(event) == "id=" + id || !IdsAreTheSenders()) << event;
    }

    PeerProcess first_{nullptr, GetParam().first};
    PeerProcess second_{nullptr, GetParam().second};
    Pair pair_ = {};
};

INSTANTIATE_TEST_SUITE_P(Roles, PeerPairsTest,
                         testing::Values(Programs{"LibraryWithItself", SYSTEM_PEER_PROGRAM, SYSTEM_PEER_PROGRAM},
                                         Programs{"LoopServes", LOOP_PEER_PROGRAM, SYSTEM_PEER_PROGRAM},
                                         Programs{"LoopCalls", SYSTEM_PEER_PROGRAM, LOOP_PEER_PROGRAM},
                                         Programs{"LoopWithItself", LOOP_PEER_PROGRAM, LOOP_PEER_PROGRAM},
                                         Programs{"PythonServes", PYTHON_PEER_PROGRAM, SYSTEM_PEER_PROGRAM},
                                         Programs{"PythonCalls", SYSTEM_PEER_PROGRAM, PYTHON_PEER_PROGRAM},
                                         Programs{"PythonServesLoop", PYTHON_PEER_PROGRAM, LOOP_PEER_PROGRAM},
                                         Programs{"PythonCallsLoop", LOOP_PEER_PROGRAM, PYTHON_PEER_PROGRAM}),
                         [](const testing::TestParamInfo<Programs> &programs) { return programs.param.name; });

TEST_P(PeerPairsTest, CallsOfEverySizeAreAnswered) {
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

TEST_P(PeerPairsTest, OneWayRequestsArriveInOrderWithIdAndContent) {
    Start("report", "report");
    for (const std::size_t size : PAYLOAD_SIZES) {
        ASSERT_EQ(second_.AskInt("send id=-16 " + FillWords(size, 3) + Fd(pair_.second)), 0);
        ExpectRequest(first_, pair_.first, "4294967280", FillDigest(size, 3));
    }
    ASSERT_EQ(first_.AskInt("send times=50 id=0 data=x" + Fd(pair_.first)), 0);
    for (int i = 0; i < 50; ++i) {
        ExpectRequest(second_, pair_.second, std::to_string(i), Digest("x"));
    }
}

TEST_P(PeerPairsTest, CallTimesOutAndItsLateAnswerIsDropped) {
    Start("report");
    EXPECT_EQ(second_.AskInt("call timeout=20 data=first" + Fd(pair_.second)), -ETIMEDOUT);
    EXPECT_EQ(first_.AskInt("respond data=late " + IdIn(first_.Await("request")) + Fd(pair_.first)), 0);
    second_.Tell("call timeout=20000 text data=second" + Fd(pair_.second));
    EXPECT_EQ(first_.AskInt("respond data=right " + IdIn(first_.Await("request")) + Fd(pair_.first)), 0);
    EXPECT_EQ(second_.Reply(), "0 right");
}

TEST_P(PeerPairsTest, CallsGoBothWaysOnOnePipeAtTheSameTime) {
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

TEST_P(PeerPairsTest, ServerIsToldThatItsClientHasClosed) {
    Start("report");
    ASSERT_EQ(second_.AskInt("send data=last" + Fd(pair_.second)), 0);
    EXPECT_NE(first_.Await("request").find(Digest("last")), std::string::npos);
    EXPECT_EQ(second_.AskInt("close" + Fd(pair_.second)), 0);
    EXPECT_EQ(HandleIn(first_.Await("gone")), pair_.first);
    AwaitFilesGone(Name("s"), Name("c") + "_" + std::to_string(second_.Pid()));
    EXPECT_EQ(first_.AskInt("send data=x" + Fd(pair_.first)), -ENOENT);
}

TEST_P(PeerPairsTest, ServerIsToldThatItsClientWasKilledAndServesTheNext) {
    Start("echo");
    second_.KillAndWait();
    EXPECT_EQ(HandleIn(first_.Await("gone")), pair_.first);
    PeerProcess next(nullptr, GetParam().second);
    const Pair again = Connect(first_, Name("s"), next, Name("c"), "");
    ExpectEcho(next, again.second, "again");
}

TEST_P(PeerPairsTest, CallerIsReleasedWhenTheServerIsKilled) {
    FilesMayStay();
    Start("report", "report");
    // The server's write end opens in the background, or with its first message. Before that its end goes unnoticed.
    ASSERT_EQ(first_.AskInt("send data=open" + Fd(pair_.first)), 0);
    second_.Await("request");
    second_.Tell("call data=question" + Fd(pair_.second));
    first_.Await("request");
    first_.KillAndWait();
    const std::string reply = second_.Reply();
    // A caller of the library that is not yet in its wait finds the pipe closed: 0 without an answer.
    EXPECT_TRUE(reply == std::to_string(-EPIPE) ||
                (reply == "0" && GetParam().second == std::string(SYSTEM_PEER_PROGRAM)))
        << reply;
    EXPECT_EQ(HandleIn(second_.Await("gone")), pair_.second);
    EXPECT_EQ(second_.AskInt("client timeout=20000 target=" + Name("s") + " self=" + Name("c")), -ENXIO);
}

TEST_P(PeerPairsTest, PipeByArrangementOpensWhoeverComesFirst) {
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

TEST_P(PeerPairsTest, RemoteThatDoesNotComeIsWaitedForInVain) {
    EXPECT_EQ(first_.AskInt("open mode=0 timeout=30 self=" + Name("j") + " target=" + Name("m")), -ETIMEDOUT);
    EXPECT_EQ(first_.AskInt("client timeout=30 self=" + Name("j") + " target=" + Name("m")), -ENXIO);
}

TEST_P(PeerPairsTest, SenderIsToldThatTheFifoIsFull) {
    Start("report");
    first_.Freeze();
    const std::string refusal = second_.Ask("fillup fill=4000" + Fd(pair_.second));
    first_.Thaw();
    EXPECT_EQ(refusal.substr(refusal.find(' ')), " " + std::to_string(-EAGAIN));
    const int sent = std::stoi(refusal);
    EXPECT_GE(sent, 1);
    for (int id = 0; id < sent; ++id) {
        ExpectRequest(first_, pair_.first, std::to_string(id), Digest(Fill(4000, 0)));
    }
}

TEST_P(PeerPairsTest, ArrangedPipeCarriesCallsOfEverySizeBothWays) {
    Arrange();
    for (const std::size_t size : PAYLOAD_SIZES) {
        const std::string right = "0 " + FillDigest(size, 5);
        EXPECT_EQ(second_.Ask("call timeout=20000 " + FillWords(size, 5) + Fd(pair_.second)), right);
        EXPECT_EQ(first_.Ask("call timeout=20000 " + FillWords(size, 5) + Fd(pair_.first)), right);
    }
}

TEST_P(PeerPairsTest, MakerOfAnArrangedPipeClosesItAndTheJoinerIsTold) {
    Arrange();
    EXPECT_EQ(first_.AskInt("close" + Fd(pair_.first)), 0);
    AwaitFilesGone(Name("m"), Name("j"));
    EXPECT_EQ(HandleIn(second_.Await("gone")), pair_.second);
}

TEST_P(PeerPairsTest, JoinerOfAnArrangedPipeClosesItAndTheMakerRemovesTheFiles) {
    Arrange();
    EXPECT_EQ(second_.AskInt("close" + Fd(pair_.second)), 0);
    EXPECT_EQ(HandleIn(first_.Await("gone")), pair_.first);
    AwaitFilesGone(Name("m"), Name("j"));
}

TEST_P(PeerPairsTest, EndOfAProcessWithAnArrangedPipeIsTold) {
    Arrange();
    EXPECT_EQ(second_.Quit(), 0);
    EXPECT_EQ(HandleIn(first_.Await("gone")), pair_.first);
    AwaitFilesGone(Name("m"), Name("j"));
    EXPECT_EQ(first_.Quit(), 0);
}

TEST_P(PeerPairsTest, SigkillOfTheJoinerIsTold) {
    Arrange();
    second_.KillAndWait();
    EXPECT_EQ(HandleIn(first_.Await("gone")), pair_.first);
    AwaitFilesGone(Name("m"), Name("j"));
    EXPECT_EQ(first_.Quit(), 0);
}

TEST_P(PeerPairsTest, SigkillOfTheMakerIsTold) {
    FilesMayStay();
    Arrange();
    first_.KillAndWait();
    EXPECT_EQ(HandleIn(second_.Await("gone")), pair_.second);
    EXPECT_EQ(second_.Quit(), 0);
}

// One peer alone, against bytes written by hand.
class PeerWireTest : public SystemTest, public testing::WithParamInterface<const char *> {
protected:
    PeerProcess peer_{nullptr, GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Alone, PeerWireTest, testing::Values(PYTHON_PEER_PROGRAM, LOOP_PEER_PROGRAM),
                         [](const testing::TestParamInfo<const char *> &program) {
                             return program.param == std::string(LOOP_PEER_PROGRAM) ? "Loop" : "Python";
                         });

TEST_P(PeerWireTest, GarbageInThePipeIsDroppedAndTheNextGoodFrameServed) {
    const int fd = peer_.AskInt("open mode=1 timeout=20000 callback=echo self=" + Name("p") + " target=" + Name("raw"));
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
    EXPECT_EQ(peer_.Quit(), 0);
}

TEST_P(PeerWireTest, GarbageInTheServersFileIsSkipped) {
    Serve(peer_, Name("s"), "callback=echo");
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
    const Pair pair = Connect(peer_, Name("s"), client, Name("c"), "");
    EXPECT_EQ(client.Ask("call text timeout=20000 data=fine" + Fd(pair.second)), "0 fine");
    EXPECT_EQ(client.Quit(), 0);
    EXPECT_EQ(peer_.Quit(), 0);
}

TEST_P(PeerWireTest, ItsFramesAreTheLibrarys) {
    const int fd = peer_.AskInt("open mode=1 timeout=20000 self=" + Name("p") + " target=" + Name("raw"));
    RawPeer raw(Name("raw"), Name("p"));
    raw.OpenBoth();
    EXPECT_EQ(peer_.AskInt("send id=305419896 " + FillWords(4000, 2) + Fd(fd)), 0);
    const RawFrame oneWay = raw.Receive();
    if (GetParam() != std::string(LOOP_PEER_PROGRAM)) {
        EXPECT_EQ(oneWay.id, 0x12345678U) << "the loop numbers its requests itself";
    }
    EXPECT_EQ(oneWay.type, 0U);
    EXPECT_EQ(oneWay.timeout, -1);
    EXPECT_EQ(oneWay.payload, Fill(4000, 2));
    EXPECT_GT(oneWay.writeStartTime, 0);
    peer_.Tell("call text timeout=12345 data=question" + Fd(fd));
    const RawFrame call = raw.Receive();
    EXPECT_EQ(call.timeout, 12345);
    raw.Send(RawResponse(call.id + 1, "wrong"));
    raw.Send(RawResponse(call.id, "right"));
    EXPECT_EQ(peer_.Reply(), "0 right");
    EXPECT_EQ(peer_.Quit(), 0);
}

} // namespace
} // namespace tarvo_test
