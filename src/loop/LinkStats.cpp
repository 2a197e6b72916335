#include "loop/LinkStats.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <numeric>

#include "loop/Calls.h"
#include "stats/StatsFile.h"

namespace {

using Stats::AtMostAlone;
using Stats::Between;
using Stats::Count;
using Stats::CountAlone;
using Stats::Load;
using Stats::TimeAlone;

uint32_t ReasonOf(int result) {
    switch (result) {
    case -EAGAIN:
        return TARVO_STATS_SEND_FULL;
    case -EPIPE:
        return TARVO_STATS_SEND_BROKEN;
    default:
        return TARVO_STATS_SEND_OTHER;
    }
}

uint32_t EndOf(int result) {
    switch (result) {
    case 0:
        return TARVO_STATS_END_ANSWERED;
    case -ETIMEDOUT:
        return TARVO_STATS_END_TIMED_OUT;
    case -EPIPE:
        return TARVO_STATS_END_BROKEN;
    case -ECANCELED:
        return TARVO_STATS_END_CANCELED;
    default:
        return TARVO_STATS_END_OTHER;
    }
}

uint32_t OpenEndOf(int result) {
    switch (result) {
    case 0:
        return TARVO_STATS_OPEN_OK;
    case -ETIMEDOUT:
        return TARVO_STATS_OPEN_TIMED_OUT;
    case -ENXIO:
    case -ENOENT:
        return TARVO_STATS_OPEN_NO_SERVER;
    case -EACCES:
    case -EPERM:
        return TARVO_STATS_OPEN_REFUSED;
    default:
        return TARVO_STATS_OPEN_OTHER;
    }
}

uint64_t Requests(const uint64_t *messages) {
    return Load(messages[TARVO_STATS_ONE_WAY]) + Load(messages[TARVO_STATS_CALL]);
}

// Those that the file leaves to its reader.
void SetLevels(TarvoStatsPipe &copy) {
    const uint64_t gone =
        std::accumulate(copy.requests.dropped, copy.requests.dropped + TARVO_STATS_DROP_REASONS, copy.requests.begun);
    copy.requests.queued.now = Between(gone, Requests(copy.received.messages));
    copy.requests.running.now = Between(copy.requests.finished, copy.requests.begun);
    copy.calls.outstanding.now =
        Between(std::accumulate(copy.calls.ended, copy.calls.ended + TARVO_STATS_ENDS, uint64_t{0}), copy.calls.begun);
}

} // namespace

LinkStats::LinkStats(const std::string &self, const std::string &remote)
    : slot({TARVO_STATS_PIPE, TARVO_STATS_LOOP, 0, self, remote}), pipe(slot.Pipe()), madeAt(On() ? Stats::Now() : 0) {
    slot.Opening();
}

LinkStats::~LinkStats() {
    if (On()) {
        // Nobody is told of them any more.
        CountAlone(pipe->calls.ended[TARVO_STATS_END_CANCELED], outstanding);
        slot.Closed();
    }
}

void LinkStats::Copy(TarvoStatsPipe &copy) const {
    copy = *pipe;
    Add(inBatch, copy.sent.messages, copy.sent.bytes);
    Add(found, copy.received.messages, copy.received.bytes);
    copy.requests.begun += begun;
    copy.requests.finished += finished;
    SetLevels(copy);
}

uint64_t LinkStats::OpenEnded(int result) {
    const uint64_t ns = Between(madeAt, Stats::Now());
    TarvoStatsHeader &header = StatsFile::Get()->Header();
    Count(header.opens[OpenEndOf(result)]);
    if (result == 0) {
        Stats::Time(header.openTime, ns);
        slot.Opened();
    }
    return ns;
}

void LinkStats::Closed(int readFd) {
    int left = 0;
    if (readFd >= 0 && ioctl(readFd, FIONREAD, &left) == 0 && left > 0) {
        CountAlone(pipe->received.unread, static_cast<uint64_t>(left));
    }
    EndTurn();
    slot.Closed();
}

void LinkStats::Add(const Gathered &gathered, uint64_t *messages, uint64_t *bytes) {
    Sum oneWays = gathered;
    for (uint32_t kind = TARVO_STATS_CALL; kind < TARVO_STATS_KINDS; ++kind) {
        const Sum &others = gathered.others[kind - 1];
        oneWays.frames -= others.frames;
        oneWays.bytes -= others.bytes;
        CountAlone(messages[kind], others.frames);
        CountAlone(bytes[kind], others.bytes);
    }
    CountAlone(messages[TARVO_STATS_ONE_WAY], oneWays.frames);
    CountAlone(bytes[TARVO_STATS_ONE_WAY], oneWays.bytes);
}

void LinkStats::Settled(int flushed, uint32_t kind, uint32_t size) {
    if (flushed != 0 && flushed != -EAGAIN) {
        Refused(flushed);
        return;
    }
    CountAlone(pipe->sent.messages[kind]);
    CountAlone(pipe->sent.bytes[kind], size);
    waiting += flushed == 0 ? 0 : 1;
}

void LinkStats::Refused(int result) const { CountAlone(pipe->sent.refused[ReasonOf(result)]); }

void LinkStats::Flushing() {
    if (inBatch.frames != 0) {
        Add(inBatch, pipe->sent.messages, pipe->sent.bytes);
        waiting += inBatch.frames;
        inBatch = {};
    }
}

void LinkStats::Lost() {
    Flushing();
    CountAlone(pipe->sent.lost, waiting);
    waiting = 0;
}

void LinkStats::CallBegun() {
    CountAlone(pipe->calls.begun);
    AtMostAlone(pipe->calls.outstanding.most, ++outstanding);
}

void LinkStats::CallEnded(int result) {
    --outstanding;
    CountAlone(pipe->calls.ended[EndOf(result)]);
}

void LinkStats::CallNotSent() {
    CountAlone(pipe->calls.begun);
    CountAlone(pipe->calls.ended[TARVO_STATS_END_NOT_SENT]);
}

void LinkStats::Answered(uint64_t callBegan, uint64_t at) {
    CallEnded(0);
    TimeAlone(pipe->roundTrip, Between(callBegan, at));
}

void LinkStats::TimeInFifo(Frame &frame) {
    frame.readAt = readAt;
    // Peers may leave it out.
    if (frame.writeStartTime > 0) {
        const auto written = static_cast<uint64_t>(frame.writeStartTime) * Stats::NS_PER_US;
        TimeAlone(pipe->inFifo, Between(written, readAt));
    }
    untilTimed = frame.type == MSG_TYPE_REQUEST && frame.timeout < 0 ? Stats::ONE_WAYS_PER_TIME : untilTimed;
}

void LinkStats::FoldReceived() {
    if (found.frames != 0) {
        Add(found, pipe->received.messages, pipe->received.bytes);
        found = {};
    }
}

void LinkStats::Kept() {
    FoldReceived();
    const uint64_t gone = std::accumulate(pipe->requests.dropped, pipe->requests.dropped + TARVO_STATS_DROP_REASONS,
                                          Load(pipe->requests.begun));
    AtMostAlone(pipe->requests.queued.most, Between(gone, Requests(pipe->received.messages)));
}

void LinkStats::Dropped(uint32_t reason) {
    FoldReceived();
    CountAlone(pipe->requests.dropped[reason]);
}

// Others see that a callback runs, and how many have, from the first of a turn on; of the rest they hear at its end.
void LinkStats::PublishFirst() {
    published = true;
    FoldReceived();
    CountAlone(pipe->requests.begun);
    AtMostAlone(pipe->requests.running.most, 1);
}

void LinkStats::TimeWait(const Frame &frame) {
    callbackAt = afresh ? readAt : Stats::Now();
    TimeAlone(pipe->wait, Between(frame.readAt, callbackAt));
}

bool LinkStats::EndTimed(bool isLast) {
    if (!isLast) {
        CallbackEnded(Stats::Now());
    }
    return isLast;
}

void LinkStats::EndTurn() {
    FoldReceived();
    published = false;
    if (begun != 0 || finished != 0) {
        CountAlone(pipe->requests.begun, begun);
        CountAlone(pipe->requests.finished, finished);
        // They had come with the one before them.
        AtMostAlone(pipe->requests.queued.most, begun);
        begun = 0;
        finished = 0;
    }
}
