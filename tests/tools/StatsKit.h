#ifndef TARVO_TOOLS_STATSKIT_H
#define TARVO_TOOLS_STATSKIT_H

#include <memory>
#include <string>

#include "support/HandmadeStats.h"
#include "tools/ToolTest.h"

namespace tarvo_test {

inline void AddTimes(TarvoStatsTimes &times, uint64_t each, uint64_t count) {
    times.sum += each * count;
    times.longest = each > times.longest ? each : times.longest;
    times.buckets[TarvoStatsBucketOf(each)] += count;
}

// A process in trouble of each kind: the pipe to `slow` refuses, drops, waits; the pipe to `quiet` does nothing.
inline TarvoStatsSlot TroubledPipe(const std::string &remote = "slow") {
    TarvoStatsSlot slot = StatsSlot(TARVO_STATS_PIPE, "hello", remote);
    TarvoStatsPipe &pipe = slot.of.pipe;
    pipe.sent.messages[TARVO_STATS_CALL] = 100;
    pipe.sent.bytes[TARVO_STATS_CALL] = 6400;
    pipe.sent.refused[TARVO_STATS_SEND_FULL] = 7;
    pipe.received.messages[TARVO_STATS_ONE_WAY] = 50;
    pipe.received.messages[TARVO_STATS_RESPONSE] = 90;
    pipe.requests.begun = 40;
    pipe.requests.finished = 39;
    pipe.requests.dropped[TARVO_STATS_DROP_QUEUE] = 5;
    pipe.calls.begun = 103;
    pipe.calls.ended[TARVO_STATS_END_ANSWERED] = 90;
    pipe.calls.ended[TARVO_STATS_END_TIMED_OUT] = 10;
    AddTimes(pipe.roundTrip, 2000000, 90);
    AddTimes(pipe.callback, 250000000, 40);
    return slot;
}

// A directory with the files of two processes, one of them ended.
struct StatsScene {
    StatsScene() {
        writer = std::make_unique<StatsFile>(directory, "4711.1", StatsHeader(8, "telemetry"));
        writer->Set(0, StatsSlot(TARVO_STATS_GONE, ""));
        writer->Set(1, TroubledPipe());
        writer->Set(2, StatsSlot(TARVO_STATS_PIPE, "hello", "quiet"));
        TarvoStatsSlot server = StatsSlot(TARVO_STATS_SERVER, "hello");
        server.of.server.packets = 3;
        server.of.server.opened = 2;
        writer->Set(3, server);
        TarvoStatsSlot pool = StatsSlot(TARVO_STATS_POOL, "");
        pool.of.pool.threads = {2, 4};
        writer->Set(4, pool);
        dead = std::make_unique<StatsFile>(directory, "4712.1", StatsHeader(8, "gone", 4712));
        dead->Set(1, StatsSlot(TARVO_STATS_PIPE, "gone", "hello"));
        dead->Die();
    }
    std::vector<std::string> Arguments(const std::vector<std::string> &words) const {
        return Joined(words, {"--stats-directory", directory.Path()});
    }
    ToolResult Run(const std::vector<std::string> &words) const { return RunTool(Arguments(words)); }

    StatsDirectory directory;
    std::unique_ptr<StatsFile> writer;
    std::unique_ptr<StatsFile> dead;
};

} // namespace tarvo_test

#endif // TARVO_TOOLS_STATSKIT_H
