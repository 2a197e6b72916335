// Whether the numbers in statistics files agree with each other.
#ifndef TARVO_SUPPORT_STATSSUMS_H
#define TARVO_SUPPORT_STATSSUMS_H

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

#include "support/StatsDirectory.h"

namespace tarvo_test {

template <std::size_t SIZE>
uint64_t SumOf(const uint64_t (&numbers)[SIZE]) {
    return std::accumulate(std::begin(numbers), std::end(numbers), uint64_t{0});
}

// The numbers of all pipes of a process, or of several processes, added up.
struct StatsSums {
    uint64_t sent = 0;      // frames
    uint64_t sentBytes = 0; // of payload
    uint64_t received = 0;
    uint64_t receivedBytes = 0;
    uint64_t requests = 0; // received
    uint64_t responses = 0;
    uint64_t bad = 0;
    uint64_t noMemory = 0;
    uint64_t unread = 0; // bytes
    uint64_t late = 0;
    uint64_t begun = 0;
    uint64_t finished = 0;
    uint64_t dropped = 0;
    uint64_t calls = 0;
    uint64_t ended = 0;
    uint64_t answered = 0;
    uint64_t otherwise = 0; // ended so
    uint64_t roundTrips = 0;

    void Add(const TarvoStatsPipe &pipe) {
        sent += SumOf(pipe.sent.messages);
        sentBytes += SumOf(pipe.sent.bytes);
        received += SumOf(pipe.received.messages);
        receivedBytes += SumOf(pipe.received.bytes);
        responses += pipe.received.messages[TARVO_STATS_RESPONSE];
        requests += SumOf(pipe.received.messages) - pipe.received.messages[TARVO_STATS_RESPONSE];
        bad += SumOf(pipe.received.bad);
        noMemory += pipe.received.noMemory;
        unread += pipe.received.unread;
        late += pipe.received.late;
        begun += pipe.requests.begun;
        finished += pipe.requests.finished;
        dropped += SumOf(pipe.requests.dropped);
        calls += pipe.calls.begun;
        ended += SumOf(pipe.calls.ended);
        answered += pipe.calls.ended[TARVO_STATS_END_ANSWERED];
        otherwise += pipe.calls.ended[TARVO_STATS_END_OTHER];
        roundTrips += SumOf(pipe.roundTrip.buckets);
    }
    void Add(const StatsSnapshot &file) {
        for (const uint32_t kind : {TARVO_STATS_PIPE, TARVO_STATS_GONE}) {
            for (const TarvoStatsSlot &slot : file.Slots(kind)) {
                Add(slot.of.pipe);
            }
        }
    }
};

// Whether the process has ended all communication in the orderly way.
inline bool EndedInOrder(const StatsSnapshot &file) {
    for (const TarvoStatsSlot &slot : file.Slots(TARVO_STATS_PIPE)) {
        if (slot.closedAt == 0) {
            return false;
        }
    }
    // A process that uses the loop alone has none.
    const std::vector<TarvoStatsSlot> pools = file.Slots(TARVO_STATS_POOL);
    return std::all_of(pools.begin(), pools.end(), [](const TarvoStatsSlot &slot) {
        return slot.of.pool.monitors == 0 && slot.of.pool.threads.now == 0;
    });
}

// Compares what must be equal, up to what the threads of a process that runs, or was killed, had in hand.
class StatsComparison {
public:
    explicit StatsComparison(std::string whose) : name(std::move(whose)) {}

    // `more` is `less`, or up to `inHand` more. Either may have been counted first where `eitherWay`.
    void Expect(const std::string &what, uint64_t more, uint64_t less, uint64_t inHand, bool eitherWay = false) {
        const auto difference = static_cast<int64_t>(more - less);
        const auto limit = static_cast<int64_t>(inHand);
        if (difference > limit || difference < (eitherWay ? -limit : 0)) {
            faults.push_back(name + ": " + what + ": " + std::to_string(more) + " and " + std::to_string(less));
        }
    }
    const std::vector<std::string> &Faults() const { return faults; }

private:
    const std::string name;
    std::vector<std::string> faults;
};

// What does not agree within the file of one process. `queued`: requests that a process may hold when it is not asked
// to end; `inHand`: what its threads may be in the middle of.
inline std::vector<std::string> DisagreementsIn(const std::string &path, uint64_t inHand = 16,
                                                uint64_t queued = 100000) {
    const StatsSnapshot file(path);
    if (!file.IsWhole()) {
        return {}; // killed while it was made
    }
    StatsSums sums;
    sums.Add(file);
    const bool ended = EndedInOrder(file);
    inHand = ended ? 0 : inHand;
    StatsComparison compare(path);
    compare.Expect("requests received, and begun or dropped", sums.requests, sums.begun + sums.dropped,
                   ended ? 0 : queued);
    compare.Expect("callbacks begun and finished", sums.begun, sums.finished, ended ? 0 : queued);
    compare.Expect("calls begun and ended", sums.calls, sums.ended, ended ? 0 : queued);
    // A response for which its caller has no room ends the call otherwise.
    compare.Expect("responses received, and answered calls or late ones", sums.responses, sums.answered + sums.late,
                   inHand + sums.otherwise, true);
    // Of answered calls some are timed: one that is timed may have another end.
    compare.Expect("answered calls and those of them that were timed", sums.answered, sums.roundTrips, sums.answered);
    return compare.Faults();
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_STATSSUMS_H
