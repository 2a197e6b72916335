// Receiving: reading one frame an event. What becomes of requests is in TarvoPipeImplDispatch.cpp.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <optional>
#include <utility>

#include "base/Probe.h"
#include "diag/run_time_record.h"
#include "diag/velm_syslog.h"
#include "pipe/TarvoPipeImpl.h"

namespace {

constexpr char LOG_TAG[] = "TarvoPipeImplReceive";
constexpr int64_t LATE_US = 2000000;

// Whether the message has its payload buffer, or is to have none as its length is not valid: false when memory has run
// out.
bool MakeBuffer(InMessage &msg, bool withRoom) {
    try {
        msg.MakeBuffer(withRoom);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

} // namespace

int TarvoPipeImpl::Recv(void *buf, unsigned long len) {
    if (buf == nullptr) {
        TARVO_LOG(LOG_ERR, "Input addrress is nullptr");
        return -1;
    }
    int fd = -1;
    ssize_t received = -1;
    int error = 0;
    {
        ReadLock use(descriptorUse);
        fd = readFd;
        received = read(fd, buf, len);
        error = static_cast<unsigned long>(received) == len ? 0 : errno;
    }
    if (received < 0) {
        // A failed read of a pipe that this process has just closed is nobody's trouble, here as below.
        TARVO_LOG(error == EAGAIN || IsClosing() ? LOG_INFO : LOG_ERR,
                  "The readFd(%d) read fail, errno = %d, remoteName: %s", fd, error, remoteName.c_str());
        return -error;
    }
    if (received == 0) {
        return 0;
    }
    if (static_cast<unsigned long>(received) != len) {
        TARVO_LOG(LOG_ERR, "The readFd(%d) read size %ld instead of %lu, errno = %d, remoteName: %s", fd, received, len,
                  error, remoteName.c_str());
        return -1;
    }
    return static_cast<int>(received);
}

void TarvoPipeImpl::HandleEvent(const epoll_event &ev, Tarvo::EpollTimeRecord &rec) { HandleEvent(ev, rec, opening); }

void TarvoPipeImpl::HandleEvent(const epoll_event &ev, Tarvo::EpollTimeRecord &rec, uint32_t ofOpening) {
    if ((ev.events & EPOLLIN) != 0) {
        HandleMessage(rec);
    }
    if ((ev.events & EPOLLHUP) != 0) {
        TARVO_LOG(LOG_INFO, "%s=>%s readFd(%d) read msg 0, remote is closed", myName.c_str(), remoteName.c_str(),
                  readFd.load());
        HandleRemoteClosed(ofOpening);
    }
}

template <typename Receive>
void TarvoPipeImpl::HandleReceived(Receive receive) {
    try {
        std::optional<InMessage> msg = receive();
        if (msg) {
            ProcessMessage(*msg);
        }
    } catch (const std::bad_alloc &) {
        TARVO_LOG(LOG_ERR, "Recv msg head failed for remote(%s), ret = %d", remoteName.c_str(), -ENOMEM);
    }
}

void TarvoPipeImpl::HandleMessage(Tarvo::EpollTimeRecord &rec) {
    HandleReceived([&] { return RecvMessage(rec); });
}

bool TarvoPipeImpl::HasLostRemote(Tarvo::EpollTimeRecord &rec) {
    MsgHead head{};
    const int ret = Recv(&head, sizeof(head));
    if (ret > 0) {
        HandleReceived([&] { return RecvPayload(head, rec); });
    } else if (ret == -1) {
        stats.Bad(TARVO_STATS_BAD_SHORT);
    }
    return ret == 0;
}

std::optional<InMessage> TarvoPipeImpl::RecvMessage(Tarvo::EpollTimeRecord &rec) {
    MsgHead head{};
    const int ret = Recv(&head, sizeof(head));
    if (ret < 1) {
        TARVO_LOG(IsClosing() ? LOG_INFO : LOG_ERR, "Recv msg head failed for remote(%s), ret = %d", remoteName.c_str(),
                  ret);
        if (ret == -1) {
            stats.Bad(TARVO_STATS_BAD_SHORT);
        }
        return std::nullopt;
    }
    return RecvPayload(head, rec);
}

std::optional<InMessage> TarvoPipeImpl::RecvPayload(const MsgHead &head, Tarvo::EpollTimeRecord &rec) {
    if (head.magic != MAGIC) {
        TARVO_LOG(LOG_ERR, "RecvMagic, result != MAGIC_OK, remote(%s), result=%u.", remoteName.c_str(), head.magic);
        stats.Bad(TARVO_STATS_BAD_MAGIC);
        return std::nullopt;
    }
    std::optional<InMessage> msg(std::in_place, head.id, head.type, head.payloadLen);
    int ret = -ENOMEM;
    if (MakeBuffer(*msg, head.type == MSG_TYPE_REQUEST && serviceHandler)) {
        ret = Recv(msg->GetData(), head.payloadLen);
    } else {
        // The payload has to leave the FIFO all the same: the next read expects a head.
        std::array<char, Message::MAX_PAYLOAD_LEN> unwanted{};
        Recv(unwanted.data(), std::min<uint64_t>(head.payloadLen, unwanted.size()));
    }
    if (ret < 1) {
        TARVO_LOG(IsClosing() ? LOG_INFO : LOG_ERR,
                  "Recv msg failed, remote(%s), received payloadLen should be %u, received timeout = %d ms, received "
                  "writeStartTime = %ld, ret = %d",
                  remoteName.c_str(), head.payloadLen, head.timeout, head.writeStartTime, ret);
        if (ret == -ENOMEM) {
            stats.NoMemory();
        } else if (!IsClosing()) {
            stats.Bad(msg->SizeValid() ? TARVO_STATS_BAD_SHORT : TARVO_STATS_BAD_LENGTH);
        }
        return std::nullopt;
    }
    if (msg->Checksum() != head.checksum) {
        TARVO_LOG(LOG_ERR, "Recv msg failed, send checksum = %u, but recv checksum = %u for readFd(%d) remote(%s)",
                  head.checksum, msg->checksum, readFd.load(), remoteName.c_str());
        stats.Bad(TARVO_STATS_BAD_CHECKSUM);
        return std::nullopt;
    }
    TellReceived(head, *msg, rec);
    return msg;
}

void TarvoPipeImpl::TellReceived(const MsgHead &head, InMessage &msg, Tarvo::EpollTimeRecord &rec) {
    try {
        msg.timed = CheckEpollTime(head, rec);
    } catch (const std::bad_alloc &) {
        stats.NoMemory();
        throw;
    }
    if (head.type > MSG_TYPE_RESPONSE) {
        stats.Bad(TARVO_STATS_BAD_KIND);
        return;
    }
    if (head.type == MSG_TYPE_REQUEST) {
        TARVO_PROBE_REQUEST_READ(pipeFd.load(), head.id, head.payloadLen, head.writeStartTime);
    } else {
        TARVO_PROBE_RESPONSE_READ(pipeFd.load(), head.id, head.payloadLen, head.writeStartTime);
    }
    stats.Received(head, msg);
}

bool TarvoPipeImpl::CheckEpollTime(const MsgHead &head, Tarvo::EpollTimeRecord &rec) {
    return isHeartbeat && RecordTimes(head, rec);
}

bool TarvoPipeImpl::RecordTimes(const MsgHead &head, const Tarvo::EpollTimeRecord &rec) {
    const auto now = static_cast<int64_t>(Tarvo::GetCurrentTime());
    const int64_t total = Tarvo::Elapsed(head.writeStartTime, now);
    const int64_t waitStart = Tarvo::Elapsed(head.writeStartTime, rec.epollWaitT);
    if (total > LATE_US && !IsCrossDomainPipe(domain)) {
        TARVO_LOG_RESTRAINED(LOG_WARNING,
                             "Send too slow, msgType=%u, T=%ldus, T0=%ld, T1=%ld, Tp=%ld, Ev:%dof%d, %s=>%s, "
                             "writeStartT=%ld, epoolRecvT=%ld",
                             head.type, total, Tarvo::Elapsed(head.writeStartTime, rec.epollRecvT),
                             now - rec.epollRecvT, waitStart, rec.eventIdx, rec.eventNum, remoteName.c_str(),
                             myName.c_str(), head.writeStartTime, rec.epollRecvT);
    }
    const int64_t waited = std::max<int64_t>(waitStart, 0);
    const auto record = std::make_shared<Tarvo::TimedRPCRecord>(
        Tarvo::TimedRPCRecord{head.timeout, head.writeStartTime, rec.epollRecvT, -1, waited});
    MutexLock lock(recordMutex);
    const bool inserted = timedRecords.emplace(head.id, record).second;
    if (!inserted) {
        TARVO_LOG(LOG_ERR, "Rpc id already exist, id=%u, timeout=%d", head.id, head.timeout);
    }
    return inserted;
}

void TarvoPipeImpl::UpdateTimeRecord(unsigned int id) {
    if (!isHeartbeat) {
        return;
    }
    MutexLock lock(recordMutex);
    const auto found = timedRecords.find(id);
    if (found == timedRecords.end()) {
        return;
    }
    Tarvo::TimedRPCRecord &record = *found->second;
    record.callbackT = static_cast<int64_t>(Tarvo::GetCurrentTime());
    if (Tarvo::Elapsed(record.writeT, record.callbackT) > LATE_US) {
        TARVO_LOG_RESTRAINED(LOG_WARNING, "Callback %s=>%s start late, writeT=%ld, epollT=%ld, callbackT=%ld",
                             remoteName.c_str(), myName.c_str(), record.writeT, record.epollT, record.callbackT);
    }
    timedRecords.erase(found);
}

void TarvoPipeImpl::EraseTimeRecord(unsigned int id, bool timed) {
    if (!timed) {
        return;
    }
    MutexLock lock(recordMutex);
    timedRecords.erase(id);
}
