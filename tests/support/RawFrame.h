// The bytes of the wire, written and read by hand. Shares no code with the library, so that an error which both sides
// of the library would make alike is still seen.
#ifndef TARVO_SUPPORT_RAWFRAME_H
#define TARVO_SUPPORT_RAWFRAME_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarvo_test {

// One message as it stands on the wire. The defaults are those of an empty, wrong message: use MakeRawFrame.
struct RawFrame {
    uint32_t magic = 0;
    uint32_t id = 0;
    uint32_t type = 0; // 0 request, 1 response
    uint32_t length = 0;
    uint32_t checksum = 0;
    int32_t timeout = 0;        // ms
    int64_t writeStartTime = 0; // monotonic microseconds
    std::string payload;
};

constexpr uint32_t RAW_MAGIC = 0xA6B7C8D9U;
constexpr std::size_t RAW_HEAD_SIZE = 32;

// A valid message; a test then spoils the field that it is about.
RawFrame MakeRawFrame(uint32_t id, uint32_t type, const std::string &payload, int32_t timeout = -1);
uint32_t RawChecksum(uint32_t id, uint32_t type, const std::string &payload);
// The fields as they are, right or wrong, followed by the payload.
std::string EncodeRawFrame(const RawFrame &frame);
// The fields of a head, without a payload. Needs at least 32 bytes.
RawFrame DecodeRawHead(const std::string &bytes);

std::string RawRequest(uint32_t id, const std::string &payload, int32_t timeout = -1);
std::string RawResponse(uint32_t id, const std::string &payload);

// What a client writes to a server's FIFO to announce itself.
std::string RawConnectPacket(const std::string &name, uint32_t gid, int32_t pid);
// What a server writes to itself to stop.
std::string RawTerminatePacket();

} // namespace tarvo_test

#endif // TARVO_SUPPORT_RAWFRAME_H
