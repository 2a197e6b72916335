#include "loop/FrameBatch.h"

#include <cerrno>
#include <cstring>

#include "loop/FrameView.h"
#include "pipe/MagicReceiver.h"

int FrameBatch::Add(uint32_t id, MsgType type, int32_t timeoutMs, TarvoBytes payload) {
    FrameView msg(id, type, payload.data, payload.size);
    if (payload.data == nullptr || !msg.SizeValid()) {
        return -EINVAL;
    }
    if (!HasRoomFor(payload.size)) {
        return -EAGAIN;
    }
    const MsgHead head{MagicReceiver::MAGIC, id, type, payload.size, msg.Checksum(), timeoutMs, 0};
    std::memcpy(bytes.data() + used, &head, sizeof(head));
    std::memcpy(bytes.data() + used + sizeof(head), payload.data, payload.size);
    used += msg.Size();
    ++frames;
    return 0;
}

TarvoBytes FrameBatch::StampedAt(int64_t nowUs) {
    for (std::size_t at = 0; at < used;) {
        uint32_t payloadLen = 0;
        std::memcpy(&payloadLen, bytes.data() + at + offsetof(MsgHead, payloadLen), sizeof(payloadLen));
        std::memcpy(bytes.data() + at + offsetof(MsgHead, writeStartTime), &nowUs, sizeof(nowUs));
        at += sizeof(MsgHead) + payloadLen;
    }
    return {bytes.data(), static_cast<uint32_t>(used)};
}
