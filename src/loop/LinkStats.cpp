#include "loop/LinkStats.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <utility>

#include "stats/StatsFile.h"

namespace {

using Stats::AtMostAlone;
using Stats::Between;
using Stats::Count;
using Stats::CountAlone;
using Stats::Load;
using Stats::TimeAlone;

uint32_t KindOf(const Frame &frame) {
    if (frame.type == MSG_TYPE_RESPONSE) {
        return TARVO_STATS_RESPONSE;
    }
    return frame.timeout < 0 ? TARVO_STATS_ONE_WAY : TARVO_STATS_CALL;
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

void LinkStats::Copy(const FrameBatch &batch, const FrameReader &reader, TarvoStatsPipe &copy) const {
    copy = *pipe;
    copy.sent.messages[TARVO_STATS_ONE_WAY] += batch.Frames() - counted.frames;
    copy.sent.bytes[TARVO_STATS_ONE_WAY] += batch.PayloadBytes() - counted.bytes;
    copy.received.messages[TARVO_STATS_ONE_WAY] += reader.Sum().frames;
    copy.received.bytes[TARVO_STATS_ONE_WAY] += reader.Sum().bytes;
    copy.requests.begun = BegunAfter(copy);
    copy.requests.finished = copy.requests.begun - (running && !inOther ? 1 : 0);
    Stats::SetLevels(copy);
}

uint64_t LinkStats::OpenEnded(int result) {
    const uint64_t ns = Between(madeAt, Stats::Now());
    TarvoStatsHeader &header = StatsFile::Get()->Header();
    Count(header.opens[Stats::OpenEndOf(result)]);
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
    slot.Closed();
}

void LinkStats::Refused(int result) const { CountAlone(pipe->sent.refused[Stats::RefusalOf(result)]); }

void LinkStats::CountOneWays(const FrameBatch &batch) {
    CountAlone(pipe->sent.messages[TARVO_STATS_ONE_WAY], batch.Frames() - counted.frames);
    CountAlone(pipe->sent.bytes[TARVO_STATS_ONE_WAY], batch.PayloadBytes() - counted.bytes);
    counted = {batch.Frames(), batch.PayloadBytes()};
}

void LinkStats::Lost(const FrameBatch &batch) {
    Flushing(batch);
    CountAlone(pipe->sent.lost, std::exchange(counted, {}).frames - fresh);
}

void LinkStats::CallEnded(int result) {
    --outstanding;
    CountAlone(pipe->calls.ended[Stats::CallEndOf(result)]);
}

void LinkStats::CallNotSent() {
    CountAlone(pipe->calls.begun);
    CountAlone(pipe->calls.ended[TARVO_STATS_END_NOT_SENT]);
}

void LinkStats::Answered(uint64_t callBegan) {
    uint64_t &answered = pipe->calls.ended[TARVO_STATS_END_ANSWERED];
    const uint64_t number = Load(answered);
    --outstanding;
    Stats::Store(answered, number + 1);
    if (Stats::IsTimedCall(number)) {
        TimeAlone(pipe->roundTrip, Between(callBegan, ReadAt()));
    } else {
        Stats::NoteRoundTrip(pipe->roundTrip, callBegan);
    }
}

void LinkStats::Late() { CountAlone(pipe->received.late); }

void LinkStats::TimeInFifo(const Frame &frame) {
    // Peers may leave it out.
    if (frame.writeStartTime > 0) {
        const auto written = static_cast<uint64_t>(frame.writeStartTime) * Stats::NS_PER_US;
        TimeAlone(pipe->inFifo, Between(written, ReadAt()));
    }
}

void LinkStats::CountOneWays(FrameReader &reader) {
    const FrameSum all = reader.TakeSum();
    CountAlone(pipe->received.messages[TARVO_STATS_ONE_WAY], all.frames);
    CountAlone(pipe->received.bytes[TARVO_STATS_ONE_WAY], all.bytes);
}

void LinkStats::Keep(const Frame &frame, FrameReader &reader) {
    const uint32_t kind = KindOf(frame);
    if (kind != TARVO_STATS_ONE_WAY) {
        CountReceived(kind, frame, reader);
    }
    kept += kind == TARVO_STATS_RESPONSE ? 0 : 1;
}

void LinkStats::TakeKept(const Frame &frame, uint64_t at) {
    readAt = at;
    isKept = true;
    kept -= frame.type == MSG_TYPE_REQUEST ? 1 : 0;
}

void LinkStats::CountDropped(uint32_t reason) {
    ++dropped;
    CountAlone(pipe->requests.dropped[reason]);
}

void LinkStats::Dropped(const Frame &frame, uint32_t reason, FrameReader &reader) {
    if (!isKept && frame.timeout >= 0) {
        CountReceived(TARVO_STATS_CALL, frame, reader);
    }
    FoldReceived(reader);
    CountDropped(reason);
}

void LinkStats::Unread(const Frame &frame, bool isCounted) {
    const uint32_t kind = KindOf(frame);
    if (!isCounted) {
        CountAlone(pipe->received.messages[kind]);
        CountAlone(pipe->received.bytes[kind], frame.size);
    } else if (kind != TARVO_STATS_RESPONSE) {
        --kept;
    }
    if (kind == TARVO_STATS_RESPONSE) {
        Late();
    } else {
        CountDropped(TARVO_STATS_DROP_CLOSING);
    }
}

// Others see that a callback runs, and how many have, with each call and with the first one-way request of a turn; of
// the rest they hear at the next of these, or at its end.
void LinkStats::CallbackBegins(const Frame &frame, FrameReader &reader) {
    const bool isCall = frame.timeout >= 0;
    isTimed = isCall && Stats::IsTimedCall(Load(pipe->received.messages[TARVO_STATS_CALL]) - (isKept ? kept + 1 : 0));
    if (isCall && !isKept) {
        CountReceived(TARVO_STATS_CALL, frame, reader);
    } else if (!isCall && !published) {
        published = true;
        untilSlow = untilTimed - 1;
    }
    FoldReceived(reader);
    const uint64_t now = BegunAfter(*pipe);
    Stats::Store(pipe->requests.finished, now - 1);
    Stats::Store(pipe->requests.begun, now);
    if (!running) {
        running = true;
        begun = now;
        AtMostAlone(pipe->requests.running.most, 1);
    }
    if (untilSlow == 0) {
        untilSlow = Stats::ONE_WAYS_PER_TIME;
        isTimed = true;
    }
    if (isTimed) {
        BeginTimed(frame);
    }
}

__attribute__((noinline)) void LinkStats::BeginTimed(const Frame &frame) {
    callbackAt = afresh ? ReadAt() : Stats::Now();
    TimeAlone(pipe->wait, Between(ReadAt(), callbackAt));
    TimeInFifo(frame);
}

bool LinkStats::EndTimed(bool isLast) {
    if (!isLast) {
        CallbackEnded(Stats::Now());
    }
    return isLast;
}

void LinkStats::EndCallbacks() {
    running = false;
    const uint64_t now = BegunAfter(*pipe);
    // They had come with the first one.
    AtMostAlone(pipe->requests.queued.most, now - begun);
    Stats::Store(pipe->requests.begun, now);
    Stats::Store(pipe->requests.finished, now);
}
