// From the bytes of a FIFO to frames: which are delivered, which are dropped, and what the log says then.
#include "loop/FrameReader.h"

#include <gmock/gmock-more-matchers.h>

#include <memory>

#include "FrameKit.h"
#include "support/AllocFaults.h"
#include "support/SyslogCapture.h"

namespace tarvo_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FrameReaderTest : public testing::Test {
protected:
    // Into memory of exactly that size: a look behind its end is found.
    std::vector<Arrived> Read(const std::string &bytes) {
        const std::unique_ptr<char[]> copy(new char[bytes.size()]);
        bytes.copy(copy.get(), bytes.size());
        reader.Feed(copy.get(), bytes.size());
        return Drain(reader);
    }

    SyslogCapture log;
    const FrameOrigin origin{"camera", 17};
    FrameReader reader{origin};
};

TEST_F(FrameReaderTest, EveryFrameOfAReadIsDeliveredInOrder) {
    EXPECT_THAT(Read(RawRequest(1, "one") + RawResponse(2, "two") + RawRequest(1, "three")),
                ElementsAre(Arrived{1, 0, "one"}, Arrived{2, 1, "two"}, Arrived{1, 0, "three"}));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(FrameReaderTest, FrameBringsTimeoutAndTimeOfItsWriting) {
    RawFrame sent = MakeRawFrame(5, 0, "x", 250);
    sent.writeStartTime = 0x123456789ABCDEF;
    const std::string bytes = EncodeRawFrame(sent);
    reader.Feed(bytes.data(), bytes.size());
    Frame frame{};
    ASSERT_TRUE(reader.Next(frame));
    EXPECT_EQ(frame.timeout, 250);
    EXPECT_EQ(frame.writeStartTime, 0x123456789ABCDEF);
    EXPECT_EQ(frame.data, bytes.data() + RAW_HEAD_SIZE) << "a view, not a copy";
}

TEST_F(FrameReaderTest, SmallestAndLargestFramesAreDelivered) {
    EXPECT_THAT(Read(RawRequest(1, "x") + RawRequest(2, Pattern(4000))),
                ElementsAre(Arrived{1, 0, "x"}, Arrived{2, 0, Pattern(4000)}));
}

TEST_F(FrameReaderTest, FrameCutAnywhereIsDeliveredOnceItIsWhole) {
    const std::string bytes = RawRequest(7, "the payload") + RawResponse(8, "next");
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        std::vector<Arrived> arrived = Read(bytes.substr(0, cut));
        for (Arrived &frame : Read(bytes.substr(cut))) {
            arrived.push_back(std::move(frame));
        }
        EXPECT_THAT(arrived, ElementsAre(Arrived{7, 0, "the payload"}, Arrived{8, 1, "next"})) << cut;
    }
}

TEST_F(FrameReaderTest, LargestFrameThatComesByteByByteIsDelivered) {
    const std::string bytes = RawRequest(7, Pattern(4000)) + RawRequest(9, "after");
    std::vector<Arrived> arrived;
    for (const char byte : bytes) {
        for (Arrived &frame : Read(std::string(1, byte))) {
            arrived.push_back(std::move(frame));
        }
    }
    EXPECT_THAT(arrived, ElementsAre(Arrived{7, 0, Pattern(4000)}, Arrived{9, 0, "after"}));
}

TEST_F(FrameReaderTest, RestOfAFrameThatLooksLikeAFrameIsNotTakenForOne) {
    const std::string inner = RawRequest(8, "inner");
    const std::string outer = RawRequest(7, "around " + inner);
    reader.Feed(inner.data(), inner.size());
    EXPECT_TRUE(reader.IsOneFrame());
    Drain(reader);
    EXPECT_THAT(Read(outer.substr(0, outer.size() - inner.size())), IsEmpty());
    reader.Feed(inner.data(), inner.size());
    EXPECT_FALSE(reader.IsOneFrame());
    EXPECT_THAT(Drain(reader), ElementsAre(Arrived{7, 0, "around " + inner}));
}

TEST_F(FrameReaderTest, WrongMagicDropsItsHeadOnly) {
    EXPECT_THAT(Read(std::string(RAW_HEAD_SIZE, 'z') + RawRequest(2, "good")), ElementsAre(Arrived{2, 0, "good"}));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "RecvMagic, result != MAGIC_OK, remote(camera), result=2054847098."));
    EXPECT_EQ(log.Lines().front().file, "FrameReader");
    EXPECT_EQ(log.Lines().size(), 1U);
}

TEST_F(FrameReaderTest, InvalidLengthDropsItsHeadOnly) {
    for (const uint32_t length : {0U, 4001U, 0xFFFFFFFFU}) {
        log.Clear();
        RawFrame bad = MakeRawFrame(3, 0, "", 9);
        bad.length = length;
        bad.writeStartTime = 11;
        EXPECT_THAT(Read(EncodeRawFrame(bad) + RawRequest(2, "good")), ElementsAre(Arrived{2, 0, "good"})) << length;
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Input addrress is nullptr"));
        EXPECT_TRUE(log.ContainsExactly(
            LOG_ERR, "Recv msg failed, remote(camera), received payloadLen should be " + std::to_string(length) +
                         ", received timeout = 9 ms, received writeStartTime = 11, ret = -1"));
    }
}

TEST_F(FrameReaderTest, WrongChecksumDropsHeadAndPayload) {
    RawFrame bad = MakeRawFrame(3, 0, RawRequest(4, "not a frame of its own"));
    const uint32_t right = bad.checksum++;
    EXPECT_THAT(Read(EncodeRawFrame(bad) + RawRequest(2, "good")), ElementsAre(Arrived{2, 0, "good"}));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Recv msg failed, send checksum = " + std::to_string(right + 1) +
                                                 ", but recv checksum = " + std::to_string(right) +
                                                 " for readFd(17) remote(camera)"));
    EXPECT_EQ(log.Lines().size(), 1U);
}

TEST_F(FrameReaderTest, UnknownTypeIsDroppedAfterTheCheck) {
    RawFrame wrong = MakeRawFrame(3, 2, "unknown and wrong");
    ++wrong.checksum;
    EXPECT_THAT(Read(EncodeRawFrame(MakeRawFrame(3, 2, "unknown")) + EncodeRawFrame(MakeRawFrame(3, 0xFFFFFFFFU, "u")) +
                     RawRequest(2, "good")),
                ElementsAre(Arrived{2, 0, "good"}));
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_THAT(Read(EncodeRawFrame(wrong)), IsEmpty());
    EXPECT_TRUE(log.Contains(LOG_ERR, "Recv msg failed, send checksum"));
}

TEST_F(FrameReaderTest, BadBytesThatAreCutAnywhereAreDroppedAlike) {
    RawFrame tooLong = MakeRawFrame(3, 0, "");
    tooLong.length = 4001;
    RawFrame wrong = MakeRawFrame(4, 1, "wrong");
    ++wrong.checksum;
    const std::string bytes = std::string(RAW_HEAD_SIZE, 'z') + EncodeRawFrame(tooLong) + RawRequest(1, "first") +
                              EncodeRawFrame(wrong) + RawRequest(2, "second");
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        log.Clear();
        std::vector<Arrived> arrived = Read(bytes.substr(0, cut));
        for (Arrived &frame : Read(bytes.substr(cut))) {
            arrived.push_back(std::move(frame));
        }
        EXPECT_THAT(arrived, ElementsAre(Arrived{1, 0, "first"}, Arrived{2, 0, "second"})) << cut;
        EXPECT_EQ(log.Lines().size(), 4U) << cut << ": each fault is told once";
    }
}

TEST_F(FrameReaderTest, ReadingCanStopAfterAnyFrame) {
    const std::string bytes = RawRequest(1, "a") + RawRequest(2, "b") + RawRequest(3, "c");
    reader.Feed(bytes.data(), bytes.size());
    for (uint32_t id = 1; id <= 3; ++id) {
        EXPECT_TRUE(reader.HasUnread());
        EXPECT_TRUE(reader.HasNext());
        EXPECT_TRUE(reader.HasNext()) << "looking takes nothing";
        Frame frame{};
        ASSERT_TRUE(reader.Next(frame));
        EXPECT_EQ(frame.id, id);
    }
    Frame frame{};
    EXPECT_FALSE(reader.HasNext());
    EXPECT_FALSE(reader.Next(frame));
    EXPECT_FALSE(reader.HasUnread());
}

TEST_F(FrameReaderTest, NothingIsNextWhereOnlyBadBytesAndTheBeginningOfAFrameAreLeft) {
    const std::string bytes = RawRequest(1, "a") + std::string(RAW_HEAD_SIZE, 'z') + RawRequest(2, "b").substr(0, 32);
    reader.Feed(bytes.data(), bytes.size());
    Frame frame{};
    ASSERT_TRUE(reader.Next(frame));
    EXPECT_TRUE(reader.HasUnread());
    EXPECT_FALSE(reader.HasNext());
    EXPECT_THAT(Read("b"), ElementsAre(Arrived{2, 0, "b"}));
}

TEST_F(FrameReaderTest, StreamThatEndsInAFrameSaysSo) {
    EXPECT_THAT(Read(RawRequest(1, "whole")), ElementsAre(Arrived{1, 0, "whole"}));
    reader.End();
    EXPECT_THAT(log.Lines(), IsEmpty());
    Read(RawRequest(1, "cut in the payload").substr(0, 40));
    reader.End();
    EXPECT_TRUE(
        log.ContainsExactly(LOG_ERR, "The readFd(17) read size 8 instead of 18, errno = 0, remoteName: camera"));
    Read(RawRequest(1, "cut in the head").substr(0, 31));
    reader.End();
    EXPECT_TRUE(
        log.ContainsExactly(LOG_ERR, "The readFd(17) read size 31 instead of 32, errno = 0, remoteName: camera"));
    EXPECT_THAT(Read(RawRequest(2, "a new stream")), ElementsAre(Arrived{2, 0, "a new stream"}));
}

TEST_F(FrameReaderTest, FramesTakeNoMemory) {
    const std::string bytes = RawRequest(1, Pattern(4000)) + RawResponse(2, "b") + RawRequest(3, Pattern(100));
    const std::size_t before = ThreadAllocations();
    std::size_t count = 0;
    for (std::size_t at = 0; at < bytes.size(); at += 999) {
        reader.Feed(bytes.data() + at, std::min<std::size_t>(999, bytes.size() - at));
        for (Frame frame{}; reader.Next(frame);) {
            ++count;
        }
    }
    EXPECT_EQ(ThreadAllocations(), before);
    EXPECT_EQ(count, 3U);
}

} // namespace
} // namespace tarvo_test
