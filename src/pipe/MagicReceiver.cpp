#include "pipe/MagicReceiver.h"

#include <cerrno>

#include "diag/velm_syslog.h"

namespace {

constexpr char LOG_TAG[] = "MagicReceiver";

} // namespace

const uint32_t MagicReceiver::MAGIC;
const uint8_t MagicReceiver::MAGIC_ENUM[4] = {0xD9, 0xC8, 0xB7, 0xA6};

uint32_t MagicReceiver::RecvMagic() {
    for (unsigned i = 0; i < sizeof(MAGIC_ENUM); ++i) {
        const uint32_t result = CheckMagicByte(i);
        if (result != MAGIC_OK) {
            return result;
        }
    }
    return MAGIC_OK;
}

uint32_t MagicReceiver::CheckMagicByte(unsigned index) {
    const unsigned expected = MAGIC_ENUM[index];
    uint8_t received = 0;
    const int ret = Recv(&received, sizeof(received));
    if (ret == -EAGAIN) {
        TARVO_LOG(LOG_INFO, "Receive magic error, received: %x, expected: %x, ret = %d", received, expected, ret);
        return MAGIC_RECV_ERROR;
    }
    if (ret < 0) {
        TARVO_LOG(LOG_ERR, "Receive magic error, received: %u, expected: %u, ret=%d.", received, expected, ret);
        return MAGIC_RECV_ERROR;
    }
    if (ret == 0 && index == 0) {
        TARVO_LOG(LOG_INFO, "Received 0 when receiving magic, expected: %x", expected);
        return MAGIC_PEER_CLOSED;
    }
    if (ret == 0) {
        TARVO_LOG(LOG_ERR, "Received 0 when receiving magic, expected: %u.", expected);
        return MAGIC_PEER_CLOSED;
    }
    if (received != expected) {
        TARVO_LOG(LOG_ERR, "Receive magic error, received: %u, expected: %u, ret=%d.", received, expected, ret);
        return MAGIC_MISMATCH;
    }
    return MAGIC_OK;
}
