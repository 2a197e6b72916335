#include "support/RawFrame.h"

#include <time.h>
#include <unistd.h>

namespace tarvo_test {
namespace {

// Little-endian, byte by byte, whatever this machine is.
void Put(std::string &bytes, uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
        bytes.push_back(static_cast<char>(value >> (8 * i) & 0xFFU));
    }
}

uint64_t Get(const std::string &bytes, std::size_t offset, int width) {
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) {
        value = value << 8 | static_cast<unsigned char>(bytes.at(offset + static_cast<std::size_t>(i)));
    }
    return value;
}

int64_t MonotonicMicroseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

} // namespace

uint32_t RawChecksum(uint32_t id, uint32_t type, const std::string &payload) {
    uint32_t sum = id + type + static_cast<uint32_t>(payload.size());
    for (const char c : payload) {
        sum += static_cast<unsigned char>(c);
    }
    return sum + RAW_MAGIC;
}

RawFrame MakeRawFrame(uint32_t id, uint32_t type, const std::string &payload, int32_t timeout) {
    RawFrame frame;
    frame.magic = RAW_MAGIC;
    frame.id = id;
    frame.type = type;
    frame.length = static_cast<uint32_t>(payload.size());
    frame.checksum = RawChecksum(id, type, payload);
    frame.timeout = timeout;
    frame.writeStartTime = MonotonicMicroseconds();
    frame.payload = payload;
    return frame;
}

std::string EncodeRawFrame(const RawFrame &frame) {
    std::string bytes;
    Put(bytes, frame.magic, 4);
    Put(bytes, frame.id, 4);
    Put(bytes, frame.type, 4);
    Put(bytes, frame.length, 4);
    Put(bytes, frame.checksum, 4);
    Put(bytes, static_cast<uint32_t>(frame.timeout), 4);
    Put(bytes, static_cast<uint64_t>(frame.writeStartTime), 8);
    return bytes + frame.payload;
}

RawFrame DecodeRawHead(const std::string &bytes) {
    RawFrame frame;
    frame.magic = static_cast<uint32_t>(Get(bytes, 0, 4));
    frame.id = static_cast<uint32_t>(Get(bytes, 4, 4));
    frame.type = static_cast<uint32_t>(Get(bytes, 8, 4));
    frame.length = static_cast<uint32_t>(Get(bytes, 12, 4));
    frame.checksum = static_cast<uint32_t>(Get(bytes, 16, 4));
    frame.timeout = static_cast<int32_t>(Get(bytes, 20, 4));
    frame.writeStartTime = static_cast<int64_t>(Get(bytes, 24, 8));
    return frame;
}

std::string RawRequest(uint32_t id, const std::string &payload, int32_t timeout) {
    return EncodeRawFrame(MakeRawFrame(id, 0, payload, timeout));
}

std::string RawResponse(uint32_t id, const std::string &payload) {
    return EncodeRawFrame(MakeRawFrame(id, 1, payload, -1));
}

std::string RawConnectPacket(const std::string &name, uint32_t gid, int32_t pid) {
    std::string bytes;
    Put(bytes, RAW_MAGIC, 4);
    Put(bytes, 0, 4);
    Put(bytes, gid, 4);
    Put(bytes, static_cast<uint32_t>(pid), 4);
    Put(bytes, name.size(), 4);
    return bytes + name;
}

std::string RawTerminatePacket() {
    std::string bytes;
    Put(bytes, RAW_MAGIC, 4);
    Put(bytes, 1, 4);
    Put(bytes, getgid(), 4);
    Put(bytes, static_cast<uint32_t>(getpid()), 4);
    return bytes;
}

} // namespace tarvo_test
