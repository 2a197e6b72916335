#ifndef TARVO_PIPE_PIPESTATS_H
#define TARVO_PIPE_PIPESTATS_H

#include <cerrno>
#include <cstdint>
#include <string>

#include "pipe/Message.h"
#include "stats/Stats.h"
#include "stats/StatsSlot.h"
#include "tarvo_stats.h"

// What one pipe counts. Where nothing is counted, each step is one look at a pointer, and the rest is kept out of the
// way of the messages.
// Owns: the pipe's place in the statistics file, if any. Threads: Received and what it leads to is the receive
// thread's; the rest any. Locks: none. Ends: when nobody is inside the pipe any more.
class PipeStats {
public:
    // Before other threads know the pipe.
    void Begin(int handle, const std::string &name, const std::string &remote);
    bool IsOn() const { return numbers != nullptr; }
    StatsSlot &Slot() { return slot; }

    // A frame that was to be written: 0, or why it was not.
    void Sent(unsigned kind, uint32_t bytes, int result) {
        if (!IsOn()) {
            return;
        }
        if (result >= 0 && sender.IsThis()) {
            CountSentFirst(kind, bytes);
        } else {
            CountSent(kind, bytes, result);
        }
    }

    // A whole and right frame; makes the message tell when it was read, if it is one of those that are timed.
    void Received(const MsgHead &head, InMessage &msg) {
        if (IsOn()) {
            CountReceived(head, msg);
        }
    }
    void Bad(unsigned reason) {
        if (IsOn()) {
            Stats::CountAlone(numbers->received.bad[reason]);
        }
    }
    void NoMemory() {
        if (IsOn()) {
            Stats::CountAlone(numbers->received.noMemory);
        }
    }
    // A response that nobody waits for. Any thread.
    void Late() {
        if (IsOn()) {
            Stats::Count(numbers->received.late);
        }
    }
    // Before the read end is closed.
    void LeavesUnread(int readFd) {
        if (IsOn() && readFd >= 0) {
            CountUnread(readFd);
        }
    }

    void Dropped(unsigned reason, uint64_t requests = 1) {
        if (IsOn()) {
            Stats::Count(numbers->requests.dropped[reason], requests);
        }
    }
    // When it began, or 0 if the request is not timed; `readAt` is InMessage::readAt.
    uint64_t CallbackBegins(uint64_t readAt) {
        if (!IsOn()) {
            return 0;
        }
        // Not alone where callbacks run one by one either: one may still run on the worker that a close has given back
        // while the next begins on another.
        auto &requests = numbers->requests;
        if (runner.IsThis() && Stats::Load(requests.begun) == Stats::Load(callbacksOfOthers)) {
            Stats::CountAlone(requests.firstBegun);
        } else {
            CountBegin();
        }
        return readAt == 0 ? 0 : TimeWait(readAt);
    }
    void CallbackEnds(uint64_t begunAt) {
        if (!IsOn()) {
            return;
        }
        auto &requests = numbers->requests;
        runner.IsThis() ? Stats::CountAlone(requests.firstFinished) : Stats::Count(requests.finished);
        if (begunAt != 0) {
            TimeCallback(begunAt);
        }
    }

    // Whether the call is timed.
    bool CallBegins() {
        if (!IsOn()) {
            return false;
        }
        auto &calls = numbers->calls;
        if (!sender.IsThis() || Stats::Load(calls.begun) != Stats::Load(callsOfOthers)) {
            return CountCall();
        }
        const uint64_t number = Stats::Load(calls.firstBegun);
        Stats::Store(calls.firstBegun, number + 1);
        return Stats::IsTimedCall(number);
    }
    void CallEnds(unsigned end) {
        if (IsOn()) {
            CountCallEnd(end);
        }
    }
    // The same for one with its response. `begunAt`: when its request was written.
    void CallAnswered(uint64_t begunAt, bool isTimed) {
        if (!IsOn()) {
            return;
        }
        auto &calls = numbers->calls;
        sender.IsThis() ? Stats::CountAlone(calls.firstAnswered) : Stats::Count(calls.ended[TARVO_STATS_END_ANSWERED]);
        isTimed ? TimeRoundTrip(begunAt) : Stats::NoteRoundTrip(numbers->roundTrip, begunAt);
    }

    // A copy of them, with the levels worked out: 0, or -ENODATA.
    int Read(TarvoStatsPipe &copy) const;

private:
    void CountSentFirst(unsigned kind, uint32_t bytes) {
        Stats::CountAlone(numbers->sent.firstMessages[kind]);
        Stats::CountAlone(numbers->sent.firstBytes[kind], bytes);
    }
    // By others than the first, and what is rare: here and below.
    void CountSent(unsigned kind, uint32_t bytes, int result);
    void CountReceived(const MsgHead &head, InMessage &msg);
    void TimeInFifo(const MsgHead &head, InMessage &msg);
    void CountQueued();
    void LookAtQueue(uint64_t requests);
    void CountUnread(int readFd);
    void CountBegin();
    uint64_t TimeWait(uint64_t readAt);
    void TimeCallback(uint64_t begunAt);
    bool CountCall();
    void CountCallEnd(unsigned end);
    void TimeRoundTrip(uint64_t begunAt);
    void LookAtRunning();
    void LookAtOutstanding();

    TarvoStatsPipe *numbers = nullptr;
    Stats::FirstThread sender; // also of calls
    Stats::FirstThread runner; // of callbacks
    // What all but the first had begun when the first of them looked last: as long as it is the same, the first has
    // seen the highest level already. Written by the first alone.
    uint64_t callsOfOthers = UINT64_MAX;
    uint64_t callbacksOfOthers = UINT64_MAX;
    // Of the requests received, those that were begun or dropped when the receive thread last looked: the lines of
    // memory where others count them are theirs.
    uint64_t doneWhenSeen = 0;
    StatsSlot slot;
};

// One call from its registration to its end, however it ends: out of memory before its request is sent, and with its
// thread, which is cancelled, after that, if nobody says otherwise.
// Owns: nothing. Threads: the caller's. Locks: none. Ends: before the pipe.
class CallStats {
public:
    CallStats(PipeStats &pipeStats, int pipeHandle, uint32_t callId)
        : stats(pipeStats), handle(pipeHandle), id(callId), isTimed(stats.CallBegins()) {}
    ~CallStats();
    CallStats(const CallStats &) = delete;
    CallStats &operator=(const CallStats &) = delete;

    // When its request was written, ns.
    uint64_t writtenAt = 0;

    // Each yields the result that it is given.
    int NotRegistered(int callResult) { return result = callResult; }
    // From here on a failure is the send's, also one that throws.
    void Sending() { refused = true; }
    int NotSent(int callResult) { return result = callResult; }
    void Sent() {
        refused = false;
        result = -ECANCELED;
    }
    // `data` is the response's.
    int Waited(int callResult, const char *data) {
        answered = data != nullptr;
        return result = callResult;
    }

private:
    unsigned End() const;

    PipeStats &stats;
    const int handle;
    const uint32_t id;
    const bool isTimed;
    int result = -ENOMEM;
    bool refused = false;
    bool answered = false;
};

#endif // TARVO_PIPE_PIPESTATS_H
