// Giving the memory of a read away before all of its frames were taken.
#include <gmock/gmock-more-matchers.h>

#include <memory>

#include "FrameKit.h"
#include "loop/FrameReader.h"
#include "support/AllocFaults.h"

namespace tarvo_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FrameReaderStashTest : public testing::Test {
protected:
    // Feeds a copy that Forget() takes away.
    void Feed(const std::string &bytes) {
        fed.reset(new char[bytes.size()]);
        bytes.copy(fed.get(), bytes.size());
        size = bytes.size();
        reader.Feed(fed.get(), size);
    }
    void Forget() {
        std::fill_n(fed.get(), size, '!');
        fed.reset();
    }

    const FrameOrigin origin{"camera", 17};
    FrameReader reader{origin};
    std::unique_ptr<char[]> fed;
    std::size_t size = 0;
};

TEST_F(FrameReaderStashTest, WhatIsUnreadOutlivesTheMemoryOfItsRead) {
    Feed(RawRequest(1, "a") + RawRequest(2, "b") + RawRequest(3, "cut").substr(0, 34));
    Frame frame{};
    ASSERT_TRUE(reader.Next(frame));
    ASSERT_TRUE(reader.Stash());
    Forget();
    EXPECT_TRUE(reader.HasUnread());
    EXPECT_THAT(Drain(reader), ElementsAre(Arrived{2, 0, "b"}));
    EXPECT_THAT(ReadAll(reader, "t" + RawRequest(4, "d")), ElementsAre(Arrived{3, 0, "cut"}, Arrived{4, 0, "d"}));
}

TEST_F(FrameReaderStashTest, FrameThatWasLookedForOutlivesItToo) {
    Feed(RawRequest(1, "a") + RawRequest(2, "b"));
    ASSERT_TRUE(reader.HasNext());
    ASSERT_TRUE(reader.Stash());
    Forget();
    EXPECT_THAT(Drain(reader), ElementsAre(Arrived{1, 0, "a"}, Arrived{2, 0, "b"}));
}

TEST_F(FrameReaderStashTest, FrameOfTwoReadsThatWasLookedForOutlivesItToo) {
    const std::string first = RawRequest(1, "in two pieces");
    ASSERT_THAT(ReadAll(reader, first.substr(0, 35)), IsEmpty());
    Feed(first.substr(35) + RawRequest(2, "b"));
    ASSERT_TRUE(reader.HasNext());
    ASSERT_TRUE(reader.Stash());
    Forget();
    EXPECT_THAT(Drain(reader), ElementsAre(Arrived{1, 0, "in two pieces"}, Arrived{2, 0, "b"}));
}

TEST_F(FrameReaderStashTest, LastFrameThatWasLookedForOutlivesItToo) {
    Feed(RawRequest(1, "only"));
    ASSERT_TRUE(reader.HasNext());
    ASSERT_TRUE(reader.Stash());
    Forget();
    EXPECT_THAT(Drain(reader), ElementsAre(Arrived{1, 0, "only"}));
    EXPECT_FALSE(reader.HasUnread());
}

TEST_F(FrameReaderStashTest, StashingAgainKeepsTheSameBytes) {
    Feed(RawRequest(1, "a") + RawRequest(2, "b") + RawRequest(3, "c"));
    ASSERT_TRUE(reader.Stash());
    Forget();
    Frame frame{};
    ASSERT_TRUE(reader.Next(frame));
    ASSERT_TRUE(reader.Stash());
    EXPECT_EQ(Copy(frame), (Arrived{1, 0, "a"}));
    ASSERT_TRUE(reader.HasNext());
    ASSERT_TRUE(reader.Stash());
    EXPECT_THAT(Drain(reader), ElementsAre(Arrived{2, 0, "b"}, Arrived{3, 0, "c"}));
}

TEST_F(FrameReaderStashTest, NothingUnreadTakesNoMemory) {
    Feed(RawRequest(1, "a"));
    Drain(reader);
    const std::size_t before = ThreadAllocations();
    EXPECT_TRUE(reader.Stash());
    EXPECT_EQ(ThreadAllocations(), before);
}

TEST_F(FrameReaderStashTest, WithoutMemoryNothingChanges) {
    Feed(RawRequest(1, Pattern(100)) + RawRequest(2, "b"));
    ASSERT_TRUE(reader.HasNext());
    {
        const AllocFault fault(1);
        EXPECT_FALSE(reader.Stash());
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_THAT(Drain(reader), ElementsAre(Arrived{1, 0, Pattern(100)}, Arrived{2, 0, "b"}));
}

} // namespace
} // namespace tarvo_test
