// Makes frames right again that libFuzzer has changed: without it nearly every input would end at the magic number or
// the checksum, and nothing behind them would be reached.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "fuzz/Target.h"
#include "support/RawFrame.h"

extern "C" std::size_t LLVMFuzzerMutate(uint8_t *data, std::size_t size, std::size_t maxSize);

namespace tarvo_test {
namespace {

// The head at the beginning of `bytes` becomes that of a valid frame; yields the size of the frame.
std::size_t RepairFrame(std::string bytes, std::minstd_rand &random, uint8_t *into) {
    RawFrame head = DecodeRawHead(bytes);
    const std::size_t room = std::min(bytes.size() - RAW_HEAD_SIZE, MAX_PAYLOAD);
    if (head.length > room || head.length == 0) {
        head.length = static_cast<uint32_t>(1 + random() % std::min<std::size_t>(room, 64));
    }
    if (random() % 8 != 0) {
        head.type %= 2;
    }
    if (random() % 4 == 0) {
        head.id = 0;
    }
    RawFrame frame = MakeRawFrame(head.id, head.type, bytes.substr(RAW_HEAD_SIZE, head.length), head.timeout);
    frame.writeStartTime = head.writeStartTime;
    const std::string encoded = EncodeRawFrame(frame);
    std::memcpy(into, encoded.data(), encoded.size());
    return encoded.size();
}

} // namespace
} // namespace tarvo_test

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t *data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
    using namespace tarvo_test;
    size = LLVMFuzzerMutate(data, size, maxSize);
    std::minstd_rand random(seed);
    if (random() % 4 == 0) {
        return size;
    }
    // One byte of options stands in front.
    for (std::size_t at = 1; at + RAW_HEAD_SIZE < size;) {
        const std::string bytes(reinterpret_cast<char *>(data) + at, size - at);
        at += random() % 8 == 0 ? RAW_HEAD_SIZE : RepairFrame(bytes, random, data + at);
    }
    return size;
}
