#include "server/PipeServerMessage.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>

#include "base/bounded.h"
#include "diag/velm_syslog.h"
#include "pipe/MagicReceiver.h"

namespace {

constexpr char LOG_TAG[] = "PipeServerMessage";

constexpr std::size_t NAME_OFFSET = sizeof(PipeServerMsgHead) + sizeof(uint32_t);

} // namespace

PipeServerMessage::PipeServerMessage(PipeServerMsgType packetType, const std::string &clientName)
    : type(packetType), msgSize(clientName.empty() ? sizeof(PipeServerMsgHead) : NAME_OFFSET + clientName.size()),
      name(clientName), nameSize(static_cast<uint32_t>(clientName.size())), gid(getgid()), pid(getpid()) {}

int PipeServerMessage::Init() {
    if (nameSize >= NAME_MAX) {
        TARVO_LOG(LOG_ERR, "client name with size (%u) >= NAME_MAX(%d).", nameSize, NAME_MAX);
        return -EINVAL;
    }
    // Only a write below PIPE_BUF is atomic, which keeps the packets of many clients apart.
    if (msgSize >= PIPE_BUF) {
        TARVO_LOG(LOG_ERR, "msg size(%zu) >= PIPE_BUF(%d).", static_cast<std::size_t>(msgSize), PIPE_BUF);
        return -EINVAL;
    }
    buffer.reset(new (std::nothrow) char[msgSize]());
    if (buffer == nullptr) {
        return -ENOMEM;
    }
    const int ret = FillBuffer();
    if (ret != 0) {
        // The compiler sees that the copy could only fail for a null name, and rejects printing one.
        TARVO_LOG(LOG_ERR, "Memcpy_s payload %s fail, ret=%d.", name.data() != nullptr ? name.c_str() : "", ret);
        return -ret;
    }
    TARVO_LOG(LOG_INFO, "Init client %s message sent to server success.", name.c_str());
    return 0;
}

int PipeServerMessage::FillBuffer() {
    const PipeServerMsgHead head{MagicReceiver::MAGIC, type, gid, pid};
    std::memcpy(buffer.get(), &head, headSize);
    if (nameSize == 0) {
        return 0;
    }
    std::memcpy(buffer.get() + headSize, &nameSize, sizeof(nameSize));
    return memcpy_s(buffer.get() + NAME_OFFSET, nameSize, name.data(), nameSize);
}
