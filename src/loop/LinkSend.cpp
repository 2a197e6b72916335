// Sending: frames into the batch, and the batch into the FIFO in one write.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Probe.h"
#include "diag/velm_syslog.h"
#include "loop/Link.h"
#include "loop/Moments.h"
#include "stats/Stats.h"
#include "tarvo_stats.h"

namespace {

constexpr char LOG_TAG[] = "LinkSend";
// Nobody waits for the answer.
constexpr int32_t NO_TIMEOUT = -1;
// Of a message that was refused before it got one.
constexpr uint32_t NO_ID = 0;

int64_t UsOf(uint64_t ns) { return static_cast<int64_t>(ns / Stats::NS_PER_US); }

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

// The end of each send that is refused.
int TarvoLink::Refuse(uint32_t id, int result) const {
    TARVO_PROBE_REFUSED(this, id, result);
    if (stats.On()) {
        stats.Refused(result);
    }
    return result;
}

int TarvoLink::MaySend(TarvoBytes payload) const {
    const int ret = CheckSend(payload);
    return ret == 0 ? 0 : Refuse(NO_ID, ret);
}

int TarvoLink::Send(TarvoBytes payload) {
    const int ret = MaySend(payload);
    return ret != 0 ? ret : Enqueue(calls.OneWayId(), TARVO_STATS_ONE_WAY, NO_TIMEOUT, payload);
}

int64_t TarvoLink::Call(TarvoBytes payload, int timeoutMs, TarvoDone done, void *context) {
    const int64_t call = BeginCall(payload, timeoutMs, done, context);
    if (stats.On()) {
        call < 0 ? stats.CallNotSent() : stats.CallBegun();
    }
    return call;
}

int64_t TarvoLink::BeginCall(TarvoBytes payload, int timeoutMs, TarvoDone done, void *context) {
    const int refused = MaySend(payload);
    if (refused != 0) {
        return refused;
    }
    timeoutMs = loop.Patient(timeoutMs);
    uint64_t begun = 0;
    const int64_t deadline = DeadlineOf(timeoutMs, begun);
    const int64_t call = calls.Begin(done, context, deadline, begun);
    if (call < 0) {
        return Refuse(NO_ID, static_cast<int>(call));
    }
    const int ret = Enqueue(Calls::WireId(call), TARVO_STATS_CALL, timeoutMs, payload);
    if (ret != 0) {
        calls.Undo(call);
        return ret;
    }
    loop.SettleTimers();
    return call;
}

// That of a call that begins now. `begun` is the moment where it is counted.
int64_t TarvoLink::DeadlineOf(int timeoutMs, uint64_t &begun) const {
    if (!stats.On()) {
        return DeadlineIn(timeoutMs);
    }
    begun = Stats::Now();
    return DeadlineAfter(UsOf(begun), timeoutMs);
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
        return Refuse(NO_ID, -ENOENT);
    }
    const int ret = Enqueue(id, TARVO_STATS_RESPONSE, NO_TIMEOUT, payload);
    if (ret == 0) {
        requests.Remove(request);
    }
    return ret;
}

// `kind`: TARVO_STATS_ONE_WAY ...
int TarvoLink::Enqueue(uint32_t id, uint32_t kind, int32_t timeoutMs, TarvoBytes payload) {
    if (!batch.HasRoomFor(payload.size)) {
        const int ret = FlushNow();
        if (ret != 0) {
            full = ret == -EAGAIN;
            return Refuse(id, ret);
        }
    }
    const bool isResponse = kind == TARVO_STATS_RESPONSE;
    const int ret = batch.Add(id, isResponse ? MSG_TYPE_RESPONSE : MSG_TYPE_REQUEST, timeoutMs, payload);
    if (ret != 0) {
        return Refuse(id, ret);
    }
    if (isResponse) {
        TARVO_PROBE_RESPONSE_WRITTEN(this, id, payload.size);
    } else {
        TARVO_PROBE_REQUEST_WRITTEN(this, id, payload.size, timeoutMs);
    }
    if (!loop.InRound() && !held) {
        return FlushWith(kind, payload.size);
    }
    if (kind != TARVO_STATS_ONE_WAY && stats.On()) {
        stats.Accepted(kind, payload.size);
    }
    if (loop.InRound() && !flushQueued) {
        flushQueued = true;
        loop.FlushLater(*this);
    }
    return 0;
}

// The last frame of the batch is refused if the batch cannot be written.
int TarvoLink::FlushWith(uint32_t kind, uint32_t size) {
    if (stats.On()) {
        stats.Fresh(size);
    }
    const int ret = FlushNow();
    if (stats.On()) {
        stats.Settled(ret, kind, size);
    }
    return ret == -EAGAIN ? 0 : ret;
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
    if (stats.On()) {
        stats.Flushing(batch);
    }
    return blocked ? -EAGAIN : WriteBatch();
}

int TarvoLink::WriteBatch() {
    const TarvoBytes frames = stats.On() ? batch.StampedAt(UsOf(loop.Look())) : batch.Stamped();
    ssize_t written = 0;
    do {
        written = write(writeFd.Get(), frames.data, frames.size);
    } while (written < 0 && errno == EINTR);
    if (written == static_cast<ssize_t>(frames.size)) {
        batch.Clear();
        if (stats.On()) {
            stats.Written();
        }
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
    if (stats.On()) {
        stats.Lost(batch);
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
