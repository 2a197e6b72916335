// Sending: frames into the batch, and the batch into the FIFO in one write.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Probe.h"
#include "diag/velm_syslog.h"
#include "loop/Link.h"
#include "loop/Moments.h"

namespace {

constexpr char LOG_TAG[] = "LinkSend";
// Nobody waits for the answer.
constexpr int32_t NO_TIMEOUT = -1;

} // namespace

int TarvoLink::CheckSend(TarvoBytes payload) const {
    if (payload.data == nullptr || payload.size == 0 || payload.size > TARVO_LOOP_MAX_PAYLOAD) {
        return -EINVAL;
    }
    if (state == State::OPENING || state == State::FAILED) {
        return -ENOTCONN;
    }
    if (state != State::OPEN || broken) {
        return -EPIPE;
    }
    return full ? -EAGAIN : 0;
}

int TarvoLink::MaySend(TarvoBytes payload) const {
    const int ret = CheckSend(payload);
    if (ret != 0) {
        TARVO_PROBE_REFUSED(this, 0U, ret);
    }
    return ret;
}

int TarvoLink::Send(TarvoBytes payload) {
    const int ret = MaySend(payload);
    return ret != 0 ? ret : Enqueue(calls.OneWayId(), MSG_TYPE_REQUEST, NO_TIMEOUT, payload);
}

int64_t TarvoLink::Call(TarvoBytes payload, int timeoutMs, TarvoDone done, void *context) {
    const int refused = MaySend(payload);
    if (refused != 0) {
        return refused;
    }
    timeoutMs = loop.Patient(timeoutMs);
    const int64_t call = calls.Begin(done, context, DeadlineIn(timeoutMs));
    if (call < 0) {
        return call;
    }
    const int ret = Enqueue(Calls::WireId(call), MSG_TYPE_REQUEST, timeoutMs, payload);
    if (ret != 0) {
        calls.Undo(call);
        return ret;
    }
    loop.SettleTimers();
    return call;
}

int TarvoLink::Cancel(int64_t call) {
    if (call <= 0 || !calls.End(call, -ECANCELED, loop.Round())) {
        return -ENOENT;
    }
    loop.Queue(*this);
    return 0;
}

int TarvoLink::Reply(uint32_t request, TarvoBytes payload) {
    const int refused = MaySend(payload);
    if (refused != 0) {
        return refused;
    }
    uint32_t id = 0;
    if (!requests.Find(request, id)) {
        return -ENOENT;
    }
    const int ret = Enqueue(id, MSG_TYPE_RESPONSE, NO_TIMEOUT, payload);
    if (ret == 0) {
        requests.Remove(request);
    }
    return ret;
}

int TarvoLink::Enqueue(uint32_t id, MsgType type, int32_t timeoutMs, TarvoBytes payload) {
    if (!batch.HasRoomFor(payload.size)) {
        const int ret = FlushNow();
        if (ret != 0) {
            TARVO_PROBE_REFUSED(this, id, ret);
            full = ret == -EAGAIN;
            return ret;
        }
    }
    const int ret = batch.Add(id, type, timeoutMs, payload);
    if (ret != 0) {
        TARVO_PROBE_REFUSED(this, id, ret);
        return ret;
    }
    if (type == MSG_TYPE_RESPONSE) {
        TARVO_PROBE_RESPONSE_WRITTEN(this, id, payload.size);
    } else {
        TARVO_PROBE_REQUEST_WRITTEN(this, id, payload.size, timeoutMs);
    }
    if (loop.InRound()) {
        if (!flushQueued) {
            flushQueued = true;
            loop.FlushLater(*this);
        }
        return 0;
    }
    if (held) {
        return 0;
    }
    const int sent = FlushNow();
    return sent == -EAGAIN ? 0 : sent;
}

int TarvoLink::Flush() {
    held = false;
    if (state == State::GONE || broken) {
        return -EPIPE;
    }
    return FlushNow();
}

int TarvoLink::FlushNow() {
    if (batch.Empty()) {
        return 0;
    }
    return blocked ? -EAGAIN : WriteBatch();
}

int TarvoLink::WriteBatch() {
    const TarvoBytes frames = batch.Stamped();
    ssize_t written = 0;
    do {
        written = write(writeFd.Get(), frames.data, frames.size);
    } while (written < 0 && errno == EINTR);
    if (written == static_cast<ssize_t>(frames.size)) {
        batch.Clear();
        return 0;
    }
    int error = written < 0 ? errno : EIO;
    if (error == EAGAIN) {
        error = -loop.Events().Modify(writeWatch, EPOLLOUT | EPOLLONESHOT);
        if (error == 0) {
            blocked = true;
            return -EAGAIN;
        }
    }
    TARVO_LOG_RESTRAINED(LOG_ERR, "write failed, errno = %d for readFd(%d) remote(%s)", error, readFd.Get(),
                         origin.remote.c_str());
    broken = true;
    DropBatch(-error);
    return -error;
}

// The calls in it have been accepted, and end here.
void TarvoLink::DropBatch(int result) {
    const TarvoBytes frames = batch.Stamped();
    for (std::size_t at = 0; at < frames.size;) {
        MsgHead head;
        std::memcpy(&head, frames.data + at, sizeof(head));
        at += sizeof(head) + head.payloadLen;
        TARVO_PROBE_REFUSED(this, head.id, result);
        if (head.type == MSG_TYPE_REQUEST && calls.EndByWireId(head.id, -EPIPE, loop.Round())) {
            loop.Queue(*this);
        }
    }
    batch.Clear();
}

void TarvoLink::OnRoom() {
    blocked = false;
    if (FlushNow() == 0 && full) {
        writable = true;
        loop.Queue(*this);
    }
}
