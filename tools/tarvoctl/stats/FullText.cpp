#include <fmt/format.h>

#include "shared/Duration.h"
#include "stats/Formats.h"
#include "stats/Metrics.h"
#include "stats/Rows.h"

namespace tarvoctl {
namespace {

std::string TimesText(const TarvoStatsTimes &times) {
    const uint64_t count = TarvoStatsTimesCount(&times);
    if (count == 0) {
        return "none";
    }
    return fmt::format("{} times, mean {}, p50 {}, p90 {}, p99 {}, p99.9 {}, longest {}", count,
                       DurationText(static_cast<double>(times.sum) / static_cast<double>(count)),
                       PercentileText(times, 50), PercentileText(times, 90), PercentileText(times, 99),
                       PercentileText(times, 99.9), DurationText(static_cast<double>(times.longest)));
}

std::string MetricText(const Metric &metric, const void *structure) {
    if (metric.type == MetricType::TIMES) {
        return TimesText(TimesOf(metric, structure));
    }
    if (metric.type == MetricType::LEVEL) {
        const TarvoStatsLevel &level = LevelOf(metric, structure);
        return fmt::format("{} now, {} at most", level.now, level.most);
    }
    const uint64_t *numbers = NumbersOf(metric, structure);
    if (metric.label == nullptr) {
        return std::to_string(*numbers);
    }
    std::string text;
    for (std::size_t i = 0; i < metric.values.size(); ++i) {
        text += fmt::format("{}{} {}", i == 0 ? "" : ", ", metric.values[i], numbers[i]);
    }
    return text;
}

std::string Block(const std::vector<Metric> &metrics, const void *structure) {
    std::string text;
    for (const Metric &metric : metrics) {
        text += fmt::format("  {:<19} {}\n", metric.name, MetricText(metric, structure));
    }
    return text;
}

std::string SlotHead(const TarvoStatsSlot &slot) {
    switch (slot.kind) {
    case TARVO_STATS_PIPE:
        return fmt::format("pipe {} to {}: {}, {}", Printable(slot.name), Printable(slot.remote),
                           EngineText(slot.engine), StateText(slot.state));
    case TARVO_STATS_GONE:
        return "pipes closed before";
    case TARVO_STATS_SERVER:
        return fmt::format("server {}: {}", Printable(slot.name), EngineText(slot.engine));
    default:
        return "pool of callback threads";
    }
}

} // namespace

std::string FullText(const Readings &readings, const std::string &pattern) {
    std::string text;
    for (const ProcessReading *process : readings.Processes()) {
        const TarvoStatsReading &now = process->Now();
        std::string slots;
        for (uint32_t index = 0; index < now.slots; ++index) {
            const TarvoStatsSlot &slot = now.slot[index];
            const std::vector<Metric> *metrics = MetricsOf(slot);
            if (metrics != nullptr && Matches(pattern, *process, slot)) {
                slots += fmt::format("{} of process {}\n", SlotHead(slot), now.header.pid) + Block(*metrics, &slot.of);
            }
        }
        if (!slots.empty() || pattern.empty()) {
            text += fmt::format("process {} ({}): {}\n", now.header.pid, Printable(now.header.process),
                                process->StateText()) +
                    fmt::format("  {:<19} one in {} calls, one in {} one-way requests and responses\n", "timed",
                                now.header.callsPerTime, now.header.oneWaysPerTime) +
                    Block(ProcessMetrics(), &now.header) + slots;
        }
    }
    return text;
}

} // namespace tarvoctl
