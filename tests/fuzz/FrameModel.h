// What must become of bytes in a pipe's FIFO, told by a reader that shares no code with the library.
#ifndef TARVO_FUZZ_FRAMEMODEL_H
#define TARVO_FUZZ_FRAMEMODEL_H

#include <cstdint>
#include <string>
#include <vector>

#include "support/RawFrame.h"

namespace tarvo_test {

// Yields the frames that are delivered of a stream that is read as a whole, in order: `take(head, payload)`.
template <typename Take>
void ReadAsDocumented(const std::string &bytes, Take take) {
    constexpr std::size_t maxPayload = 4000;
    constexpr uint32_t highestType = 1;
    std::size_t at = 0;
    while (bytes.size() - at >= RAW_HEAD_SIZE) {
        const RawFrame head = DecodeRawHead(bytes.substr(at, RAW_HEAD_SIZE));
        at += RAW_HEAD_SIZE;
        if (head.magic != RAW_MAGIC || head.length == 0 || head.length > maxPayload) {
            continue;
        }
        const std::string payload = bytes.substr(at, head.length);
        at += payload.size();
        const bool whole = payload.size() == head.length;
        if (whole && head.checksum == RawChecksum(head.id, head.type, payload) && head.type <= highestType) {
            take(head, payload);
        }
    }
}

} // namespace tarvo_test

#endif // TARVO_FUZZ_FRAMEMODEL_H
