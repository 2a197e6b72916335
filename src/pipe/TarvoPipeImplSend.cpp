// Sending: one frame, one write, no waiting.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "base/Probe.h"
#include "base/bounded.h"
#include "diag/run_time_record.h"
#include "diag/velm_syslog.h"
#include "pipe/TarvoPipeImpl.h"

namespace {

constexpr char LOG_TAG[] = "TarvoPipeImplSend";
constexpr uint64_t WRITE_BUDGET_MS = 50;

unsigned KindOf(const OutMessage &msg) {
    return msg.type == MSG_TYPE_RESPONSE ? TARVO_STATS_RESPONSE : TARVO_STATS_ONE_WAY;
}

} // namespace

inline int TarvoPipeImpl::Tell(unsigned kind, const OutMessage &msg, int result) {
    if (result < 0) {
        TARVO_PROBE_REFUSED(pipeFd.load(), msg.id, result);
    } else if (kind == TARVO_STATS_RESPONSE) {
        TARVO_PROBE_RESPONSE_WRITTEN(pipeFd.load(), msg.id, msg.payloadLen);
    } else {
        TARVO_PROBE_REQUEST_WRITTEN(pipeFd.load(), msg.id, msg.payloadLen, msg.timeout);
    }
    stats.Sent(kind, msg.payloadLen, result);
    return result;
}

inline int TarvoPipeImpl::TrySend(OutMessage &msg, uint64_t &writtenAt) {
    if (!msg.SizeValid()) {
        TARVO_LOG(LOG_ERR, "Send size %u is not valid", msg.payloadLen);
        return -EINVAL;
    }
    TARVO_LOG(LOG_INFO, "TarvoPipeImpl Send, writeFd = %d. %s  %s", writeFd.load(), myName.c_str(), remoteName.c_str());
    if (writeFd >= 0) {
        return WriteFrame(msg, writtenAt);
    }
    const int ret = OpenWriteFifo();
    if (ret < 0) {
        TARVO_LOG(LOG_INFO, "write msg type=%u open write failed, err=%d, fd=%d, target=%s", msg.type, ret, GetPipeFd(),
                  remoteName.c_str());
        return ret;
    }
    return WriteFrame(msg, writtenAt);
}

inline int TarvoPipeImpl::SendAs(unsigned kind, OutMessage &msg, uint64_t &writtenAt) {
    try {
        return Tell(kind, msg, TrySend(msg, writtenAt));
    } catch (const std::bad_alloc &) {
        Tell(kind, msg, -ENOMEM);
        throw;
    }
}

int TarvoPipeImpl::Send(const TarvoRequest &req, int timeoutMs) {
    OutMessage msg(req.id, req, timeoutMs);
    uint64_t writtenAt = 0;
    return SendAs(TARVO_STATS_ONE_WAY, msg, writtenAt);
}

int TarvoPipeImpl::Send(const TarvoResponse &rsp) {
    OutMessage msg(rsp.id, rsp);
    uint64_t writtenAt = 0;
    return SendAs(TARVO_STATS_RESPONSE, msg, writtenAt);
}

int TarvoPipeImpl::SendCall(const TarvoRequest &req, int timeoutMs, uint64_t &writtenAt) {
    OutMessage msg(req.id, req, timeoutMs);
    return SendAs(TARVO_STATS_CALL, msg, writtenAt);
}

int TarvoPipeImpl::Send(OutMessage &msg) {
    uint64_t writtenAt = 0;
    return SendAs(KindOf(msg), msg, writtenAt);
}

int TarvoPipeImpl::Write(OutMessage &msg) {
    uint64_t writtenAt = 0;
    return Tell(KindOf(msg), msg, WriteFrame(msg, writtenAt));
}

int TarvoPipeImpl::WriteFrame(OutMessage &msg, uint64_t &writtenAt) {
    const char *data = msg.GetData();
    if (data == nullptr) {
        TARVO_LOG(LOG_ERR, "Send msg data ptr is null");
        return -EINVAL;
    }
    // Not cleared: head and payload fill it.
    const std::unique_ptr<char[]> frame(new char[msg.Size()]);
    Tarvo::RunTimeRecord record(WRITE_BUDGET_MS);
    record.RecordCurrentTime();
    MsgHead head{};
    head.magic = MAGIC;
    head.id = msg.id;
    head.type = msg.type;
    head.payloadLen = msg.payloadLen;
    head.checksum = msg.Checksum();
    head.timeout = msg.timeout;
    // Also the record's start: reading the clock twice for this would cost more than what lies between.
    head.writeStartTime = static_cast<int64_t>(record.StartTime());
    writtenAt = Stats::ToNs(record.StartPoint());
    std::memcpy(frame.get(), &head, sizeof(head));
    // Compiled to a plain copy: only the payload's null pointer, refused above, could fail it. The line stays promised.
    const int copied = memcpy_s(frame.get() + sizeof(head), msg.Size() - sizeof(head), data, msg.payloadLen);
    if (copied != 0) {
        TARVO_LOG(LOG_ERR, "memcpy_s msg.dataOut fail, ret = %d", copied);
        return -copied;
    }
    const int ret = WriteTimed(record, frame.get(), msg.Size(), msg.id);
    TARVO_LOG(LOG_DEBUG, "readFd(%d) writeFd(%d) send msg to %s success, id(%u) type(%u) len(%u) checksum(%u)",
              readFd.load(), writeFd.load(), remoteName.c_str(), msg.id, msg.type, msg.payloadLen, msg.checksum);
    return ret;
}

int TarvoPipeImpl::Write(const std::unique_ptr<char[]> &buf, unsigned long len, unsigned int id) {
    Tarvo::RunTimeRecord record(WRITE_BUDGET_MS);
    record.RecordCurrentTime();
    return WriteTimed(record, buf.get(), len, id);
}

int TarvoPipeImpl::WriteTimed(Tarvo::RunTimeRecord &record, const char *frame, std::size_t len, unsigned int id) {
    int fd = -1;
    ssize_t written = -1;
    int error = 0;
    {
        ReadLock use(descriptorUse);
        fd = writeFd;
        written = write(fd, frame, len);
        error = written == -1 ? errno : 0;
    }
    if (record.WhetherTotalTimeHasTimeout()) {
        record.RunTimePrint("Writing " + writeFifoName + " takes more than " + std::to_string(WRITE_BUDGET_MS) +
                            "ms. fd=" + std::to_string(pipeFd) + ", FifoFd=" + std::to_string(fd) +
                            ", Msgid=" + std::to_string(id));
    }
    if (written == -1 && error == EPIPE) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "%s=>%s The pipe is broken, write unfinished, remote is closed.", myName.c_str(),
                             remoteName.c_str());
        return -EPIPE;
    }
    if (written == -1) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "write failed, errno = %d for readFd(%d) remote(%s)", error, readFd.load(),
                             remoteName.c_str());
        return -error;
    }
    if (static_cast<unsigned long>(written) != len) {
        TARVO_LOG(LOG_ERR, "write size %ld is not equal to expected size %lu for readFd(%d) remote(%s)", written, len,
                  readFd.load(), remoteName.c_str());
        return -1;
    }
    return 0;
}
