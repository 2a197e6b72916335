// Everything that the statistics say, for programs to read and in full for people.
#ifndef TARVO_TARVOCTL_FORMATS_H
#define TARVO_TARVOCTL_FORMATS_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "stats/Readings.h"

namespace tarvoctl {

// What matches the pattern; with `since`, each place has what came between the last two readings too.
nlohmann::json StatsJson(const Readings &readings, const std::string &pattern, bool since);

// The text format of Prometheus, version 0.0.4: totals and levels.
std::string PrometheusText(const Readings &readings, const std::string &pattern);

// Each number with its name, a block for each place.
std::string FullText(const Readings &readings, const std::string &pattern);

// What a slot's numbers are called; null for one of nobody. All kinds begin at the same place of it.
const std::vector<struct Metric> *MetricsOf(const TarvoStatsSlot &slot);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_FORMATS_H
