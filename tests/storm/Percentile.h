#ifndef TARVO_STORM_PERCENTILE_H
#define TARVO_STORM_PERCENTILE_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace storm {

// The value that `part` (0 to 1) of the samples do not exceed; 0 without samples.
template <typename T>
T Percentile(std::vector<T> samples, double part) {
    if (samples.empty()) {
        return T{};
    }
    const auto rank = static_cast<std::size_t>(std::ceil(part * static_cast<double>(samples.size())));
    const auto at = samples.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(rank, 1) - 1);
    std::nth_element(samples.begin(), at, samples.end());
    return *at;
}

} // namespace storm

#endif // TARVO_STORM_PERCENTILE_H
