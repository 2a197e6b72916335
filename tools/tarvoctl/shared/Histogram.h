#ifndef TARVO_TARVOCTL_HISTOGRAM_H
#define TARVO_TARVOCTL_HISTOGRAM_H

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tarvoctl {

// Counts durations in nanoseconds, in buckets not wider than 1/128 of their value, so that a run of any length takes
// little memory. Minimum, maximum and mean are exact.
// Owns: the counts. Threads: one. Locks: none. Ends: any time.
class Histogram {
public:
    void Add(uint64_t value) { Add(value, 1); }
    void Merge(const Histogram &other);

    uint64_t Count() const { return count; }
    uint64_t Min() const { return count == 0 ? 0 : min; }
    uint64_t Max() const { return max; }
    double Mean() const { return count == 0 ? 0 : sum / static_cast<double>(count); }
    // The value that so many of a hundred do not exceed; 0 without values.
    uint64_t Percentile(double percent) const;

    // For a process to hand to another.
    nlohmann::json ToJson() const;
    static Histogram FromJson(const nlohmann::json &json);

    // One line for each of at most `lines` equal steps on a logarithmic scale, with a bar.
    std::string Text(unsigned lines) const;

private:
    void Add(uint64_t value, uint64_t times);

    std::map<uint32_t, uint64_t> buckets;
    uint64_t count = 0;
    uint64_t min = UINT64_MAX;
    uint64_t max = 0;
    double sum = 0;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_HISTOGRAM_H
