#include "shared/Histogram.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <vector>

#include "shared/Duration.h"

namespace tarvoctl {
namespace {

// Values below 256 have a bucket each; from there on every power of two has 128.
constexpr unsigned STEPS = 128;
constexpr unsigned EXACT_BITS = 8;
constexpr double BAR_WIDTH = 50;

uint32_t BucketOf(uint64_t value) {
    unsigned shift = 0;
    while ((value >> shift) >= (1U << EXACT_BITS)) {
        ++shift;
    }
    return shift * STEPS + static_cast<uint32_t>(value >> shift);
}

uint64_t MiddleOf(uint32_t bucket) {
    if (bucket < 2 * STEPS) {
        return bucket;
    }
    const unsigned shift = bucket / STEPS - 1;
    const uint64_t low = static_cast<uint64_t>(bucket - shift * STEPS) << shift;
    return low + (1ULL << shift) / 2;
}

} // namespace

void Histogram::Add(uint64_t value, uint64_t times) {
    buckets[BucketOf(value)] += times;
    count += times;
    sum += static_cast<double>(value) * static_cast<double>(times);
    min = std::min(min, value);
    max = std::max(max, value);
}

void Histogram::Merge(const Histogram &other) {
    for (const auto &[bucket, times] : other.buckets) {
        buckets[bucket] += times;
    }
    count += other.count;
    sum += other.sum;
    min = std::min(min, other.min);
    max = std::max(max, other.max);
}

uint64_t Histogram::Percentile(double percent) const {
    const auto rank = static_cast<uint64_t>(std::ceil(percent / 100 * static_cast<double>(count)));
    uint64_t seen = 0;
    for (const auto &[bucket, times] : buckets) {
        seen += times;
        if (seen >= rank) {
            return std::clamp(MiddleOf(bucket), Min(), max);
        }
    }
    return max;
}

nlohmann::json Histogram::ToJson() const {
    nlohmann::json list = nlohmann::json::array();
    for (const auto &[bucket, times] : buckets) {
        list.push_back({bucket, times});
    }
    return {{"count", count}, {"min", Min()}, {"max", max}, {"sum", sum}, {"buckets", list}};
}

Histogram Histogram::FromJson(const nlohmann::json &json) {
    Histogram histogram;
    for (const auto &pair : json.at("buckets")) {
        histogram.buckets[pair.at(0).get<uint32_t>()] += pair.at(1).get<uint64_t>();
    }
    histogram.count = json.at("count").get<uint64_t>();
    histogram.max = json.at("max").get<uint64_t>();
    histogram.sum = json.at("sum").get<double>();
    histogram.min = histogram.count == 0 ? UINT64_MAX : json.at("min").get<uint64_t>();
    return histogram;
}

std::string Histogram::Text(unsigned lines) const {
    if (count == 0) {
        return "";
    }
    const double low = std::log(static_cast<double>(std::max<uint64_t>(Min(), 1)));
    const double high = std::log(static_cast<double>(std::max<uint64_t>(max, 2)));
    const double step = std::max((high - low) / lines, 1e-9);
    std::vector<uint64_t> sums(lines, 0);
    for (const auto &[bucket, times] : buckets) {
        const double at = (std::log(static_cast<double>(std::max<uint64_t>(MiddleOf(bucket), 1))) - low) / step;
        sums[static_cast<std::size_t>(std::clamp(at, 0.0, lines - 1.0))] += times;
    }
    const auto largest = static_cast<double>(*std::max_element(sums.begin(), sums.end()));
    std::string text;
    for (unsigned i = 0; i < lines; ++i) {
        const double share = static_cast<double>(sums[i]) / static_cast<double>(count);
        const auto width = static_cast<std::size_t>(std::ceil(static_cast<double>(sums[i]) / largest * BAR_WIDTH));
        text += fmt::format("{:>10} {:6.2f}% {}\n", DurationText(std::exp(low + step * i)), share * 100,
                            std::string(width, '#'));
    }
    return text;
}

} // namespace tarvoctl
