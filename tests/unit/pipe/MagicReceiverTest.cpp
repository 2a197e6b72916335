// The byte-wise check of the magic number.
#include "pipe/MagicReceiver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "support/SyslogCapture.h"

namespace tarvo_test {
namespace {

// Hands out planned results of reads, each of one byte.
class PlannedReceiver : public MagicReceiver {
public:
    struct Read {
        int result;
        uint8_t byte = 0;
    };

    explicit PlannedReceiver(std::vector<Read> plan) : reads(std::move(plan)) {}

    int Recv(void *buf, unsigned long len) override {
        EXPECT_EQ(len, 1U);
        if (used == reads.size()) {
            ADD_FAILURE() << "read too much";
            return -1;
        }
        const Read &read = reads[used++];
        if (read.result > 0) {
            *static_cast<uint8_t *>(buf) = read.byte;
        }
        return read.result;
    }

    std::size_t Used() const { return used; }

private:
    std::vector<Read> reads;
    std::size_t used = 0;
};

constexpr uint8_t WIRE[4] = {0xD9, 0xC8, 0xB7, 0xA6};

std::vector<PlannedReceiver::Read> MagicUpTo(std::size_t count) {
    std::vector<PlannedReceiver::Read> plan;
    for (std::size_t i = 0; i < count; ++i) {
        plan.push_back({1, WIRE[i]});
    }
    return plan;
}

TEST(MagicReceiverTest, FourMatchingBytesAreTheMagic) {
    const SyslogCapture log;
    PlannedReceiver receiver(MagicUpTo(4));
    EXPECT_EQ(receiver.RecvMagic(), 0U);
    EXPECT_EQ(receiver.Used(), 4U);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(MagicReceiverTest, ForeignByteEndsTheCheckAtItsPlace) {
    for (std::size_t at = 0; at < 4; ++at) {
        const SyslogCapture log;
        auto plan = MagicUpTo(at);
        plan.push_back({1, 0});
        plan.push_back({1, WIRE[3]});
        PlannedReceiver receiver(plan);
        EXPECT_EQ(receiver.RecvMagic(), 1U);
        EXPECT_EQ(receiver.Used(), at + 1);
        EXPECT_TRUE(log.ContainsExactly(
            LOG_ERR, "Receive magic error, received: 0, expected: " + std::to_string(WIRE[at]) + ", ret=1."));
        EXPECT_EQ(log.Lines().size(), 1U);
    }
}

TEST(MagicReceiverTest, RepeatedFirstByteIsNotTheStartOfAnotherTry) {
    PlannedReceiver receiver({{1, 0xD9}, {1, 0xD9}, {1, 0xC8}, {1, 0xB7}, {1, 0xA6}});
    EXPECT_EQ(receiver.RecvMagic(), 1U);
    EXPECT_EQ(receiver.Used(), 2U);
}

TEST(MagicReceiverTest, FailedReadIsTold) {
    for (std::size_t at = 0; at < 4; ++at) {
        const SyslogCapture log;
        auto plan = MagicUpTo(at);
        plan.push_back({-EIO});
        PlannedReceiver receiver(plan);
        EXPECT_EQ(receiver.RecvMagic(), 3U);
        EXPECT_TRUE(log.ContainsExactly(
            LOG_ERR, "Receive magic error, received: 0, expected: " + std::to_string(WIRE[at]) + ", ret=-5."));
        EXPECT_EQ(log.Lines().size(), 1U);
    }
}

TEST(MagicReceiverTest, NothingToReadIsNoError) {
    for (std::size_t at = 0; at < 4; ++at) {
        const SyslogCapture log;
        auto plan = MagicUpTo(at);
        plan.push_back({-EAGAIN});
        PlannedReceiver receiver(plan);
        EXPECT_EQ(receiver.RecvMagic(), 3U);
        EXPECT_TRUE(log.Lines().empty());
    }
}

TEST(MagicReceiverTest, ClosedPeerIsAnErrorOnlyInTheMiddle) {
    const SyslogCapture quiet;
    PlannedReceiver atStart(std::vector<PlannedReceiver::Read>{{0}});
    EXPECT_EQ(atStart.RecvMagic(), 2U);
    EXPECT_TRUE(quiet.Lines().empty());
    for (std::size_t at = 1; at < 4; ++at) {
        const SyslogCapture log;
        auto plan = MagicUpTo(at);
        plan.push_back({0});
        PlannedReceiver receiver(plan);
        EXPECT_EQ(receiver.RecvMagic(), 2U);
        EXPECT_TRUE(log.ContainsExactly(
            LOG_ERR, "Received 0 when receiving magic, expected: " + std::to_string(WIRE[at]) + "."));
        EXPECT_EQ(log.Lines().size(), 1U);
    }
}

} // namespace
} // namespace tarvo_test
