#include <nlohmann/json.hpp>

#include "stats/Formats.h"
#include "stats/Metrics.h"
#include "stats/Rows.h"

namespace tarvoctl {
namespace {

using nlohmann::json;

json TimesJson(const TarvoStatsTimes &times) {
    json buckets = json::array();
    for (uint32_t bucket = 0; bucket < TARVO_STATS_BUCKETS; ++bucket) {
        if (times.buckets[bucket] != 0) {
            const bool last = bucket + 1 == TARVO_STATS_BUCKETS;
            buckets.push_back({last ? json() : json(TarvoStatsBucketEnd(bucket)), times.buckets[bucket]});
        }
    }
    return {{"count", TarvoStatsTimesCount(&times)},
            {"sum_ns", times.sum},
            {"longest_ns", times.longest},
            {"p50_ns", TarvoStatsPercentile(&times, 50)},
            {"p90_ns", TarvoStatsPercentile(&times, 90)},
            {"p99_ns", TarvoStatsPercentile(&times, 99)},
            {"p999_ns", TarvoStatsPercentile(&times, 99.9)},
            {"buckets", buckets}};
}

json MetricJson(const Metric &metric, const void *structure) {
    if (metric.type == MetricType::TIMES) {
        return TimesJson(TimesOf(metric, structure));
    }
    if (metric.type == MetricType::LEVEL) {
        const TarvoStatsLevel &level = LevelOf(metric, structure);
        return {{"now", level.now}, {"most", level.most}};
    }
    const uint64_t *numbers = NumbersOf(metric, structure);
    if (metric.label == nullptr) {
        return *numbers;
    }
    json values;
    for (std::size_t i = 0; i < metric.values.size(); ++i) {
        values[metric.values[i]] = numbers[i];
    }
    return values;
}

json NumbersJson(const std::vector<Metric> &metrics, const void *structure) {
    json numbers;
    for (const Metric &metric : metrics) {
        numbers[metric.name] = MetricJson(metric, structure);
    }
    return numbers;
}

json TimeJson(uint64_t time) { return time == 0 ? json() : json(time); }

json SlotJson(const ProcessReading &process, uint32_t index, bool since) {
    const TarvoStatsSlot &slot = process.Now().slot[index];
    json told = {{"slot", index}, {"kind", KindText(slot.kind)}, {"engine", EngineText(slot.engine)}};
    if (slot.kind == TARVO_STATS_PIPE) {
        told["name"] = slot.name;
        told["remote"] = slot.remote;
        told["state"] = StateText(slot.state);
        told["handle"] = slot.handle;
        told["opened_at_ns"] = TimeJson(slot.openedAt);
        told["closed_at_ns"] = TimeJson(slot.closedAt);
    } else if (slot.kind == TARVO_STATS_SERVER) {
        told["name"] = slot.name;
    }
    told["numbers"] = NumbersJson(*MetricsOf(slot), &slot.of);
    const bool pipe = slot.kind == TARVO_STATS_PIPE || slot.kind == TARVO_STATS_GONE;
    if (since && pipe) {
        Row row;
        row.slot = &slot;
        row.before = process.Before(index);
        const TarvoStatsPipe numbers = NumbersOf(row);
        told["since"] = NumbersJson(PipeMetrics(), &numbers);
    }
    return told;
}

json ProcessJson(const ProcessReading &process, const std::string &pattern, bool since) {
    const TarvoStatsReading &now = process.Now();
    json slots = json::array();
    for (uint32_t index = 0; index < now.slots; ++index) {
        const TarvoStatsSlot &slot = now.slot[index];
        if (MetricsOf(slot) != nullptr && Matches(pattern, process, slot)) {
            slots.push_back(SlotJson(process, index, since));
        }
    }
    if (slots.empty() && !pattern.empty()) {
        return nullptr;
    }
    return {{"file", process.File()},
            {"process", now.header.process},
            {"pid", now.header.pid},
            {"alive", now.alive != 0},
            {"left_open", process.LeftOpen()},
            {"owner", now.owner},
            {"created_at_ns", now.header.createdAt},
            {"created_unix_ns", now.header.createdWall},
            {"read_at_ns", now.readAt},
            {"one_ways_per_time", now.header.oneWaysPerTime},
            {"calls_per_time", now.header.callsPerTime},
            {"inexact", now.inexact != 0},
            {"unreadable_slots", now.unreadable},
            {"seconds", since ? json(process.Seconds()) : json()},
            {"numbers", NumbersJson(ProcessMetrics(), &now.header)},
            {"slots", slots}};
}

} // namespace

const std::vector<Metric> *MetricsOf(const TarvoStatsSlot &slot) {
    switch (slot.kind) {
    case TARVO_STATS_GONE:
    case TARVO_STATS_PIPE:
        return &PipeMetrics();
    case TARVO_STATS_SERVER:
        return &ServerMetrics();
    case TARVO_STATS_POOL:
        return &PoolMetrics();
    default:
        return nullptr;
    }
}

json StatsJson(const Readings &readings, const std::string &pattern, bool since) {
    json processes = json::array();
    for (const ProcessReading *process : readings.Processes()) {
        json one = ProcessJson(*process, pattern, since);
        if (!one.is_null()) {
            processes.push_back(std::move(one));
        }
    }
    json problems = json::array();
    for (const Unreadable &problem : readings.Problems()) {
        problems.push_back({{"file", problem.file}, {"problem", ProblemText(problem.error)}});
    }
    return {{"directory", readings.Directory()}, {"processes", processes}, {"problems", problems}};
}

} // namespace tarvoctl
