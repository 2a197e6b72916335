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

// How many calls or callbacks have begun; what has ended is looked at afterwards. The other way round, one that ends
// and the next that begins in between would be taken for two at the same time.
template <typename Numbers>
uint64_t Begun(const Numbers &numbers) {
    return __atomic_load_n(&numbers.begun, __ATOMIC_ACQUIRE) + __atomic_load_n(&numbers.firstBegun, __ATOMIC_ACQUIRE);
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
    if (sender.IsOrBecomesThis()) {
        CountSentFirst(kind, bytes);
        return;
    }
    Stats::Count(numbers->sent.messages[kind]);
    Stats::Count(numbers->sent.bytes[kind], bytes);
}

void PipeStats::CountReceived(const MsgHead &head, InMessage &msg) {
    auto &received = numbers->received;
    const unsigned kind = KindOf(head);
    const uint64_t number = Stats::Load(received.messages[kind]);
    Stats::Store(received.messages[kind], number + 1);
    Stats::CountAlone(received.bytes[kind], head.payloadLen);
    const bool isTimed = kind == TARVO_STATS_CALL ? Stats::IsTimedCall(number) : number % Stats::ONE_WAYS_PER_TIME == 0;
    if (Stats::IsRare(isTimed)) {
        TimeInFifo(head, msg);
    }
    if (kind != TARVO_STATS_RESPONSE) {
        CountQueued();
    }
}

__attribute__((noinline)) void PipeStats::TimeInFifo(const MsgHead &head, InMessage &msg) {
    msg.readAt = Stats::Now();
    // Peers may leave it out.
    if (head.writeStartTime > 0) {
        const uint64_t writtenAt = static_cast<uint64_t>(head.writeStartTime) * Stats::NS_PER_US;
        Stats::TimeAlone(numbers->inFifo, Stats::Between(writtenAt, msg.readAt));
    }
}

inline void PipeStats::CountQueued() {
    // To look costs the workers the line where they count: with few in the queue, which is nearly always, only now and
    // then, once the pipe has shown what it usually does.
    constexpr uint64_t NEW = 64;
    constexpr uint64_t FEW = 8;
    const uint64_t *const received = numbers->received.messages;
    const uint64_t requests = Stats::Load(received[TARVO_STATS_ONE_WAY]) + Stats::Load(received[TARVO_STATS_CALL]);
    const uint64_t atMost = requests - doneWhenSeen;
    if ((atMost >= FEW || requests <= NEW) && atMost > Stats::Load(numbers->requests.queued.most)) {
        LookAtQueue(requests);
    }
}

__attribute__((noinline)) void PipeStats::LookAtQueue(uint64_t requests) {
    doneWhenSeen = Stats::Load(numbers->requests.begun) + Stats::Load(numbers->requests.firstBegun);
    for (const uint64_t &dropped : numbers->requests.dropped) {
        doneWhenSeen += Stats::Load(dropped);
    }
    Stats::AtMostAlone(numbers->requests.queued.most, requests - doneWhenSeen);
}

void PipeStats::CountUnread(int readFd) {
    int bytes = 0;
    if (ioctl(readFd, FIONREAD, &bytes) == 0 && bytes > 0) {
        Stats::Count(numbers->received.unread, static_cast<uint64_t>(bytes));
    }
}

void PipeStats::CountBegin() {
    auto &requests = numbers->requests;
    if (runner.IsOrBecomesThis()) {
        Stats::CountAlone(requests.firstBegun);
        Stats::Store(callbacksOfOthers, Stats::Load(requests.begun));
    } else {
        Stats::Count(requests.begun);
    }
    LookAtRunning();
}

uint64_t PipeStats::TimeWait(uint64_t readAt) {
    const uint64_t now = Stats::Now();
    Stats::Time(numbers->wait, Stats::Between(readAt, now));
    return now;
}

void PipeStats::LookAtRunning() {
    auto &requests = numbers->requests;
    const uint64_t begun = Begun(requests);
    const uint64_t finished = Stats::Load(requests.finished) + Stats::Load(requests.firstFinished);
    Stats::AtMost(requests.running.most, Stats::Between(finished, begun));
}

void PipeStats::TimeCallback(uint64_t begunAt) {
    Stats::Time(numbers->callback, Stats::Between(begunAt, Stats::Now()));
}

bool PipeStats::CountCall() {
    auto &calls = numbers->calls;
    uint64_t number = 0;
    if (sender.IsOrBecomesThis()) {
        number = Stats::Load(calls.firstBegun);
        Stats::Store(calls.firstBegun, number + 1);
        Stats::Store(callsOfOthers, Stats::Load(calls.begun));
    } else {
        number = __atomic_fetch_add(&calls.begun, uint64_t{1}, __ATOMIC_RELAXED);
    }
    LookAtOutstanding();
    return Stats::IsTimedCall(number);
}

void PipeStats::LookAtOutstanding() {
    auto &calls = numbers->calls;
    const uint64_t begun = Begun(calls);
    uint64_t ended = Stats::Load(calls.firstAnswered);
    for (const uint64_t &end : calls.ended) {
        ended += Stats::Load(end);
    }
    Stats::AtMost(calls.outstanding.most, Stats::Between(ended, begun));
}

void PipeStats::CountCallEnd(unsigned end) { Stats::Count(numbers->calls.ended[end]); }

void PipeStats::TimeRoundTrip(uint64_t begunAt) {
    Stats::Time(numbers->roundTrip, Stats::Between(begunAt, Stats::Now()));
}

int PipeStats::Read(TarvoStatsPipe &copy) const { return slot.Read(copy) ? 0 : -ENODATA; }

CallStats::~CallStats() {
    TARVO_PROBE_CALL_END(handle, id, result);
    if (result == 0 && answered && !refused) {
        stats.CallAnswered(writtenAt, isTimed);
    } else {
        stats.CallEnds(End());
    }
}

unsigned CallStats::End() const {
    if (refused) {
        return TARVO_STATS_END_NOT_SENT;
    }
    // Without a response the pipe was closed between the sending and the wait.
    return result == 0 && !answered ? unsigned{TARVO_STATS_END_BROKEN} : Stats::CallEndOf(result);
}
