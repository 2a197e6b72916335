// From requests and responses to the bytes of one write.
#include "loop/FrameBatch.h"

#include <gmock/gmock-more-matchers.h>

#include <cerrno>
#include <string>

#include "FrameKit.h"
#include "diag/run_time_record.h"
#include "support/AllocFaults.h"

namespace tarvo_test {
namespace {

using testing::ElementsAre;

TarvoBytes View(const std::string &text) { return {text.data(), static_cast<uint32_t>(text.size())}; }

std::string BytesOf(FrameBatch &batch) {
    const TarvoBytes bytes = batch.Stamped();
    return {bytes.data, bytes.size};
}

TEST(FrameBatchTest, FrameIsWhatTheWireAsksFor) {
    FrameBatch batch;
    ASSERT_EQ(batch.Add(0x01020304, MSG_TYPE_REQUEST, 250, View("payload")), 0);
    const auto before = static_cast<int64_t>(Tarvo::GetCurrentTime());
    const std::string bytes = BytesOf(batch);
    const auto after = static_cast<int64_t>(Tarvo::GetCurrentTime());
    RawFrame expected = MakeRawFrame(0x01020304, 0, "payload", 250);
    expected.writeStartTime = DecodeRawHead(bytes).writeStartTime;
    EXPECT_EQ(bytes, EncodeRawFrame(expected));
    EXPECT_GE(expected.writeStartTime, before);
    EXPECT_LE(expected.writeStartTime, after);
}

TEST(FrameBatchTest, ResponseIsWhatTheWireAsksFor) {
    FrameBatch batch;
    const std::string brightest(4000, '\xff');
    ASSERT_EQ(batch.Add(0xFFFFFFFFU, MSG_TYPE_RESPONSE, -1, View(brightest)), 0);
    const std::string bytes = BytesOf(batch);
    RawFrame expected = MakeRawFrame(0xFFFFFFFFU, 1, brightest, -1);
    expected.writeStartTime = DecodeRawHead(bytes).writeStartTime;
    EXPECT_EQ(bytes, EncodeRawFrame(expected));
}

TEST(FrameBatchTest, FramesStandInTheOrderInWhichTheyWereAdded) {
    FrameBatch batch;
    ASSERT_EQ(batch.Add(1, MSG_TYPE_REQUEST, 5, View("one")), 0);
    ASSERT_EQ(batch.Add(2, MSG_TYPE_RESPONSE, -1, View("two")), 0);
    const FrameOrigin origin{"remote", 3};
    FrameReader reader(origin);
    EXPECT_THAT(ReadAll(reader, BytesOf(batch)), ElementsAre(Arrived{1, 0, "one"}, Arrived{2, 1, "two"}));
}

TEST(FrameBatchTest, EveryFrameBearsTheTimeOfTheWrite) {
    FrameBatch batch;
    ASSERT_EQ(batch.Add(1, MSG_TYPE_REQUEST, 5, View("one")), 0);
    ASSERT_EQ(batch.Add(2, MSG_TYPE_REQUEST, 5, View("another")), 0);
    BytesOf(batch);
    ASSERT_EQ(batch.Add(3, MSG_TYPE_REQUEST, 5, View("later")), 0);
    const std::string bytes = BytesOf(batch);
    const int64_t time = DecodeRawHead(bytes).writeStartTime;
    EXPECT_GT(time, 0);
    EXPECT_EQ(DecodeRawHead(bytes.substr(35)).writeStartTime, time);
    EXPECT_EQ(DecodeRawHead(bytes.substr(35 + 39)).writeStartTime, time);
    EXPECT_EQ(bytes.size(), 35U + 39U + 37U);
}

TEST(FrameBatchTest, TakesAsMuchAsOneAtomicWriteDoes) {
    FrameBatch batch;
    ASSERT_EQ(batch.Add(1, MSG_TYPE_REQUEST, 5, View(std::string(3999, 'x'))), 0);
    EXPECT_FALSE(batch.HasRoomFor(34));
    EXPECT_EQ(batch.Add(2, MSG_TYPE_REQUEST, 5, View(std::string(34, 'y'))), -EAGAIN);
    EXPECT_EQ(batch.Stamped().size, 4031U) << "a refusal leaves nothing behind";
    EXPECT_TRUE(batch.HasRoomFor(33));
    EXPECT_EQ(batch.Add(2, MSG_TYPE_REQUEST, 5, View(std::string(33, 'y'))), 0);
    EXPECT_EQ(batch.Stamped().size, 4096U);
    EXPECT_FALSE(batch.HasRoomFor(1));
    EXPECT_EQ(batch.Add(3, MSG_TYPE_REQUEST, 5, View("z")), -EAGAIN);
}

TEST(FrameBatchTest, RoomIsToldRightForSizesThatNoFrameHas) {
    FrameBatch batch;
    EXPECT_FALSE(batch.HasRoomFor(0xFFFFFFFFU));
    EXPECT_FALSE(batch.HasRoomFor(0xFFFFFFF0U));
}

TEST(FrameBatchTest, ClearedBatchIsEmptyAndUsableAgain) {
    FrameBatch batch;
    EXPECT_TRUE(batch.Empty());
    ASSERT_EQ(batch.Add(1, MSG_TYPE_REQUEST, 5, View(std::string(4000, 'x'))), 0);
    EXPECT_FALSE(batch.Empty());
    batch.Clear();
    EXPECT_TRUE(batch.Empty());
    EXPECT_EQ(batch.Stamped().size, 0U);
    ASSERT_EQ(batch.Add(2, MSG_TYPE_REQUEST, 5, View("again")), 0);
    EXPECT_EQ(DecodeRawHead(BytesOf(batch)).id, 2U);
}

TEST(FrameBatchTest, SizesThatNoFrameHasAreRefused) {
    FrameBatch batch;
    const std::string tooLong(4001, 'x');
    EXPECT_EQ(batch.Add(1, MSG_TYPE_REQUEST, 5, View(tooLong)), -EINVAL);
    EXPECT_EQ(batch.Add(1, MSG_TYPE_REQUEST, 5, {tooLong.data(), 0}), -EINVAL);
    EXPECT_EQ(batch.Add(1, MSG_TYPE_REQUEST, 5, {tooLong.data(), 0xFFFFFFFFU}), -EINVAL);
    EXPECT_EQ(batch.Add(1, MSG_TYPE_REQUEST, 5, {nullptr, 4}), -EINVAL);
    EXPECT_TRUE(batch.Empty());
}

TEST(FrameBatchTest, FramesTakeNoMemory) {
    const std::size_t before = ThreadAllocations();
    FrameBatch batch;
    const int added = batch.Add(1, MSG_TYPE_REQUEST, 5, {"text", 4});
    const uint32_t size = batch.Stamped().size;
    EXPECT_EQ(ThreadAllocations(), before);
    EXPECT_EQ(added, 0);
    EXPECT_EQ(size, 36U);
}

} // namespace
} // namespace tarvo_test
