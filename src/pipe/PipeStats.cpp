#include "pipe/PipeStats.h"

#include <sys/ioctl.h>

#include <cerrno>

#include "base/Probe.h"

namespace {

// A call without a time limit tells its receiver as little as a one-way request.
unsigned KindOf(const MsgHead &head) {
    if (head.type == MSG_TYPE_RESPONSE) {
        return TARVO_STATS_RESPONSE;
    }
    return head.timeout >= 0 ? TARVO_STATS_CALL : TARVO_STATS_ONE_WAY;
}

} // namespace

void PipeStats::Begin(int handle, const std::string &name, const std::string &remote) {
    slot = StatsSlot({TARVO_STATS_PIPE, TARVO_STATS_THREADS, handle, name, remote});
    numbers = slot.Pipe();
}

void PipeStats::CountSent(unsigned kind, uint32_t bytes, int result) {
    if (result < 0) {
        Stats::Count(numbers->sent.refused[Stats::RefusalOf(result)]);
        return;
    }
    Stats::Count(numbers->sent.messages[kind]);
    Stats::Count(numbers->sent.bytes[kind], bytes);
}

void PipeStats::CountReceived(const MsgHead &head, InMessage &msg) {
    const unsigned kind = KindOf(head);
    uint64_t &messages = numbers->received.messages[kind];
    const bool timed = kind == TARVO_STATS_CALL || Stats::Load(messages) % Stats::ONE_WAYS_PER_TIME == 0;
    Stats::CountAlone(messages);
    Stats::CountAlone(numbers->received.bytes[kind], head.payloadLen);
    if (timed) {
        msg.readAt = Stats::Now();
        // Peers may leave it out.
        if (head.writeStartTime > 0) {
            const uint64_t writtenAt = static_cast<uint64_t>(head.writeStartTime) * Stats::NS_PER_US;
            Stats::TimeAlone(numbers->inFifo, Stats::Between(writtenAt, msg.readAt));
        }
    }
    if (kind != TARVO_STATS_RESPONSE) {
        CountQueued();
    }
}

void PipeStats::CountQueued() {
    const uint64_t *const received = numbers->received.messages;
    const uint64_t requests = Stats::Load(received[TARVO_STATS_ONE_WAY]) + Stats::Load(received[TARVO_STATS_CALL]);
    uint64_t &most = numbers->requests.queued.most;
    if (requests - doneWhenSeen <= Stats::Load(most)) {
        return;
    }
    doneWhenSeen = Stats::Load(numbers->requests.begun);
    for (const uint64_t &dropped : numbers->requests.dropped) {
        doneWhenSeen += Stats::Load(dropped);
    }
    Stats::AtMostAlone(most, requests - doneWhenSeen);
}

void PipeStats::CountUnread(int readFd) {
    int bytes = 0;
    if (ioctl(readFd, FIONREAD, &bytes) == 0 && bytes > 0) {
        Stats::Count(numbers->received.unread, static_cast<uint64_t>(bytes));
    }
}

uint64_t PipeStats::CountBegin(uint64_t readAt, bool alone) {
    auto &requests = numbers->requests;
    // Atomic also where callbacks run alone: one may still run on the worker that a close has given back while the next
    // begins on another.
    const uint64_t begun = __atomic_add_fetch(&requests.begun, uint64_t{1}, __ATOMIC_RELAXED);
    const uint64_t finished = Stats::Load(requests.finished);
    Stats::AtMost(requests.running.most, Stats::Between(finished, begun));
    if (readAt == 0) {
        return 0;
    }
    const uint64_t now = Stats::Now();
    (alone ? Stats::TimeAlone : Stats::Time)(numbers->wait, Stats::Between(readAt, now));
    return now;
}

void PipeStats::CountEnd(uint64_t begunAt, bool alone) {
    Stats::Count(numbers->requests.finished);
    if (begunAt != 0) {
        (alone ? Stats::TimeAlone : Stats::Time)(numbers->callback, Stats::Between(begunAt, Stats::Now()));
    }
}

void PipeStats::CountCall() {
    auto &calls = numbers->calls;
    const uint64_t begun = __atomic_add_fetch(&calls.begun, uint64_t{1}, __ATOMIC_RELAXED);
    uint64_t ended = 0;
    for (const uint64_t &end : calls.ended) {
        ended += Stats::Load(end);
    }
    Stats::AtMost(calls.outstanding.most, Stats::Between(ended, begun));
}

void PipeStats::CountCallEnd(unsigned end, uint64_t begunAt) {
    Stats::Count(numbers->calls.ended[end]);
    if (end == TARVO_STATS_END_ANSWERED) {
        Stats::Time(numbers->roundTrip, Stats::Between(begunAt, Stats::Now()));
    }
}

int PipeStats::Read(TarvoStatsPipe &copy) const { return slot.Read(copy) ? 0 : -ENODATA; }

CallStats::~CallStats() {
    TARVO_PROBE_CALL_END(handle, id, result);
    stats.CallEnds(End(), writtenAt);
}

unsigned CallStats::End() const {
    if (refused) {
        return TARVO_STATS_END_NOT_SENT;
    }
    // Without a response the pipe was closed between the sending and the wait.
    return result == 0 && !answered ? unsigned{TARVO_STATS_END_BROKEN} : Stats::CallEndOf(result);
}
