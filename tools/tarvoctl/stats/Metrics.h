// What each number of a statistics file is called and means: for JSON, Prometheus and the full text alike.
#ifndef TARVO_TARVOCTL_METRICS_H
#define TARVO_TARVOCTL_METRICS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tarvo_stats.h"

namespace tarvoctl {

enum class MetricType { COUNTER, GAUGE, LEVEL, TIMES };

struct Metric {
    const char *name;
    MetricType type;
    std::size_t offset; // in the structure of its kind
    const char *meaning;
    const char *label = nullptr;           // what tells its values from each other
    std::vector<const char *> values = {}; // of the label, one for each number from the offset on
};

// Of TarvoStatsPipe, TarvoStatsServer, TarvoStatsPool and TarvoStatsHeader.
const std::vector<Metric> &PipeMetrics();
const std::vector<Metric> &ServerMetrics();
const std::vector<Metric> &PoolMetrics();
const std::vector<Metric> &ProcessMetrics();

// What lies at the metric's offset of a structure; the first of a counter's or a gauge's values.
const uint64_t *NumbersOf(const Metric &metric, const void *structure);
const TarvoStatsLevel &LevelOf(const Metric &metric, const void *structure);
const TarvoStatsTimes &TimesOf(const Metric &metric, const void *structure);

// "pipe", "gone", "server" or "pool".
const char *KindText(uint32_t kind);
const char *EngineText(uint32_t engine);
const char *StateText(uint32_t state);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_METRICS_H
