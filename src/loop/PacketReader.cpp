#include "loop/PacketReader.h"

#include <algorithm>
#include <cstring>

#include "diag/velm_syslog.h"
#include "pipe/MagicReceiver.h"

namespace {

constexpr char LOG_TAG[] = "PacketReader";

} // namespace

void PacketReader::Feed(const char *bytes, std::size_t size) {
    unread = bytes;
    end = bytes + size;
}

bool PacketReader::Carry(std::size_t size) {
    if (carried < size) {
        const std::size_t count = std::min(size - carried, static_cast<std::size_t>(end - unread));
        std::memcpy(carry.data() + carried, unread, count);
        carried += count;
        unread += count;
    }
    return carried >= size;
}

template <typename Field>
Field PacketReader::At(std::size_t offset) const {
    Field field;
    std::memcpy(&field, carry.data() + offset, sizeof(field));
    return field;
}

bool PacketReader::FindMagic() {
    while (carried < sizeof(MagicReceiver::MAGIC_ENUM)) {
        if (unread == end) {
            return false;
        }
        const char byte = *unread++;
        // Bytes that are not the next one of the magic number are dropped with those before them.
        const bool fits = static_cast<uint8_t>(byte) == MagicReceiver::MAGIC_ENUM[carried];
        carry[carried] = byte;
        if (!fits) {
            Drop();
            continue;
        }
        ++carried;
    }
    dropping = false;
    return true;
}

void PacketReader::Drop() {
    carried = 0;
    bad += dropping ? 0 : 1;
    dropping = true;
}

PacketReader::Found PacketReader::Next(ConnectPacket &packet) {
    while (FindMagic() && Carry(offsetof(PipeServerMsgHead, gid))) {
        const auto type = At<int32_t>(offsetof(PipeServerMsgHead, type));
        if (type > PIPE_SERVER_MSG_TERMINATE) {
            TARVO_LOG(LOG_ERR, "Read type failed, type=%d.", type);
            Drop();
            continue;
        }
        if (type == PIPE_SERVER_MSG_TERMINATE) {
            carried = 0;
            return Found::TERMINATE;
        }
        if (!Carry(NAME_OFFSET)) {
            break;
        }
        const auto size = At<uint32_t>(sizeof(PipeServerMsgHead));
        if (size < 1 || size > PIPE_SERVER_MAX_CLIENT_NAME) {
            TARVO_LOG(LOG_ERR, "Read connect packet data size failed, size=%u bytes.", size);
            Drop();
            continue;
        }
        if (!Carry(NAME_OFFSET + size)) {
            break;
        }
        const char *const name = carry.data() + NAME_OFFSET;
        packet = {At<uint32_t>(offsetof(PipeServerMsgHead, gid)), At<int32_t>(offsetof(PipeServerMsgHead, pid)),
                  std::string_view(name, strnlen(name, size))};
        carried = 0;
        return Found::CONNECT;
    }
    return Found::NOTHING;
}

void PacketReader::EndOfRead() {
    // The magic number is read byte by byte, and then fields of four bytes.
    const bool between = carried <= NAME_OFFSET && (carried % sizeof(uint32_t) == 0 || carried < sizeof(uint32_t));
    if (!between) {
        TARVO_LOG(LOG_ERR, "Read of a packet failed after %zu bytes.", carried);
        Drop();
        dropping = false;
    }
}
