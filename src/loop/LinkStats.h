#ifndef TARVO_LOOP_LINKSTATS_H
#define TARVO_LOOP_LINKSTATS_H

#include <cerrno>
#include <cstdint>
#include <string>

#include "loop/FrameBatch.h"
#include "loop/FrameReader.h"
#include "stats/Stats.h"
#include "stats/StatsSlot.h"
#include "tarvo_stats.h"

// The numbers of one link. Of one-way requests, of which there are the most, only the batch and the reader know how
// many they have: those are added to the statistics file once per batch, and once per turn. Calls and responses are
// counted each, and left out of the others' number. Every function but On() is for a link that is counted.
//
// The clock is looked at for those that are timed, and there where it is looked at anyway, as far as that goes: the
// first callback of a read begins with the read, and the last of a turn ends with the loop's next look
// (TarvoLoop::Look).
// Owns: its place in the file. Threads: that of the loop. Locks: none. Ends: with its link.
class LinkStats {
public:
    LinkStats(const std::string &self, const std::string &remote);
    ~LinkStats();
    LinkStats(const LinkStats &) = delete;
    LinkStats &operator=(const LinkStats &) = delete;

    // Whether the link is counted.
    bool On() const { return pipe != nullptr; }

    // The file's numbers with those that have not got there yet.
    void Copy(const FrameBatch &batch, const FrameReader &reader, TarvoStatsPipe &copy) const;
    // Where frames that are none are counted by reason; null when nothing is.
    uint64_t *Bad() const { return On() ? pipe->received.bad : nullptr; }

    // Its life. How long the open took, ns.
    uint64_t OpenEnded(int result);
    void RemoteClosed() { slot.RemoteClosed(); }
    // What the FIFO still holds is never read.
    void Closed(int readFd);

    // Sending. Of a frame that the batch has taken and that is no one-way request.
    void Accepted(uint32_t kind, uint32_t size) {
        counted.Add(size);
        CountSent(kind, size);
    }
    // The last frame of the batch is to go with it at once, and is not counted before that has come to its end.
    void Fresh(uint32_t size) {
        counted.Add(size);
        fresh = 1;
    }
    void Settled(int flushed, uint32_t kind, uint32_t size) {
        fresh = 0;
        flushed == 0 || flushed == -EAGAIN ? CountSent(kind, size) : Refused(flushed);
    }
    void Refused(int result) const;
    // The batch is about to be written, has been, or cannot be any more.
    void Flushing(const FrameBatch &batch) {
        if (batch.Frames() != counted.frames) {
            CountOneWays(batch);
        }
    }
    void Written() { counted = {}; }
    void Lost(const FrameBatch &batch);

    // Calls.
    void CallBegun() {
        Stats::CountAlone(pipe->calls.begun);
        Stats::AtMostAlone(pipe->calls.outstanding.most, ++outstanding);
    }
    void CallEnded(int result);
    void CallNotSent();
    void Answered(uint64_t callBegan);
    void Late();

    // Receiving. The reader is empty, and is fed what has been read now.
    void Read(const FrameReader &reader) {
        // Of a frame that has come alone it is known later too, if anybody wants to.
        readAt = reader.IsOneFrame() ? 0 : Stats::Now();
        afresh = true;
        isKept = false;
    }
    // A frame is kept for later, or comes from there; it was read at `at`.
    uint64_t ReadAt() {
        readAt = readAt == 0 ? Stats::Now() : readAt;
        return readAt;
    }
    void Keep(const Frame &frame, FrameReader &reader);
    void KeptFolded(FrameReader &reader) {
        FoldReceived(reader);
        Stats::AtMostAlone(pipe->requests.queued.most, kept);
    }
    void TakeKept(const Frame &frame, uint64_t at);
    // A response comes to its end, or a request to nothing.
    void TakeResponse(const Frame &frame, FrameReader &reader) {
        const uint64_t number = Stats::Load(pipe->received.messages[TARVO_STATS_RESPONSE]);
        if (!isKept) {
            CountReceived(TARVO_STATS_RESPONSE, frame, reader);
        }
        if (number % Stats::ONE_WAYS_PER_TIME == 0) {
            TimeInFifo(frame);
        }
    }
    void Dropped(const Frame &frame, uint32_t reason, FrameReader &reader);
    // One that is kept, or that the reader has not come to, never gets anywhere. `isCounted`: it is kept.
    void Unread(const Frame &frame, bool isCounted);

    // Callbacks for requests. Whether nothing is to be done for this one: a one-way request that is not timed.
    bool IsPlain(const Frame &frame) { return frame.timeout < 0 && --untilSlow != 0; }
    void CallbackBegins(const Frame &frame, FrameReader &reader);
    // Whether its end is still to be told, by CallbackEnded().
    bool CallbackReturned(bool isLast) {
        afresh = false;
        return isTimed && EndTimed(isLast);
    }
    void CallbackEnded(uint64_t now) { Stats::TimeAlone(pipe->callback, Stats::Between(callbackAt, now)); }
    class Other;

    void BeginTurn() {
        afresh = false;
        untilTimed = untilSlow;
        untilSlow = 1;
    }
    void EndTurn(FrameReader &reader) {
        FoldReceived(reader);
        untilSlow = published ? untilSlow : untilTimed;
        published = false;
        if (running) {
            EndCallbacks();
        }
        // What it still holds was read before others run.
        if (readAt == 0 && reader.HasUnread()) {
            readAt = Stats::Now();
        }
    }

private:
    void CountSent(uint32_t kind, uint32_t size) {
        Stats::CountAlone(pipe->sent.messages[kind]);
        Stats::CountAlone(pipe->sent.bytes[kind], size);
    }
    void CountOneWays(const FrameBatch &batch);
    // One that is no one-way request.
    void CountReceived(uint32_t kind, const Frame &frame, FrameReader &reader) {
        Stats::CountAlone(pipe->received.messages[kind]);
        Stats::CountAlone(pipe->received.bytes[kind], frame.size);
        reader.LeaveOut(frame.size);
    }
    void FoldReceived(FrameReader &reader) {
        if (reader.Sum().frames != 0) {
            CountOneWays(reader);
        }
    }
    void CountOneWays(FrameReader &reader);
    // Every request that has come has been begun, unless it was dropped or is kept.
    uint64_t BegunAfter(const TarvoStatsPipe &numbers) const {
        return Stats::Load(numbers.received.messages[TARVO_STATS_ONE_WAY]) +
               Stats::Load(numbers.received.messages[TARVO_STATS_CALL]) - dropped - kept;
    }
    void CountDropped(uint32_t reason);
    void BeginTimed(const Frame &frame);
    bool EndTimed(bool isLast);
    void EndCallbacks();
    void TimeInFifo(const Frame &frame);

    StatsSlot slot;
    TarvoStatsPipe *const pipe;
    const uint64_t madeAt; // ns, as all times here
    uint64_t readAt = 0;   // when what the reader holds was read, or what has been kept; 0: just now
    uint64_t callbackAt = 0;

    FrameSum counted{}; // those of the batch that the file has, or is to have once the fresh one has gone
    uint64_t fresh = 0; // of them
    uint64_t begun = 0; // callbacks, with the first one of the turn
    uint64_t dropped = 0;
    uint64_t outstanding = 0;
    uint64_t kept = 0; // requests

    bool afresh = false;    // no callback has run since the read
    bool isKept = false;    // the frame at hand is counted already
    bool isTimed = false;   // the callback
    bool published = false; // that callbacks for one-way requests run in this turn
    bool running = false;   // callbacks for requests, in this turn
    bool inOther = false;
    uint32_t untilSlow = 1;  // one-way requests until there is something to do for one
    uint32_t untilTimed = 1; // in a turn that has not been published: until one is timed
};

// Another callback of a link, which may be one that is not counted, runs.
// Owns: nothing. Threads, Locks: as LinkStats. Ends: with the callback.
class LinkStats::Other {
public:
    explicit Other(LinkStats &link) : stats(link) { stats.inOther = true; }
    ~Other() {
        stats.inOther = false;
        stats.afresh = false;
    }
    Other(const Other &) = delete;
    Other &operator=(const Other &) = delete;

private:
    LinkStats &stats;
};

#endif // TARVO_LOOP_LINKSTATS_H
