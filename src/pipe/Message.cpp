#include "pipe/Message.h"

#include <algorithm>

#include "pipe/MagicReceiver.h"

namespace {

// What fits into one atomic write.
constexpr std::size_t FRAME_LIMIT = 4096;

// gcc vectorises loops of unknown length from this level on only, clang by itself.
#if defined(__GNUC__) && !defined(__clang__)
#define TARVO_VECTORISED __attribute__((optimize("O3")))
#else
#define TARVO_VECTORISED
#endif

// Sum of `length` bytes. Blocks whose sum fits into 16 bits, since a vector register holds twice as many of these: a
// plain loop with a 32-bit sum takes twice as long when vectorised, and several times as long when not.
TARVO_VECTORISED uint32_t SumOfBytes(const char *data, std::size_t length) {
    constexpr std::size_t block = 256;
    uint32_t sum = 0;
    while (length > 0) {
        const std::size_t size = std::min(length, block);
        uint16_t blockSum = 0;
        for (std::size_t i = 0; i < size; ++i) {
            blockSum = static_cast<uint16_t>(blockSum + static_cast<uint8_t>(data[i]));
        }
        sum += blockSum;
        data += size;
        length -= size;
    }
    return sum;
}

} // namespace

const uint64_t Message::MAX_PAYLOAD_LEN;

bool Message::SizeValid() const {
    return payloadLen != 0 && payloadLen <= std::min<uint64_t>(FRAME_LIMIT - OverheadSize(), MAX_PAYLOAD_LEN);
}

uint32_t Message::Checksum() {
    uint32_t sum = id + type + payloadLen;
    const char *data = GetData();
    if (data != nullptr && payloadLen != 0) {
        sum += SumOfBytes(data, payloadLen);
    }
    checksum = sum + MagicReceiver::MAGIC;
    return checksum;
}

char *InMessage::GetData() {
    if (SizeValid() && !data) {
        data = std::make_unique<char[]>(payloadLen);
        room = false;
    }
    return data.get();
}

char *InMessage::MakeBuffer(bool withRoom) {
    if (SizeValid() && !data) {
        data.reset(new char[payloadLen + (withRoom ? ROOM : 0)]);
        room = withRoom;
    }
    return data.get();
}
