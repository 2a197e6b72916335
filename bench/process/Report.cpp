#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

namespace bench {

namespace {

constexpr const char *METRICS[] = {"p50", "p99", "p999", "rate", "cpu", "syscalls"};
constexpr const char *FLOOR = "floor";

double MedianOf(std::vector<double> values) {
    if (values.empty()) {
        return -1;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

const char *ModeName(bool oneCore) { return oneCore ? "one core" : "all cores"; }

// What a scenario is about, for the plot: the time of a call, or the rate.
const char *MainMetric(const Scenario &scenario) {
    return scenario.task.kind == "oneway" || scenario.task.lanes > 1 || scenario.clients > 1 ? "rate" : "p50";
}

} // namespace

void Report::Add(const std::string &scenario, bool oneCore, const std::string &contestant, const Figures &figures) {
    results[{scenario, oneCore, contestant}].push_back(figures);
}

void Report::AddFailure(const std::string &scenario, bool oneCore, const std::string &contestant,
                        const std::string &what) {
    // Keeps the rounds of all contestants in step.
    results[{scenario, oneCore, contestant}].emplace_back();
    failures.push_back(contestant + ", " + scenario + ", " + ModeName(oneCore) + ": " + what);
}

double Report::Median(const Key &key, const std::string &metric) const {
    std::vector<double> values;
    const auto found = results.find(key);
    if (found != results.end()) {
        for (const Figures &figures : found->second) {
            const auto value = figures.find(metric);
            if (value != figures.end()) {
                values.push_back(value->second);
            }
        }
    }
    return MedianOf(values);
}

double Report::Ratio(const Key &key, const std::string &metric) const {
    return RatioTo(key, {key.scenario, key.oneCore, FLOOR}, metric);
}

double Report::Growth(const Key &key, const std::string &metric) const {
    const std::vector<Scenario> &all = Scenarios();
    const auto manyPipes = [](const Scenario &scenario) { return scenario.manyPipes; };
    const auto first = std::find_if(all.begin(), all.end(), manyPipes);
    const bool applies = std::any_of(first + 1, all.end(), [&](const Scenario &scenario) {
        return scenario.manyPipes && key.scenario == scenario.name;
    });
    return applies ? RatioTo(key, {first->name, key.oneCore, key.contestant}, metric) : -1;
}

double Report::RatioTo(const Key &key, const Key &baseKey, const std::string &metric) const {
    const auto own = results.find(key);
    const auto base = results.find(baseKey);
    if (own == results.end() || base == results.end()) {
        return -1;
    }
    std::vector<double> ratios;
    for (std::size_t round = 0; round < std::min(own->second.size(), base->second.size()); ++round) {
        const auto value = own->second[round].find(metric);
        const auto reference = base->second[round].find(metric);
        if (value != own->second[round].end() && reference != base->second[round].end() && reference->second > 0) {
            ratios.push_back(value->second / reference->second);
        }
    }
    return MedianOf(ratios);
}

void Report::PrintScenario(const Scenario &scenario, bool oneCore) const {
    bool headed = false;
    for (const Contestant &contestant : Contestants()) {
        const Key key{scenario.name, oneCore, contestant.name};
        if (results.count(key) == 0) {
            continue;
        }
        if (!headed) {
            std::printf("\n%s, %s\n%-12s", scenario.text, ModeName(oneCore), "");
            for (const char *column : {"p50 us", "p99 us", "p99.9 us", "per second", "cpu us", "syscalls"}) {
                std::printf(" %10s %6s", column, "ratio");
            }
            std::printf("\n");
            headed = true;
        }
        std::printf("%-12s", contestant.name);
        for (const char *metric : METRICS) {
            const double median = Median(key, metric);
            const double ratio = Ratio(key, metric);
            median < 0 ? std::printf(" %10s", "-") : std::printf(" %10.*f", median < 1000 ? 2 : 0, median);
            ratio < 0 ? std::printf(" %6s", "-") : std::printf(" %6.2f", ratio);
        }
        std::printf("\n");
    }
}

void Report::PrintGrowth() const {
    bool headed = false;
    for (const auto &entry : results) {
        const Key &key = entry.first;
        const double time = Growth(key, "p50");
        if (time > 0) {
            if (!headed) {
                std::printf("\nCost of a call as a multiple of the same contestant's with 1 pipe open, in the same "
                            "round\n");
                headed = true;
            }
            std::printf("%-12s %-12s %-10s time of a call %5.2f  processor time %5.2f\n", key.scenario.c_str(),
                        key.contestant.c_str(), ModeName(key.oneCore), time, Growth(key, "cpu"));
        }
    }
}

void Report::PrintTable() const {
    std::printf("\nMedians over the rounds; `ratio` is to the floor of the same round.\n");
    for (const Scenario &scenario : Scenarios()) {
        for (const bool oneCore : {true, false}) {
            PrintScenario(scenario, oneCore);
        }
    }
    PrintGrowth();
    for (const char *name : AbsentContestants()) {
        std::printf("\nNot installed when this was built, and left out: %s\n", name);
    }
    for (const std::string &failure : failures) {
        std::printf("\nFAILED: %s\n", failure.c_str());
    }
}

void Report::WriteJson(const std::string &path, int rounds) const {
    nlohmann::json document;
    document["rounds"] = rounds;
    document["absent"] = AbsentContestants();
    document["failures"] = failures;
    document["results"] = nlohmann::json::array();
    for (const Contestant &contestant : Contestants()) {
        document["contestants"][contestant.name] = contestant.remark;
    }
    for (const auto &[key, figures] : results) {
        nlohmann::json entry = {{"scenario", key.scenario},
                                {"cores", key.oneCore ? "one" : "all"},
                                {"contestant", key.contestant},
                                {"rounds", figures}};
        for (const char *metric : METRICS) {
            if (Median(key, metric) >= 0) {
                entry["median"][metric] = Median(key, metric);
            }
            if (Ratio(key, metric) >= 0) {
                entry["ratio"][metric] = Ratio(key, metric);
            }
            if (Growth(key, metric) >= 0) {
                entry["growth"][metric] = Growth(key, metric);
            }
        }
        document["results"].push_back(entry);
    }
    std::ofstream(path) << document.dump(2) << "\n";
}

// Bars from the left: how many times the floor's time a contestant takes (for rates: how many times less it does).
void Report::WriteSvg(const std::string &path) const {
    constexpr int rowHeight = 16;
    constexpr int left = 430;
    constexpr double unit = 80; // pixels for the floor's time
    constexpr double widest = 6;
    std::string body;
    int y = 30;
    const auto text = [&body](int x, int atY, const std::string &what, const char *anchor) {
        body += "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(atY) + "\" text-anchor=\"" + anchor +
                "\">" + what + "</text>\n";
    };
    for (const Scenario &scenario : Scenarios()) {
        for (const bool oneCore : {true, false}) {
            bool any = false;
            for (const Contestant &contestant : Contestants()) {
                const double ratio = Ratio({scenario.name, oneCore, contestant.name}, MainMetric(scenario));
                if (ratio <= 0) {
                    continue;
                }
                const double times = std::string(MainMetric(scenario)) == "rate" ? 1 / ratio : ratio;
                if (!any) {
                    text(left - 110, y + 12, std::string(scenario.text) + ", " + ModeName(oneCore), "end");
                    any = true;
                }
                char label[32];
                std::snprintf(label, sizeof(label), "%.2f", times);
                const int width = static_cast<int>(std::min(times, widest) * unit);
                body += "<rect x=\"" + std::to_string(left) + "\" y=\"" + std::to_string(y) +
                        "\" height=\"13\" width=\"" + std::to_string(width) + "\" fill=\"" +
                        (std::string(contestant.name) == "tarvo" ? "#1b6ca8" : "#b8c4ce") + "\"/>\n";
                text(left - 6, y + 12, contestant.name, "end");
                text(left + width + 4, y + 12, label, "start");
                y += rowHeight;
            }
            y += any ? rowHeight / 2 : 0;
        }
    }
    std::ofstream file(path);
    file << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"980\" height=\"" << y + 20
         << "\" font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
         << "<text x=\"" << left << "\" y=\"18\">time of a call (or of a message, from the rate) as a multiple of the "
         << "floor</text>\n"
         << body << "</svg>\n";
}

} // namespace bench
