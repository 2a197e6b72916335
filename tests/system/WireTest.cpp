// The library against a peer that shares no code with it.
#include <gtest/gtest.h>

#include <string>

#include "support/RawPeer.h"
#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

class WireTest : public SystemTest {
protected:
    void SetUp() override {
        SystemTest::SetUp();
        raw_.reset(new RawPeer(Name("raw"), Name("p")));
        fd_ = peer_.AskInt("open mode=1 timeout=10000 callback=echo self=" + Name("p") + " target=" + Name("raw"));
        ASSERT_GT(fd_, 0);
        raw_->OpenBoth();
    }

    std::string Fd() const { return " fd=" + std::to_string(fd_) + " "; }

    std::unique_ptr<RawPeer> raw_;
    PeerProcess peer_;
    int fd_ = -1;
};

TEST_F(WireTest, OneWayRequestKeepsItsIdAndNamesNoTimeOut) {
    EXPECT_EQ(peer_.AskInt("send id=305419896 " + FillWords(4000, 2) + Fd()), 0);
    const RawFrame frame = raw_->Receive();
    EXPECT_EQ(frame.id, 0x12345678U);
    EXPECT_EQ(frame.type, 0U);
    EXPECT_EQ(frame.timeout, -1);
    EXPECT_EQ(frame.payload, Fill(4000, 2));
    EXPECT_GT(frame.writeStartTime, 0);
}

TEST_F(WireTest, CallCarriesItsTimeOutAndTakesTheAnswerOfItsId) {
    peer_.Tell("call text timeout=12345 data=question" + Fd());
    const RawFrame frame = raw_->Receive();
    EXPECT_EQ(frame.timeout, 12345);
    EXPECT_EQ(frame.payload, "question");
    raw_->Send(RawResponse(frame.id + 1, "wrong"));
    raw_->Send(RawResponse(frame.id, "right"));
    EXPECT_EQ(peer_.Reply(), "0 right");
}

TEST_F(WireTest, EachCallHasAnIdOfItsOwn) {
    peer_.Ask("start tag=1 text timeout=20000 data=one" + Fd());
    const RawFrame one = raw_->Receive();
    peer_.Ask("start tag=2 text timeout=20000 data=two" + Fd());
    const RawFrame two = raw_->Receive();
    EXPECT_NE(one.id, two.id);
    raw_->Send(RawResponse(two.id, "second"));
    raw_->Send(RawResponse(one.id, "first"));
    EXPECT_EQ(peer_.Await("called tag=2"), "result=0 second");
    EXPECT_EQ(peer_.Await("called tag=1"), "result=0 first");
}

TEST_F(WireTest, ResponseEchoesIdAndNamesNoTimeOut) {
    raw_->Send(RawRequest(0xFFFFFFFFU, Fill(4000, 4), 777));
    const RawFrame frame = raw_->Receive();
    EXPECT_EQ(frame.id, 0xFFFFFFFFU);
    EXPECT_EQ(frame.type, 1U);
    EXPECT_EQ(frame.timeout, -1);
    EXPECT_EQ(frame.payload, Fill(4000, 4));
}

TEST_F(WireTest, SpoiledMessagesAreDroppedAndTheNextGoodOneIsServed) {
    RawFrame wrongSum = MakeRawFrame(1, 0, "wrong sum");
    wrongSum.checksum += 1;
    raw_->Send(EncodeRawFrame(wrongSum));
    RawFrame wrongType = MakeRawFrame(2, 2, "unknown type");
    raw_->Send(EncodeRawFrame(wrongType));
    RawFrame wrongMagic = MakeRawFrame(3, 0, "");
    wrongMagic.magic ^= 0x100U;
    raw_->Send(EncodeRawFrame(wrongMagic));
    RawFrame tooLong = MakeRawFrame(4, 0, "");
    tooLong.length = 4001;
    raw_->Send(EncodeRawFrame(tooLong));
    raw_->Send(RawRequest(5, "good"));
    const RawFrame answer = raw_->Receive();
    EXPECT_EQ(answer.id, 5U);
    EXPECT_EQ(answer.payload, "good");
    EXPECT_EQ(peer_.AskInt("echoed"), 1);
    EXPECT_FALSE(raw_->HasInput());
}

} // namespace
} // namespace tarvo_test
