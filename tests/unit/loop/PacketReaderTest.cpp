#include "loop/PacketReader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/RawFrame.h"

namespace tarvo_test {
namespace {

const std::string HELLO = RawConnectPacket("hello", 5, 6);

// What is found in the pieces, one after another.
std::vector<std::string> Read(const std::vector<std::string> &pieces) {
    PacketReader reader;
    std::vector<std::string> found;
    for (const std::string &piece : pieces) {
        reader.Feed(piece.data(), piece.size());
        ConnectPacket packet{};
        for (auto next = reader.Next(packet); next != PacketReader::Found::NOTHING; next = reader.Next(packet)) {
            found.push_back(next == PacketReader::Found::TERMINATE
                                ? "terminate"
                                : std::string(packet.name) + " " + std::to_string(packet.gid) + " " +
                                      std::to_string(packet.pid));
        }
        EXPECT_FALSE(reader.HasUnread());
    }
    return found;
}

using Found = std::vector<std::string>;

TEST(PacketReaderTest, PacketsThatLieBehindEachOtherAreAllFound) {
    EXPECT_EQ(Read({HELLO + RawConnectPacket("two", 7, 8)}), (Found{"hello 5 6", "two 7 8"}));
}

TEST(PacketReaderTest, APacketMayComeInPiecesOfAnySize) {
    for (std::size_t cut = 1; cut < HELLO.size(); ++cut) {
        EXPECT_EQ(Read({HELLO.substr(0, cut), HELLO.substr(cut) + HELLO}), (Found{"hello 5 6", "hello 5 6"})) << cut;
    }
}

TEST(PacketReaderTest, GarbageIsDroppedByteByByte) {
    EXPECT_EQ(Read({"xyz" + HELLO}), (Found{"hello 5 6"}));
    // A byte that breaks the magic number off is dropped with what it has broken off.
    EXPECT_EQ(Read({HELLO.substr(0, 1) + HELLO, HELLO}), (Found{"hello 5 6"}));
    EXPECT_EQ(Read({std::string(70000, '\0') + HELLO}), (Found{"hello 5 6"}));
}

TEST(PacketReaderTest, WrongTypesAndSizesAreDropped) {
    std::string wrongType = HELLO;
    wrongType[4] = 2;
    EXPECT_EQ(Read({wrongType, HELLO}), (Found{"hello 5 6"}));
    std::string negativeType = HELLO;
    negativeType[7] = '\x80';
    EXPECT_EQ(Read({negativeType}), (Found{"hello 5 6"}));
    EXPECT_EQ(Read({RawConnectPacket("", 1, 1) + HELLO}).size(), 1U);
    EXPECT_EQ(Read({RawConnectPacket(std::string(111, 'n'), 1, 1) + HELLO}), (Found{"hello 5 6"}));
    EXPECT_EQ(Read({RawConnectPacket(std::string(110, 'n'), 1, 1)}), (Found{std::string(110, 'n') + " 1 1"}));
}

TEST(PacketReaderTest, ANameEndsAtItsFirstZero) {
    EXPECT_EQ(Read({RawConnectPacket(std::string("ab\0cd", 5), 1, 1)}), (Found{"ab 1 1"}));
}

TEST(PacketReaderTest, ATerminatePacketIsFound) { EXPECT_EQ(Read({RawTerminatePacket()}), (Found{"terminate"})); }

} // namespace
} // namespace tarvo_test
