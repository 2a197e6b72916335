// What the C++ receivers find in bytes, for the tests of the Python package: its own readers must find the same.
//
// Standard input: 'F' (frames) or 'P' (packets) begins a reader; then 'D', a 32-bit size and as many bytes feed it, and
// 'E' says that the FIFO is empty. Each prints a line for what was found, and "." when it is done.
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>

#include "loop/FrameReader.h"
#include "loop/PacketReader.h"

namespace {

void PrintHex(std::string_view bytes) {
    for (const char byte : bytes) {
        std::printf("%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    }
    std::printf("\n");
}

void PrintFrames(FrameReader &reader) {
    Frame frame{};
    while (reader.Next(frame)) {
        std::printf("%u %u %d ", frame.id, static_cast<unsigned>(frame.type), frame.timeout);
        PrintHex({frame.data, frame.size});
    }
}

void PrintPackets(PacketReader &reader) {
    ConnectPacket packet{};
    for (auto found = reader.Next(packet); found != PacketReader::Found::NOTHING; found = reader.Next(packet)) {
        if (found == PacketReader::Found::TERMINATE) {
            std::printf("terminate\n");
            continue;
        }
        std::printf("%u %d ", packet.gid, packet.pid);
        PrintHex(packet.name);
    }
}

bool ReadBytes(std::string &bytes) {
    uint32_t size = 0;
    if (!std::cin.read(reinterpret_cast<char *>(&size), sizeof(size))) {
        return false;
    }
    bytes.resize(size);
    return size == 0 || std::cin.read(bytes.data(), size);
}

} // namespace

int main() {
    const FrameOrigin origin{"test", -1};
    auto frames = std::make_unique<FrameReader>(origin);
    auto packets = std::make_unique<PacketReader>();
    bool readsFrames = true;
    std::string bytes;
    for (char command = 0; std::cin.get(command);) {
        if (command == 'F' || command == 'P') {
            readsFrames = command == 'F';
            frames = std::make_unique<FrameReader>(origin);
            packets = std::make_unique<PacketReader>();
        } else if (command == 'E') {
            packets->EndOfRead();
        } else if (!ReadBytes(bytes)) {
            return 1;
        } else if (readsFrames) {
            frames->Feed(bytes.data(), bytes.size());
            PrintFrames(*frames);
        } else {
            packets->Feed(bytes.data(), bytes.size());
            PrintPackets(*packets);
        }
        std::printf(".\n");
        std::fflush(stdout);
    }
    return 0;
}
