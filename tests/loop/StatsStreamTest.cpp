// Streams of good and bad frames, cut anywhere and dispatched in shares of any size: every frame is counted once.
#include <random>

#include "loop/StatsFixture.h"

namespace tarvo_test {
namespace {

// Frames one behind the other, and what a reader must make of them.
class Stream {
public:
    explicit Stream(uint32_t seed, bool withBad) : random(seed) {
        const uint32_t count = 1 + Random(300);
        for (uint32_t i = 0; i < count; ++i) {
            withBad &&Random(4) == 0 ? AddBad() : AddGood();
        }
    }
    uint32_t Random(uint32_t below) { return std::uniform_int_distribution<uint32_t>(0, below - 1)(random); }

    std::string bytes;
    std::vector<std::size_t> ends; // of the frames
    uint64_t messages[TARVO_STATS_KINDS] = {};
    uint64_t payload[TARVO_STATS_KINDS] = {};
    uint64_t bad[TARVO_STATS_BAD_REASONS] = {};

private:
    void Add(const std::string &frame) {
        bytes += frame;
        ends.push_back(bytes.size());
    }
    void AddGood() {
        const std::string text(1 + Random(Random(10) == 0 ? 4000 : 60), 'x');
        const uint32_t kind = Random(TARVO_STATS_KINDS);
        ++messages[kind];
        payload[kind] += text.size();
        Add(kind == TARVO_STATS_RESPONSE ? RawResponse(99, text)
                                         : RawRequest(1, text, kind == TARVO_STATS_CALL ? 500 : -1));
    }
    void AddBad() {
        RawFrame frame = MakeRawFrame(1, 0, "payload");
        const uint32_t why = Random(TARVO_STATS_BAD_SHORT);
        if (why == TARVO_STATS_BAD_MAGIC || why == TARVO_STATS_BAD_LENGTH) {
            why == TARVO_STATS_BAD_MAGIC ? frame.magic ^= 0x100 : frame.length = 0;
            frame.payload.clear();
        } else if (why == TARVO_STATS_BAD_CHECKSUM) {
            ++frame.checksum;
        } else {
            frame = MakeRawFrame(1, 7, "payload");
        }
        ++bad[why];
        Add(EncodeRawFrame(frame));
    }

    std::mt19937 random;
};

class StatsStreamTest : public LinkStatsTest, public testing::WithParamInterface<uint32_t> {
protected:
    // Writes all, in pieces, and dispatches a few callbacks after each; as long as `more` says.
    template <typename More>
    std::size_t Feed(Stream &stream, More more) {
        std::size_t written = 0;
        while (written < stream.bytes.size() && more()) {
            const std::size_t size = 1 + stream.Random(stream.Random(2) == 0 ? 9000 : 50);
            written += peer.SendSome(stream.bytes.substr(written, size));
            if (stream.Random(3) == 0) {
                TarvoLoopDispatch(loop.Get(), static_cast<int>(1 + stream.Random(20)));
            }
        }
        return written;
    }
};
INSTANTIATE_TEST_SUITE_P(Seeds, StatsStreamTest, testing::Range(0U, 20U));

TEST_P(StatsStreamTest, EveryFrameIsCountedOnceHoweverItComes) {
    Stream stream(GetParam(), true);
    Feed(stream, [] { return true; });
    loop.RunWhileReadable();
    const TarvoStatsPipe numbers = OnFile();
    for (std::size_t kind = 0; kind < TARVO_STATS_KINDS; ++kind) {
        EXPECT_EQ(numbers.received.messages[kind], stream.messages[kind]) << kind;
        EXPECT_EQ(numbers.received.bytes[kind], stream.payload[kind]) << kind;
    }
    for (std::size_t why = 0; why < TARVO_STATS_BAD_REASONS; ++why) {
        EXPECT_EQ(numbers.received.bad[why], stream.bad[why]) << why;
    }
    EXPECT_EQ(numbers.received.late, stream.messages[TARVO_STATS_RESPONSE]);
    EXPECT_EQ(numbers.requests.begun, Requests(stream.messages));
    EXPECT_EQ(numbers.requests.finished, Requests(stream.messages));
    EXPECT_EQ(Times(numbers.callback), Times(numbers.wait));
}

TEST_P(StatsStreamTest, WhatTheCloseFindsIsDroppedOrUnread) {
    Stream stream(1000 + GetParam(), false);
    std::size_t left = 1 + stream.Random(40);
    const std::size_t written = Feed(stream, [&] { return --left > 0; });
    ASSERT_EQ(link.Close(), 0);
    const TarvoStatsPipe numbers = OnFile();
    const auto whole = static_cast<uint64_t>(
        std::upper_bound(stream.ends.begin(), stream.ends.end(), written - numbers.received.unread) -
        stream.ends.begin());
    EXPECT_EQ(Messages(numbers.received.messages), whole) << "of what was read";
    EXPECT_EQ(Requests(numbers.received.messages), numbers.requests.begun + Dropped(numbers));
    EXPECT_EQ(numbers.requests.begun, link.Count("request"));
    EXPECT_EQ(numbers.received.messages[TARVO_STATS_RESPONSE], numbers.received.late);
}

} // namespace
} // namespace tarvo_test
