// The frame in memory: sizes, checksum, and who owns the payload.
#include "pipe/Message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "pipe/MagicReceiver.h"
#include "support/RawFrame.h"

namespace tarvo_test {
namespace {

constexpr uint32_t MAGIC = 0xA6B7C8D9U;

TarvoRequest Request(uint32_t id, std::string &payload) {
    return {id, payload.data(), static_cast<uint32_t>(payload.size())};
}

uint32_t PlainSum(const char *data, std::size_t length) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i < length; ++i) {
        sum += static_cast<unsigned char>(data[i]);
    }
    return sum;
}

TEST(MessageTest, ConstantsAreThoseOfTheWire) {
    EXPECT_EQ(MagicReceiver::MAGIC, MAGIC);
    EXPECT_EQ(Message::MAX_PAYLOAD_LEN, 4000U);
    EXPECT_EQ(sizeof(MsgHead), 32U);
    const unsigned char onTheWire[4] = {0xD9, 0xC8, 0xB7, 0xA6};
    EXPECT_EQ(std::memcmp(MagicReceiver::MAGIC_ENUM, onTheWire, sizeof(onTheWire)), 0);
}

TEST(MessageTest, FieldsAreTakenOverAndTheChecksumStartsAtZero) {
    const InMessage msg(7, MSG_TYPE_RESPONSE, 12);
    EXPECT_EQ(msg.id, 7U);
    EXPECT_EQ(msg.type, 1U);
    EXPECT_EQ(msg.payloadLen, 12U);
    EXPECT_EQ(msg.checksum, 0U);
    EXPECT_EQ(msg.OverheadSize(), 32U);
    EXPECT_EQ(msg.Size(), 44U);
}

TEST(MessageTest, OneToFourThousandBytesAreValid) {
    for (const uint32_t valid : {1U, 2U, 3999U, 4000U}) {
        EXPECT_TRUE(InMessage(1, MSG_TYPE_REQUEST, valid).SizeValid()) << valid;
    }
    for (const uint32_t invalid : {0U, 4001U, 4064U, 4096U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_FALSE(InMessage(1, MSG_TYPE_REQUEST, invalid).SizeValid()) << invalid;
    }
    EXPECT_EQ(InMessage(1, MSG_TYPE_REQUEST, 4000).Size(), 4032U);
    EXPECT_EQ(InMessage(1, MSG_TYPE_REQUEST, 0xFFFFFFFFU).Size(), 0xFFFFFFFFULL + 32U);
}

TEST(MessageTest, ChecksumOfTheDocumentedExampleIsTheDocumentedOne) {
    std::string payload = "\xff";
    OutMessage msg(1, Request(1, payload), 5);
    EXPECT_EQ(msg.Checksum(), 0xA6B7C9DAU);
    EXPECT_EQ(msg.checksum, 0xA6B7C9DAU);
}

TEST(MessageTest, ChecksumCountsBytesWithoutSign) {
    for (unsigned value = 0; value <= 0xFF; ++value) {
        std::string payload(1, static_cast<char>(value));
        OutMessage msg(0, Request(0, payload), -1);
        EXPECT_EQ(msg.Checksum(), 1U + value + MAGIC) << value;
    }
    std::string brightest(4000, '\xff');
    OutMessage msg(0, Request(0, brightest), -1);
    EXPECT_EQ(msg.Checksum(), 4000U + 4000U * 255U + MAGIC);
}

TEST(MessageTest, ChecksumCoversIdTypeAndLengthAndWrapsAround) {
    std::string payload = "abc";
    TarvoResponse response{0xFFFFFFFFU, payload.data(), 3};
    OutMessage msg(0xFFFFFFFFU, response);
    const uint32_t expected = 0xFFFFFFFFU + 1U + 3U + 'a' + 'b' + 'c' + MAGIC;
    EXPECT_EQ(msg.Checksum(), expected);
}

TEST(MessageTest, ChecksumDoesNotCoverTheTimeout) {
    std::string payload = "same";
    OutMessage one(3, Request(3, payload), 1);
    OutMessage other(3, Request(3, payload), 100000);
    EXPECT_EQ(one.Checksum(), other.Checksum());
}

TEST(MessageTest, ChecksumWithoutPayloadCoversTheRest) {
    TarvoRequest request{5, nullptr, 10};
    OutMessage missing(5, request, 0);
    EXPECT_EQ(missing.Checksum(), 5U + 0U + 10U + MAGIC);
    std::string payload = "not counted";
    TarvoRequest empty{5, payload.data(), 0};
    OutMessage none(5, empty, 0);
    EXPECT_EQ(none.Checksum(), 5U + MAGIC);
}

TEST(MessageTest, ChecksumOfEveryLengthAndAlignmentEqualsThePlainLoop) {
    std::mt19937 random(4000);
    std::vector<char> bytes(4000 + 8);
    for (char &byte : bytes) {
        byte = static_cast<char>(random());
    }
    for (uint32_t offset = 0; offset < 8; ++offset) {
        char *const start = bytes.data() + offset;
        for (uint32_t length = 1; length <= 4000; ++length) {
            TarvoRequest request{length, start, length};
            OutMessage msg(length, request, 0);
            ASSERT_EQ(msg.Checksum(), length + 0U + length + PlainSum(start, length) + MAGIC)
                << "length " << length << ", offset " << offset;
        }
    }
}

TEST(MessageTest, ChecksumOfTheBrightestBytesIsRightAtEveryLength) {
    // The largest sums are those that an addition in narrow lanes would lose.
    std::vector<char> bytes(4000, '\xff');
    for (uint32_t length = 1; length <= 4000; ++length) {
        TarvoRequest request{0, bytes.data(), length};
        OutMessage msg(0, request, 0);
        ASSERT_EQ(msg.Checksum(), length + 255U * length + MAGIC) << length;
    }
}

TEST(MessageTest, RequestAndResponseBecomeMessages) {
    std::string payload = "payload";
    const TarvoRequest request{3, payload.data(), 7};
    const OutMessage out(9, request, 250);
    EXPECT_EQ(out.id, 9U);
    EXPECT_EQ(out.type, 0U);
    EXPECT_EQ(out.payloadLen, 7U);
    EXPECT_EQ(out.timeout, 250);
    EXPECT_EQ(out.dataOut, payload.data());
    EXPECT_EQ(out.GetData(), payload.data());
    const TarvoResponse response{4, payload.data(), 3};
    const OutMessage answer(10, response);
    EXPECT_EQ(answer.id, 10U);
    EXPECT_EQ(answer.type, 1U);
    EXPECT_EQ(answer.payloadLen, 3U);
    EXPECT_EQ(answer.timeout, -1);
    EXPECT_EQ(answer.GetData(), payload.data());
}

TEST(MessageTest, PayloadIsAllocatedOnceAndCleared) {
    InMessage msg(1, MSG_TYPE_REQUEST, 4000);
    const InMessage &view = msg;
    EXPECT_EQ(view.GetData(), nullptr);
    char *const data = msg.GetData();
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(data, 4000), std::string(4000, '\0'));
    data[0] = 'x';
    EXPECT_EQ(msg.GetData(), data);
    EXPECT_EQ(view.GetData(), data);
    EXPECT_EQ(data[0], 'x');
}

TEST(MessageTest, InvalidLengthGetsNoPayload) {
    for (const uint32_t invalid : {0U, 4001U, 0xFFFFFFFFU}) {
        InMessage msg(1, MSG_TYPE_REQUEST, invalid);
        EXPECT_EQ(msg.GetData(), nullptr) << invalid;
    }
}

TEST(MessageTest, LengthThatBecameInvalidKeepsItsPayload) {
    InMessage msg(1, MSG_TYPE_REQUEST, 8);
    char *const data = msg.GetData();
    msg.payloadLen = 0;
    EXPECT_EQ(msg.GetData(), data);
}

TEST(MessageTest, ReleasedPayloadBelongsToTheCaller) {
    InMessage msg(1, MSG_TYPE_REQUEST, 8);
    char *const data = msg.GetData();
    const std::unique_ptr<char[]> mine(msg.ReleaseData());
    EXPECT_EQ(mine.get(), data);
    const InMessage &view = msg;
    EXPECT_EQ(view.GetData(), nullptr);
    EXPECT_EQ(msg.ReleaseData(), nullptr);
}

TEST(MessageTest, InRequestTakesThePayloadOver) {
    InMessage msg(21, MSG_TYPE_REQUEST, 5);
    char *const data = msg.GetData();
    std::memcpy(data, "hello", 5);
    const InRequest request(msg);
    EXPECT_EQ(request.id, 21U);
    EXPECT_EQ(request.length, 5U);
    EXPECT_EQ(request.data.get(), data);
    const InMessage &view = msg;
    EXPECT_EQ(view.GetData(), nullptr);
}

TEST(MessageTest, ReceivedMessageChecksLikeTheSentOne) {
    std::string payload = "both sides alike";
    OutMessage sent(77, Request(77, payload), 0);
    InMessage received(77, MSG_TYPE_REQUEST, static_cast<uint32_t>(payload.size()));
    std::memcpy(received.GetData(), payload.data(), payload.size());
    EXPECT_EQ(received.Checksum(), sent.Checksum());
    EXPECT_EQ(received.Checksum(), RawChecksum(77, 0, payload));
}

} // namespace
} // namespace tarvo_test
