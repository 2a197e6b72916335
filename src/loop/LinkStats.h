#ifndef TARVO_LOOP_LINKSTATS_H
#define TARVO_LOOP_LINKSTATS_H

#include <array>
#include <cstdint>
#include <string>

#include "loop/FrameBatch.h"
#include "loop/FrameReader.h"
#include "stats/Stats.h"
#include "stats/StatsSlot.h"
#include "tarvo_stats.h"

// The numbers of one link. What comes with each message gathers here, and is added to the statistics file once per
// batch, and once per turn. Every function but On() is for a link that is counted.
//
// The clock is looked at once per read, and otherwise where it is looked at anyway, as far as that goes: the first
// callback of a read begins with the read, and the last of a turn ends with the loop's next look (TarvoLoop::Look).
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

    // Sending. Of a frame that the batch has taken and that is no one-way request: of those there are the most, so that
    // they are what else the batch holds.
    void Accepted(uint32_t kind, uint32_t size) { inBatch[kind].Add(size); }
    // The last frame of the batch is to go with it at once, and is not counted before that has come to its end.
    void Fresh(uint32_t size) { fresh = {1, size}; }
    void Settled(int flushed, uint32_t kind);
    void Refused(int result) const;
    // The batch is about to be written, has been, or cannot be any more.
    void Flushing(const FrameBatch &batch);
    void Written() { counted = {}; }
    void Lost(const FrameBatch &batch);

    // Calls.
    void CallBegun();
    void CallEnded(int result);
    void CallNotSent();
    void Answered(uint64_t callBegan);
    void Late();

    // Receiving. The reader is empty, and is fed what has been read now.
    void Read() {
        readAt = Stats::Now();
        afresh = true;
        isKept = false;
    }
    // A frame is kept for later, or comes from there; it was read at `at`.
    uint64_t ReadAt() const { return readAt; }
    void Keep(const Frame &frame);
    void KeptFolded(FrameReader &reader);
    void TakeKept(const Frame &frame, uint64_t at);
    // A response comes to its end, or a request to nothing.
    void TakeResponse(const Frame &frame);
    void Dropped(const Frame &frame, uint32_t reason, FrameReader &reader);
    // One that is kept, or that the reader has not come to, never gets anywhere. `isCounted`: it is kept.
    void Unread(const Frame &frame, bool isCounted);

    // Callbacks for requests. Whether nothing is to be done for this one: a one-way request that is not timed.
    bool IsPlain(const Frame &frame) { return frame.timeout < 0 && --untilSlow != 0; }
    void CallbackBegins(const Frame &frame, FrameReader &reader);
    // Whether its end is still to be told, by CallbackEnded().
    bool CallbackReturned(bool isLast);
    void CallbackEnded(uint64_t now) { Stats::TimeAlone(pipe->callback, Stats::Between(callbackAt, now)); }
    class Other;

    void BeginTurn() {
        afresh = false;
        untilTimed = untilSlow;
        untilSlow = 1;
    }
    void EndTurn(FrameReader &reader);

private:
    using Sums = std::array<FrameSum, TARVO_STATS_KINDS>;

    // `all` are those of all kinds, `others` those that are not one-way.
    static void Add(FrameSum all, const Sums &others, uint64_t *messages, uint64_t *bytes);
    uint64_t BegunAfter(const TarvoStatsPipe &numbers) const;
    void FoldReceived(FrameReader &reader);
    void TimeInFifo(const Frame &frame);

    StatsSlot slot;
    TarvoStatsPipe *const pipe;
    const uint64_t madeAt; // ns, as all times here
    uint64_t readAt = 0;   // when what the reader holds was read, or what has been kept
    uint64_t callbackAt = 0;

    Sums inBatch{};     // not in the file yet
    FrameSum counted{}; // those of the batch that the file has
    FrameSum fresh{};
    Sums found{}; // not in the file yet
    uint64_t outstanding = 0;
    uint64_t kept = 0; // requests

    bool afresh = false;    // no callback has run since the read
    bool isKept = false;    // the frame at hand is counted already
    bool isTimed = false;   // the callback
    bool published = false; // that callbacks for requests run in this turn
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
