#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

class FullFifoTest : public SystemTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(FullFifoTest, RefusesWithEagainAndRecoversWithNothingLost) {
    PeerProcess receiver;
    PeerProcess sender;
    const Pair pair = OpenPair(receiver, Name("r"), "callback=report", sender, Name("s"), "callback=echo");
    const std::string fd = Fd(pair.second);
    // Both write ends are open before the receiver is stopped.
    ExpectEcho(receiver, pair.first);

    receiver.Freeze();
    const std::string filled = sender.Ask("fillup " + FillWords(GetParam(), 9) + fd);
    const std::size_t blank = filled.find(' ');
    const int count = std::stoi(filled);
    EXPECT_EQ(filled.substr(blank + 1), std::to_string(-EAGAIN));
    EXPECT_GE(count, 16) << "sixteen frames of the largest size fit, more of smaller ones";
    EXPECT_EQ(sender.AskInt("call timeout=20000 " + FillWords(GetParam(), 9) + fd), -EAGAIN);

    receiver.Thaw();
    for (int id = 0; id < count; ++id) {
        EXPECT_EQ(receiver.NextEvent(), "request fd=" + std::to_string(pair.first) + " id=" + std::to_string(id) + " " +
                                            FillDigest(GetParam(), 9));
    }
    EXPECT_EQ(sender.AskInt("send id=4711 data=after" + fd), 0);
    EXPECT_EQ(receiver.NextEvent(), "request fd=" + std::to_string(pair.first) + " id=4711 " + Digest("after"));
}

// Up to a thousand requests wait in the receiver; those of a hundred bytes stay below that.
INSTANTIATE_TEST_SUITE_P(Sizes, FullFifoTest, ::testing::Values(100, 1000, 2500, 4000));

} // namespace
} // namespace tarvo_test
