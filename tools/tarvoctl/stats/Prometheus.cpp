#include <fmt/format.h>

#include "stats/Formats.h"
#include "stats/Metrics.h"
#include "stats/Rows.h"

namespace tarvoctl {
namespace {

// What the samples of one place say beside their number.
struct Place {
    std::string labels;
    const void *structure;
};

std::string Escaped(const char *text) {
    std::string escaped;
    for (const char byte : Printable(text)) {
        escaped += byte == '\\' || byte == '"' ? std::string("\\") + byte : std::string(1, byte);
    }
    return escaped;
}

// The file tells apart what has all other labels alike.
std::string ProcessLabels(const ProcessReading &process) {
    return fmt::format(R"(file="{}",process="{}",pid="{}")", Escaped(process.File().c_str()),
                       Escaped(process.Now().header.process), process.Now().header.pid);
}

std::string SlotLabels(const ProcessReading &process, uint32_t index) {
    const TarvoStatsSlot &slot = process.Now().slot[index];
    std::string labels =
        fmt::format(R"({},slot="{}",engine="{}")", ProcessLabels(process), index, EngineText(slot.engine));
    if (slot.kind == TARVO_STATS_PIPE || slot.kind == TARVO_STATS_GONE) {
        const bool gone = slot.kind == TARVO_STATS_GONE;
        labels += fmt::format(R"(,name="{}",remote="{}",state="{}")", Escaped(slot.name), Escaped(slot.remote),
                              gone ? "gone" : StateText(slot.state));
    } else if (slot.kind == TARVO_STATS_SERVER) {
        labels += fmt::format(R"(,name="{}")", Escaped(slot.name));
    }
    return labels;
}

std::vector<Place> PlacesOf(const Readings &readings, const std::string &pattern, const std::vector<Metric> &metrics) {
    std::vector<Place> places;
    for (const ProcessReading *process : readings.Processes()) {
        for (uint32_t index = 0; index < process->Now().slots; ++index) {
            const TarvoStatsSlot &slot = process->Now().slot[index];
            if (MetricsOf(slot) == &metrics && Matches(pattern, *process, slot)) {
                places.push_back({SlotLabels(*process, index), &slot.of});
            }
        }
    }
    return places;
}

void Head(std::string &text, const std::string &name, const char *meaning, const char *type) {
    text += fmt::format("# HELP {} {}.\n# TYPE {} {}\n", name, meaning, name, type);
}

// A bucket for each power of two, which the file's own divide in four.
void AddTimes(std::string &text, const std::string &name, const Place &place, const TarvoStatsTimes &times) {
    const uint64_t count = TarvoStatsTimesCount(&times);
    if (count == 0) {
        return;
    }
    uint64_t below = 0;
    for (uint32_t bucket = 0; bucket + 1 < TARVO_STATS_BUCKETS; ++bucket) {
        below += times.buckets[bucket];
        const uint64_t end = TarvoStatsBucketEnd(bucket);
        if ((end & (end - 1)) == 0) {
            text += fmt::format("{}_bucket{{{},le=\"{}\"}} {}\n", name, place.labels, static_cast<double>(end) / 1e9,
                                below);
        }
    }
    text += fmt::format("{}_bucket{{{},le=\"+Inf\"}} {}\n", name, place.labels, count);
    text += fmt::format("{}_sum{{{}}} {}\n", name, place.labels, static_cast<double>(times.sum) / 1e9);
    text += fmt::format("{}_count{{{}}} {}\n", name, place.labels, count);
}

void AddNumbers(std::string &text, const std::string &name, const Metric &metric, const Place &place) {
    const uint64_t *numbers = NumbersOf(metric, place.structure);
    if (metric.label == nullptr) {
        text += fmt::format("{}{{{}}} {}\n", name, place.labels, *numbers);
        return;
    }
    for (std::size_t i = 0; i < metric.values.size(); ++i) {
        text += fmt::format("{}{{{},{}=\"{}\"}} {}\n", name, place.labels, metric.label, metric.values[i], numbers[i]);
    }
}

void AddMetric(std::string &text, const std::string &prefix, const Metric &metric, const std::vector<Place> &places) {
    const std::string name = "tarvo_" + prefix + "_" + metric.name;
    switch (metric.type) {
    case MetricType::TIMES:
        Head(text, name + "_seconds", metric.meaning, "histogram");
        for (const Place &place : places) {
            AddTimes(text, name + "_seconds", place, TimesOf(metric, place.structure));
        }
        break;
    case MetricType::LEVEL:
        Head(text, name, metric.meaning, "gauge");
        for (const Place &place : places) {
            text += fmt::format("{}{{{}}} {}\n", name, place.labels, LevelOf(metric, place.structure).now);
        }
        Head(text, name + "_most", metric.meaning, "gauge");
        for (const Place &place : places) {
            text += fmt::format("{}_most{{{}}} {}\n", name, place.labels, LevelOf(metric, place.structure).most);
        }
        break;
    case MetricType::COUNTER:
    case MetricType::GAUGE:
        const std::string full = name + (metric.type == MetricType::COUNTER ? "_total" : "");
        Head(text, full, metric.meaning, metric.type == MetricType::COUNTER ? "counter" : "gauge");
        for (const Place &place : places) {
            AddNumbers(text, full, metric, place);
        }
        break;
    }
}

// Of how many messages of a kind one is timed.
void AddShare(std::string &text, const char *kind, const char *what, uint32_t TarvoStatsHeader::*share,
              const std::vector<Place> &processes) {
    const std::string name = fmt::format("tarvo_process_{}_per_time", kind);
    Head(text, name, fmt::format("Of so many {} one is timed", what).c_str(), "gauge");
    for (const Place &process : processes) {
        text += fmt::format("{}{{{}}} {}\n", name, process.labels,
                            static_cast<const TarvoStatsHeader *>(process.structure)->*share);
    }
}

void AddKind(std::string &text, const std::string &prefix, const std::vector<Metric> &metrics,
             const std::vector<Place> &places) {
    for (const Metric &metric : metrics) {
        if (!places.empty()) {
            AddMetric(text, prefix, metric, places);
        }
    }
}

} // namespace

std::string PrometheusText(const Readings &readings, const std::string &pattern) {
    std::string text;
    std::vector<Place> processes;
    Head(text, "tarvo_process_alive", "1 for a process that lives, 0 for one that has left its last numbers", "gauge");
    for (const ProcessReading *process : readings.Processes()) {
        processes.push_back({ProcessLabels(*process), &process->Now().header});
        text += fmt::format("tarvo_process_alive{{{}}} {}\n", processes.back().labels, process->Now().alive);
    }
    AddShare(text, "calls", "calls", &TarvoStatsHeader::callsPerTime, processes);
    AddShare(text, "one_ways", "one-way requests and responses", &TarvoStatsHeader::oneWaysPerTime, processes);
    Head(text, "tarvo_unreadable_files", "Files that cannot be read", "gauge");
    text += fmt::format("tarvo_unreadable_files {}\n", readings.Problems().size());
    AddKind(text, "process", ProcessMetrics(), processes);
    AddKind(text, "pipe", PipeMetrics(), PlacesOf(readings, pattern, PipeMetrics()));
    AddKind(text, "server", ServerMetrics(), PlacesOf(readings, pattern, ServerMetrics()));
    AddKind(text, "pool", PoolMetrics(), PlacesOf(readings, pattern, PoolMetrics()));
    return text;
}

} // namespace tarvoctl
