#include "loop/LinkStats.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <numeric>
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

uint64_t Requests(const uint64_t *messages) {
    return Load(messages[TARVO_STATS_ONE_WAY]) + Load(messages[TARVO_STATS_CALL]);
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
    Add({batch.Frames() - counted.frames, batch.PayloadBytes() - counted.bytes}, inBatch, copy.sent.messages,
        copy.sent.bytes);
    Add(reader.Sum(), found, copy.received.messages, copy.received.bytes);
    copy.requests.begun = BegunAfter(copy);
    copy.requests.finished = copy.requests.begun - (published && !inOther ? 1 : 0);
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

void LinkStats::Add(FrameSum all, const Sums &others, uint64_t *messages, uint64_t *bytes) {
    for (uint32_t kind = TARVO_STATS_CALL; kind < TARVO_STATS_KINDS; ++kind) {
        if (others[kind].frames != 0) {
            all.frames -= others[kind].frames;
            all.bytes -= others[kind].bytes;
            CountAlone(messages[kind], others[kind].frames);
            CountAlone(bytes[kind], others[kind].bytes);
        }
    }
    if (all.frames != 0) {
        CountAlone(messages[TARVO_STATS_ONE_WAY], all.frames);
        CountAlone(bytes[TARVO_STATS_ONE_WAY], all.bytes);
    }
}

void LinkStats::Settled(int flushed, uint32_t kind) {
    const FrameSum one = std::exchange(fresh, {});
    if (flushed != 0 && flushed != -EAGAIN) {
        Refused(flushed);
        return;
    }
    CountAlone(pipe->sent.messages[kind]);
    CountAlone(pipe->sent.bytes[kind], one.bytes);
    if (flushed == -EAGAIN) {
        counted.Add(one.bytes);
    }
}

void LinkStats::Refused(int result) const { CountAlone(pipe->sent.refused[Stats::RefusalOf(result)]); }

void LinkStats::Flushing(const FrameBatch &batch) {
    const FrameSum all{batch.Frames() - counted.frames - fresh.frames,
                       batch.PayloadBytes() - counted.bytes - fresh.bytes};
    if (all.frames != 0) {
        Add(all, std::exchange(inBatch, {}), pipe->sent.messages, pipe->sent.bytes);
        counted.frames += all.frames;
        counted.bytes += all.bytes;
    }
}

void LinkStats::Lost(const FrameBatch &batch) {
    Flushing(batch);
    CountAlone(pipe->sent.lost, std::exchange(counted, {}).frames);
}

void LinkStats::CallBegun() {
    CountAlone(pipe->calls.begun);
    AtMostAlone(pipe->calls.outstanding.most, ++outstanding);
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
    CallEnded(0);
    TimeAlone(pipe->roundTrip, Between(callBegan, readAt));
}

void LinkStats::Late() { CountAlone(pipe->received.late); }

void LinkStats::TimeInFifo(const Frame &frame) {
    // Peers may leave it out.
    if (frame.writeStartTime > 0) {
        const auto written = static_cast<uint64_t>(frame.writeStartTime) * Stats::NS_PER_US;
        TimeAlone(pipe->inFifo, Between(written, readAt));
    }
}

void LinkStats::FoldReceived(FrameReader &reader) {
    const FrameSum all = reader.TakeSum();
    if (all.frames != 0) {
        Add(all, std::exchange(found, {}), pipe->received.messages, pipe->received.bytes);
    }
}

void LinkStats::Keep(const Frame &frame) {
    const uint32_t kind = KindOf(frame);
    if (kind != TARVO_STATS_ONE_WAY) {
        found[kind].Add(frame.size);
    }
    kept += kind == TARVO_STATS_RESPONSE ? 0 : 1;
}

void LinkStats::KeptFolded(FrameReader &reader) {
    FoldReceived(reader);
    AtMostAlone(pipe->requests.queued.most, kept);
}

void LinkStats::TakeKept(const Frame &frame, uint64_t at) {
    readAt = at;
    isKept = true;
    kept -= frame.type == MSG_TYPE_REQUEST ? 1 : 0;
}

void LinkStats::TakeResponse(const Frame &frame) {
    if (!isKept) {
        found[TARVO_STATS_RESPONSE].Add(frame.size);
    }
    TimeInFifo(frame);
}

void LinkStats::Dropped(const Frame &frame, uint32_t reason, FrameReader &reader) {
    if (!isKept && frame.timeout >= 0) {
        found[TARVO_STATS_CALL].Add(frame.size);
    }
    FoldReceived(reader);
    CountAlone(pipe->requests.dropped[reason]);
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
        CountAlone(pipe->requests.dropped[TARVO_STATS_DROP_CLOSING]);
    }
}

// Others see that a callback runs, and how many have, from the first of a turn on; of the rest they hear at its end.
void LinkStats::CallbackBegins(const Frame &frame, FrameReader &reader) {
    isTimed = frame.timeout >= 0;
    if (isTimed && !isKept) {
        found[TARVO_STATS_CALL].Add(frame.size);
    }
    if (!published) {
        published = true;
        untilSlow = untilTimed - (isTimed ? 0 : 1);
        FoldReceived(reader);
        Stats::Store(pipe->requests.begun, BegunAfter(*pipe));
        AtMostAlone(pipe->requests.running.most, 1);
    }
    if (untilSlow == 0) {
        untilSlow = Stats::ONE_WAYS_PER_TIME;
        isTimed = true;
    }
    if (isTimed) {
        callbackAt = afresh ? readAt : Stats::Now();
        TimeAlone(pipe->wait, Between(readAt, callbackAt));
        TimeInFifo(frame);
    }
}

bool LinkStats::CallbackReturned(bool isLast) {
    afresh = false;
    if (isTimed && !isLast) {
        CallbackEnded(Stats::Now());
    }
    return isTimed && isLast;
}

// Every request that has come has been begun, unless it was dropped or is kept.
uint64_t LinkStats::BegunAfter(const TarvoStatsPipe &numbers) const {
    const uint64_t gone =
        std::accumulate(numbers.requests.dropped, numbers.requests.dropped + TARVO_STATS_DROP_REASONS, kept);
    return Requests(numbers.received.messages) - gone;
}

void LinkStats::EndTurn(FrameReader &reader) {
    FoldReceived(reader);
    if (!published) {
        untilSlow = untilTimed;
        return;
    }
    published = false;
    const uint64_t begun = BegunAfter(*pipe);
    // They had come with the one before them.
    AtMostAlone(pipe->requests.queued.most, begun - Load(pipe->requests.begun));
    Stats::Store(pipe->requests.begun, begun);
    Stats::Store(pipe->requests.finished, begun);
}
