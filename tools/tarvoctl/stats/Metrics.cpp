#include "stats/Metrics.h"

namespace tarvoctl {
namespace {

constexpr MetricType COUNTER = MetricType::COUNTER;
constexpr MetricType GAUGE = MetricType::GAUGE;
constexpr MetricType LEVEL = MetricType::LEVEL;
constexpr MetricType TIMES = MetricType::TIMES;

template <typename Value>
const Value *At(const Metric &metric, const void *structure) {
    return reinterpret_cast<const Value *>(static_cast<const char *>(structure) + metric.offset);
}

std::vector<Metric> MakePipeMetrics() {
    const std::vector<const char *> kinds = {"one_way", "call", "response"};
    return {
        {"sent_messages", COUNTER, offsetof(TarvoStatsPipe, sent.messages), "Messages written", "kind", kinds},
        {"sent_bytes", COUNTER, offsetof(TarvoStatsPipe, sent.bytes), "Bytes of their payloads", "kind", kinds},
        {"sends_refused",
         COUNTER,
         offsetof(TarvoStatsPipe, sent.refused),
         "Sends refused: full (no room in the FIFO), broken (nobody reads), other",
         "reason",
         {"full", "broken", "other"}},
        {"sends_lost", COUNTER, offsetof(TarvoStatsPipe, sent.lost),
         "Messages taken into a batch that could not be written any more"},
        {"received_messages", COUNTER, offsetof(TarvoStatsPipe, received.messages), "Whole and right messages received",
         "kind", kinds},
        {"received_bytes", COUNTER, offsetof(TarvoStatsPipe, received.bytes), "Bytes of their payloads", "kind", kinds},
        {"received_bad",
         COUNTER,
         offsetof(TarvoStatsPipe, received.bad),
         "Frames thrown away",
         "reason",
         {"magic", "length", "checksum", "kind", "short"}},
        {"received_late", COUNTER, offsetof(TarvoStatsPipe, received.late),
         "Responses that no call waited for any more"},
        {"received_no_memory", COUNTER, offsetof(TarvoStatsPipe, received.noMemory),
         "Frames for which there was no memory"},
        {"unread_bytes", COUNTER, offsetof(TarvoStatsPipe, received.unread),
         "Bytes left in the FIFO when this side closed it"},
        {"callbacks_begun", COUNTER, offsetof(TarvoStatsPipe, requests.begun), "Callbacks for requests begun"},
        {"callbacks_finished", COUNTER, offsetof(TarvoStatsPipe, requests.finished), "Those that have returned"},
        {"requests_dropped",
         COUNTER,
         offsetof(TarvoStatsPipe, requests.dropped),
         "Requests that came and got to no callback",
         "reason",
         {"queue", "callbacks", "cache", "closing", "memory"}},
        {"requests_queued", LEVEL, offsetof(TarvoStatsPipe, requests.queued), "Requests that wait for their callback"},
        {"callbacks_running", LEVEL, offsetof(TarvoStatsPipe, requests.running), "Callbacks for requests that run"},
        {"calls_begun", COUNTER, offsetof(TarvoStatsPipe, calls.begun), "Calls begun"},
        {"calls_ended",
         COUNTER,
         offsetof(TarvoStatsPipe, calls.ended),
         "Calls ended, by result",
         "result",
         {"answered", "timed_out", "broken", "canceled", "not_sent", "other"}},
        {"calls_outstanding", LEVEL, offsetof(TarvoStatsPipe, calls.outstanding), "Calls that wait for their response"},
        {"round_trip", TIMES, offsetof(TarvoStatsPipe, roundTrip),
         "From the begin of an answered call to its end, of those timed"},
        {"in_fifo", TIMES, offsetof(TarvoStatsPipe, inFifo),
         "From the writing of a message to its being read, of those timed"},
        {"wait", TIMES, offsetof(TarvoStatsPipe, wait),
         "From a request's being read to the begin of its callback, of those timed"},
        {"callback", TIMES, offsetof(TarvoStatsPipe, callback), "How long callbacks for requests took, of those timed"},
    };
}

std::vector<Metric> MakeServerMetrics() {
    return {
        {"packets", COUNTER, offsetof(TarvoStatsServer, packets), "Clients that announced themselves"},
        {"bad_packets", COUNTER, offsetof(TarvoStatsServer, bad), "Packets that were none, or broke off"},
        {"opened", COUNTER, offsetof(TarvoStatsServer, opened), "Clients whose pipe was opened"},
        {"failed", COUNTER, offsetof(TarvoStatsServer, failed), "Clients whose pipe could not be opened"},
        {"open_time", TIMES, offsetof(TarvoStatsServer, openTime), "From a client's packet to its pipe's being open"},
    };
}

std::vector<Metric> MakePoolMetrics() {
    return {
        {"threads", LEVEL, offsetof(TarvoStatsPool, threads), "Callback threads that exist"},
        {"taken", LEVEL, offsetof(TarvoStatsPool, taken), "Those that a pipe or a callback has; the others are idle"},
        {"refused", COUNTER, offsetof(TarvoStatsPool, refused), "Times that no thread was free"},
        {"waited", COUNTER, offsetof(TarvoStatsPool, waited), "Times that somebody waited for one"},
        {"monitors", GAUGE, offsetof(TarvoStatsPool, monitors), "Threads that receive"},
    };
}

std::vector<Metric> MakeProcessMetrics() {
    return {
        {"uncounted_pipes", COUNTER, offsetof(TarvoStatsHeader, uncounted), "Pipes that found no place in the file"},
        {"opens",
         COUNTER,
         offsetof(TarvoStatsHeader, opens),
         "Opens of pipes, by result",
         "result",
         {"ok", "timed_out", "no_server", "refused", "other"}},
        {"open_time", TIMES, offsetof(TarvoStatsHeader, openTime), "How long opens took that succeeded"},
    };
}

} // namespace

// Never destroyed, as everything at this scope.
const std::vector<Metric> &PipeMetrics() {
    static const auto *const metrics = new std::vector<Metric>(MakePipeMetrics());
    return *metrics;
}

const std::vector<Metric> &ServerMetrics() {
    static const auto *const metrics = new std::vector<Metric>(MakeServerMetrics());
    return *metrics;
}

const std::vector<Metric> &PoolMetrics() {
    static const auto *const metrics = new std::vector<Metric>(MakePoolMetrics());
    return *metrics;
}

const std::vector<Metric> &ProcessMetrics() {
    static const auto *const metrics = new std::vector<Metric>(MakeProcessMetrics());
    return *metrics;
}

const uint64_t *NumbersOf(const Metric &metric, const void *structure) { return At<uint64_t>(metric, structure); }

const TarvoStatsLevel &LevelOf(const Metric &metric, const void *structure) {
    return *At<TarvoStatsLevel>(metric, structure);
}

const TarvoStatsTimes &TimesOf(const Metric &metric, const void *structure) {
    return *At<TarvoStatsTimes>(metric, structure);
}

const char *KindText(uint32_t kind) {
    switch (kind) {
    case TARVO_STATS_GONE:
        return "gone";
    case TARVO_STATS_PIPE:
        return "pipe";
    case TARVO_STATS_SERVER:
        return "server";
    case TARVO_STATS_POOL:
        return "pool";
    default:
        return "free";
    }
}

const char *EngineText(uint32_t engine) { return engine == TARVO_STATS_LOOP ? "loop" : "threads"; }

const char *StateText(uint32_t state) {
    switch (state) {
    case TARVO_STATS_OPENING:
        return "opening";
    case TARVO_STATS_OPEN:
        return "open";
    case TARVO_STATS_REMOTE_CLOSED:
        return "remote closed";
    default:
        return "closed";
    }
}

} // namespace tarvoctl
