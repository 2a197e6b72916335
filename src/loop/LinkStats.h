#ifndef TARVO_LOOP_LINKSTATS_H
#define TARVO_LOOP_LINKSTATS_H

#include <array>
#include <cstdint>
#include <string>

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
    void Copy(TarvoStatsPipe &copy) const;
    // Where frames that are none are counted by reason; null when nothing is.
    uint64_t *Bad() const { return On() ? pipe->received.bad : nullptr; }

    // Its life. How long the open took, ns.
    uint64_t OpenEnded(int result);
    void RemoteClosed() { slot.RemoteClosed(); }
    // What the FIFO still holds is never read.
    void Closed(int readFd);

    // Sending. A frame is in the batch, and its sender has been told so.
    void Accepted(uint32_t kind, uint32_t size) {
        ++inBatch.frames;
        inBatch.bytes += size;
        if (kind != TARVO_STATS_ONE_WAY) {
            inBatch.others[kind - 1].Add(size);
        }
    }
    // It was added to the batch, and the write of that has ended with `flushed`.
    void Settled(int flushed, uint32_t kind, uint32_t size);
    void Refused(int result) const;
    // Of the batch: it is about to be written, has been, or cannot be any more.
    void Flushing();
    void Written() { waiting = 0; }
    void Lost();

    // Calls.
    void CallBegun();
    void CallEnded(int result);
    void CallNotSent();
    // By a frame that was read at `at`.
    void Answered(uint64_t callBegan, uint64_t at);
    void Answered(uint64_t callBegan) { Answered(callBegan, readAt); }
    void Late() { Stats::CountAlone(pipe->received.late); }

    // Receiving.
    void Read() {
        readAt = Stats::Now();
        afresh = true;
    }
    // A frame has been found. One that is to be timed is told when it was read.
    void Received(Frame &frame) {
        uint32_t kind = TARVO_STATS_ONE_WAY;
        ++found.frames;
        found.bytes += frame.size;
        if (frame.type == MSG_TYPE_RESPONSE || frame.timeout >= 0) {
            kind = frame.type == MSG_TYPE_RESPONSE ? TARVO_STATS_RESPONSE : TARVO_STATS_CALL;
            found.others[kind - 1].Add(frame.size);
        } else if (--untilTimed != 0) {
            return;
        }
        TimeInFifo(frame);
    }
    // All that has been found since waits for its callback.
    void Kept();
    void Dropped(uint32_t reason);

    // Callbacks for requests. Returned() tells whether the callback's end is still to be told by CallbackEnded().
    void CallbackBegins(const Frame &frame) {
        if (published) {
            ++begun;
        } else {
            PublishFirst();
        }
        if (frame.readAt != 0) {
            TimeWait(frame);
        }
    }
    bool CallbackReturned(const Frame &frame, bool isLast) {
        afresh = false;
        ++finished;
        return frame.readAt != 0 && EndTimed(isLast);
    }
    void CallbackEnded(uint64_t now) { Stats::TimeAlone(pipe->callback, Stats::Between(callbackAt, now)); }
    // Another callback of the program has run.
    void OtherReturned() { afresh = false; }

    void BeginTurn() { afresh = false; }
    void EndTurn();

private:
    struct Sum {
        void Add(uint64_t size) {
            ++frames;
            bytes += size;
        }
        uint64_t frames = 0;
        uint64_t bytes = 0;
    };
    // Of all kinds, and of those that are not one-way requests. Most are.
    struct Gathered : Sum {
        std::array<Sum, TARVO_STATS_KINDS - 1> others{};
    };

    static void Add(const Gathered &gathered, uint64_t *messages, uint64_t *bytes);
    void FoldReceived();
    void PublishFirst();
    void TimeInFifo(Frame &frame);
    void TimeWait(const Frame &frame);
    bool EndTimed(bool isLast);

    StatsSlot slot;
    TarvoStatsPipe *const pipe;
    const uint64_t madeAt; // ns, as all times here
    uint64_t readAt = 0;   // when what the reader holds was read
    uint64_t callbackAt = 0;
    bool afresh = false; // no callback has run since the read
    uint32_t untilTimed = 1;
    Gathered inBatch;       // not in the file yet
    Gathered found;         // not in the file yet
    uint64_t waiting = 0;   // frames of the batch that the file has
    bool published = false; // the first callback of this turn has been told of
    uint64_t begun = 0;     // further callbacks, not in the file yet
    uint64_t finished = 0;  // not in the file yet
    uint64_t outstanding = 0;
};

#endif // TARVO_LOOP_LINKSTATS_H
