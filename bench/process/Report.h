// What the figures of all rounds come to: a table, a JSON file, a plot.
#ifndef TARVO_BENCH_PROCESS_REPORT_H
#define TARVO_BENCH_PROCESS_REPORT_H

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "Scenario.h"

namespace bench {

// Collects the figures of one run of the program. Ratios to the floor are taken within each round, so that a machine
// that is slower for a while does not shift them.
class Report {
public:
    void Add(const std::string &scenario, bool oneCore, const std::string &contestant, const Figures &figures);
    void AddFailure(const std::string &scenario, bool oneCore, const std::string &contestant, const std::string &what);

    void PrintTable() const;
    void WriteJson(const std::string &path, int rounds) const;
    void WriteSvg(const std::string &path) const;

private:
    struct Key {
        std::string scenario;
        bool oneCore;
        std::string contestant;
        bool operator<(const Key &other) const {
            return std::tie(scenario, oneCore, contestant) < std::tie(other.scenario, other.oneCore, other.contestant);
        }
    };
    using Rounds = std::vector<Figures>;

    // The median over the rounds, and of the ratios to the floor; negative when there is none.
    double Median(const Key &key, const std::string &metric) const;
    double Ratio(const Key &key, const std::string &metric) const;
    double RatioTo(const Key &key, const Key &base, const std::string &metric) const;
    // By how much a contestant's own figure grows from the first of the scenarios with many pipes; negative as above.
    double Growth(const Key &key, const std::string &metric) const;
    void PrintScenario(const Scenario &scenario, bool oneCore) const;
    void PrintGrowth() const;

    std::map<Key, Rounds> results;
    std::vector<std::string> failures;
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_REPORT_H
