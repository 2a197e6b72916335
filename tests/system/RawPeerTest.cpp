// The hand-made peer of the other tests must itself be right.
#include "support/RawPeer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "support/Names.h"

namespace tarvo_test {
namespace {

using namespace std::string_literals;

std::string Name(const std::string &role) { return NameTag() + role; }

TEST(RawPeerTest, FrameHasItsFieldsAtTheirPlaces) {
    RawFrame frame = MakeRawFrame(1, 0, "\xff", 0x01020304);
    frame.writeStartTime = 0x1122334455667788;
    EXPECT_EQ(EncodeRawFrame(frame), "\xD9\xC8\xB7\xA6\x01\x00\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00\xDA\xC9\xB7\xA6"
                                     "\x04\x03\x02\x01\x88\x77\x66\x55\x44\x33\x22\x11\xff"s);
}

TEST(RawPeerTest, ConnectPacketHasItsFieldsAtTheirPlaces) {
    EXPECT_EQ(RawConnectPacket("abc", 0x0A0B0C0D, 0x01020304),
              "\xD9\xC8\xB7\xA6\x00\x00\x00\x00\x0D\x0C\x0B\x0A\x04\x03\x02\x01\x03\x00\x00\x00"
              "abc"s);
    EXPECT_EQ(RawTerminatePacket().size(), 16U);
    EXPECT_EQ(RawTerminatePacket().substr(0, 8), "\xD9\xC8\xB7\xA6\x01\x00\x00\x00"s);
}

TEST(RawPeerTest, TwoPeersTalkAndNoticeTheEnd) {
    RawPeer maker(Name("a"), Name("b"));
    RawPeer joiner(Name("b"), Name("a"));
    std::thread joining([&joiner] { joiner.OpenBoth(); });
    maker.CreateFiles();
    maker.OpenWrite();
    joining.join();

    joiner.Send(RawRequest(7, "question", 250));
    const RawFrame request = maker.Receive();
    EXPECT_EQ(request.id, 7U);
    EXPECT_EQ(request.type, 0U);
    EXPECT_EQ(request.timeout, 250);
    EXPECT_EQ(request.payload, "question");
    maker.Send(RawResponse(request.id, std::string(4000, 'x')));
    const RawFrame response = joiner.Receive();
    EXPECT_EQ(response.type, 1U);
    EXPECT_EQ(response.payload, std::string(4000, 'x'));

    joiner.CloseWrite();
    maker.AwaitHangup();
    maker.CloseRead();
    joiner.CloseRead();
    maker.AwaitReaderGone();
    EXPECT_EQ(maker.TrySend(RawRequest(8, "late")), EPIPE);
}

TEST(RawPeerTest, SpoiledFrameIsRefused) {
    RawPeer maker(Name("c"), Name("d"));
    RawPeer joiner(Name("d"), Name("c"));
    maker.CreateFiles();
    joiner.OpenBoth();
    RawFrame frame = MakeRawFrame(1, 0, "x");
    frame.checksum += 1;
    joiner.Send(EncodeRawFrame(frame));
    EXPECT_THROW(maker.Receive(), std::runtime_error);
}

TEST(RawPeerTest, FilesGoWithTheirMaker) {
    std::string file;
    {
        RawPeer maker(Name("e"), Name("f"));
        maker.CreateFiles();
        file = maker.WriteFile();
        EXPECT_EQ(access(file.c_str(), F_OK), 0);
    }
    EXPECT_NE(access(file.c_str(), F_OK), 0);
}

} // namespace
} // namespace tarvo_test
