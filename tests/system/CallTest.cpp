#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

// A server whose callback is given, and one client of it.
class CallTest : public SystemTest {
protected:
    void Start(const std::string &callback, const std::string &clientCallback = "none") {
        Serve(server_, Name("s"), "callback=" + callback);
        pair_ = Connect(server_, Name("s"), client_, Name("c"), "callback=" + clientCallback);
    }

    PeerProcess server_;
    PeerProcess client_;
    Pair pair_ = {};
};

TEST_F(CallTest, OneWayRequestsArriveInOrderWithIdAndContent) {
    Start("report");
    unsigned id = 0xFFFFFFF0U;
    for (const std::size_t size : PAYLOAD_SIZES) {
        const std::string words = Fd(pair_.second) + FillWords(size, 3) + " id=" + std::to_string(static_cast<int>(id));
        ASSERT_EQ(client_.AskInt("send" + words), 0);
        EXPECT_EQ(server_.NextEvent(), "request fd=" + std::to_string(pair_.first) + " id=" + std::to_string(id) + " " +
                                           FillDigest(size, 3));
        ++id;
    }
    ASSERT_EQ(client_.AskInt("send times=100 id=0 data=x" + Fd(pair_.second)), 0);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(server_.NextEvent(),
                  "request fd=" + std::to_string(pair_.first) + " id=" + std::to_string(i) + " " + Digest("x"));
    }
}

TEST_F(CallTest, RequestsWithoutBytesOrWithTooManyAreRefused) {
    Start("echo");
    for (const std::string payload : {"fill=0", "fill=4001", "null data=x"}) {
        EXPECT_EQ(client_.AskInt("send " + payload + Fd(pair_.second)), -EINVAL) << payload;
        EXPECT_EQ(client_.AskInt("call timeout=10000 " + payload + Fd(pair_.second)), -EINVAL) << payload;
        EXPECT_EQ(client_.AskInt("respond fill=0" + Fd(pair_.second)), -EINVAL) << payload;
    }
    EXPECT_EQ(client_.Ask("call text data=fine" + Fd(pair_.second)), "0 fine");
}

TEST_F(CallTest, CallIsAnsweredFromInsideTheCallback) {
    Start("echo");
    for (const std::size_t size : PAYLOAD_SIZES) {
        const std::string right = "0 " + FillDigest(size, 5);
        EXPECT_EQ(client_.Ask("call timeout=10000 " + FillWords(size, 5) + Fd(pair_.second)), right);
        EXPECT_EQ(client_.Ask("call " + FillWords(size, 5) + Fd(pair_.second)), right) << "without a time-out";
    }
}

TEST_F(CallTest, CallIsAnsweredFromOutsideTheCallback) {
    Start("report");
    client_.Tell("call timeout=10000 text data=question" + Fd(pair_.second));
    const std::string request = server_.Await("request");
    const std::string id = IdIn(request);
    EXPECT_EQ(server_.AskInt("respond data=answer " + id + Fd(pair_.first)), 0);
    EXPECT_EQ(client_.Reply(), "0 answer");
}

TEST_F(CallTest, CallTimesOutAndItsLateAnswerIsDropped) {
    Start("report");
    EXPECT_EQ(client_.AskInt("call timeout=20 data=first" + Fd(pair_.second)), -ETIMEDOUT);
    EXPECT_EQ(client_.AskInt("call timeout=0 data=second" + Fd(pair_.second)), -ETIMEDOUT);
    const std::string first = server_.Await("request");
    const std::string late = IdIn(first);
    EXPECT_EQ(server_.AskInt("respond data=late " + late + Fd(pair_.first)), 0);

    server_.Await("request");
    client_.Tell("call timeout=10000 text data=third" + Fd(pair_.second));
    const std::string third = server_.Await("request");
    const std::string id = IdIn(third);
    EXPECT_EQ(server_.AskInt("respond data=right " + id + Fd(pair_.first)), 0);
    EXPECT_EQ(client_.Reply(), "0 right");
}

TEST_F(CallTest, NullResponseMakesACallOneWay) {
    Start("report");
    EXPECT_EQ(client_.AskInt("call noresponse timeout=10000 data=x" + Fd(pair_.second)), 0);
    EXPECT_NE(server_.Await("request").find(Digest("x")), std::string::npos);
    EXPECT_EQ(client_.AskInt("call noresponse timeout=10000 data=x fd=99"), -ENOENT);
}

TEST_F(CallTest, ResponseThatNobodyAskedForIsDropped) {
    Start("echo");
    EXPECT_EQ(server_.AskInt("respond id=77 data=unasked" + Fd(pair_.first)), 0);
    EXPECT_EQ(client_.Ask("call text data=fine" + Fd(pair_.second)), "0 fine");
}

TEST_F(CallTest, CallsOfManyThreadsEachGetTheirOwnAnswer) {
    Start("echo");
    for (unsigned i = 0; i < 40; ++i) {
        // 100 bytes each: all forty fit into the FIFO at once.
        client_.Ask("start tag=" + std::to_string(i) + " timeout=20000 " + FillWords(100, i) + Fd(pair_.second));
    }
    for (unsigned i = 0; i < 40; ++i) {
        EXPECT_EQ(client_.Await("called tag=" + std::to_string(i) + " "), "result=0 " + FillDigest(100, i));
    }
}

TEST_F(CallTest, CallsGoBothWaysOnOnePipeAtTheSameTime) {
    Start("echo", "echo");
    for (unsigned i = 0; i < 20; ++i) {
        const std::string words = "start timeout=20000 tag=" + std::to_string(i) + " " + FillWords(1000, i);
        client_.Ask(words + Fd(pair_.second));
        server_.Ask(words + Fd(pair_.first));
    }
    for (unsigned i = 0; i < 20; ++i) {
        const std::string right = "result=0 " + FillDigest(1000, i);
        EXPECT_EQ(client_.Await("called tag=" + std::to_string(i) + " "), right);
        EXPECT_EQ(server_.Await("called tag=" + std::to_string(i) + " "), right);
    }
}

TEST_F(CallTest, CallbackCallsAThirdProcess) {
    PeerProcess third;
    Serve(third, Name("third"), "callback=report");
    Start("forward");
    const Pair onward = Connect(third, Name("third"), server_, Name("s"), "");
    server_.Ask("forward timeout=10000" + Fd(onward.second));

    client_.Tell("call timeout=20000 text data=question" + Fd(pair_.second));
    const std::string request = third.Await("request");
    EXPECT_NE(request.find(Digest("question")), std::string::npos);
    const std::string id = IdIn(request);
    EXPECT_EQ(third.AskInt("respond data=answer " + id + Fd(onward.first)), 0);
    EXPECT_EQ(client_.Reply(), "0 answer");

    server_.Ask("forward timeout=20" + Fd(onward.second));
    EXPECT_EQ(client_.Ask("call timeout=20000 text data=again" + Fd(pair_.second)),
              "0 failed:" + std::to_string(-ETIMEDOUT));
    EXPECT_EQ(server_.AskInt("close" + Fd(onward.second)), 0);
}

TEST_F(CallTest, UnknownHandlesAreEnoent) {
    Start("echo");
    for (const std::string fd : {"fd=0", "fd=-5", "fd=4711"}) {
        EXPECT_EQ(client_.AskInt("send data=x " + fd), -ENOENT);
        EXPECT_EQ(client_.AskInt("respond data=x " + fd), -ENOENT);
        EXPECT_EQ(client_.AskInt("call data=x timeout=10 " + fd), -ENOENT);
        EXPECT_EQ(client_.AskInt("close " + fd), 0);
        EXPECT_EQ(client_.AskInt("clean " + fd), 0);
    }
}

} // namespace
} // namespace tarvo_test
