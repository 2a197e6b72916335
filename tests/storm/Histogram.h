#ifndef TARVO_STORM_HISTOGRAM_H
#define TARVO_STORM_HISTOGRAM_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace storm {

// Counts of microseconds in steps of a sixteenth of their power of two, for memory that processes share.
// Owns: nothing. Threads: any. Locks: none. Ends: any time.
class Histogram {
public:
    void Add(int64_t microseconds) { ++counts[IndexOf(static_cast<uint64_t>(microseconds < 0 ? 0 : microseconds))]; }

    // The counts so far, to be subtracted from later ones.
    struct Counts {
        uint64_t values[1024] = {};
        uint64_t Total() const {
            uint64_t total = 0;
            for (const uint64_t value : values) {
                total += value;
            }
            return total;
        }
        // The upper end of the step that holds that part (0 to 1) of the values; 0 without values.
        uint64_t Percentile(double part) const {
            const auto wanted = static_cast<uint64_t>(part * static_cast<double>(Total()) + 0.5);
            uint64_t seen = 0;
            for (std::size_t i = 0; i < 1024; ++i) {
                seen += values[i];
                if (seen > 0 && seen >= wanted) {
                    return EndOf(i);
                }
            }
            return 0;
        }
        Counts Since(const Counts &earlier) const {
            Counts difference;
            for (std::size_t i = 0; i < 1024; ++i) {
                difference.values[i] = values[i] - earlier.values[i];
            }
            return difference;
        }
    };
    Counts Read() const {
        Counts now;
        for (std::size_t i = 0; i < 1024; ++i) {
            now.values[i] = counts[i];
        }
        return now;
    }

private:
    static constexpr unsigned STEP_BITS = 4;
    static constexpr uint64_t STEPS = 1U << STEP_BITS;

    static std::size_t IndexOf(uint64_t value) {
        if (value < STEPS) {
            return static_cast<std::size_t>(value);
        }
        const unsigned shift = 63U - static_cast<unsigned>(__builtin_clzll(value)) - STEP_BITS;
        return static_cast<std::size_t>((shift + 1) * STEPS + ((value >> shift) - STEPS));
    }
    static uint64_t EndOf(std::size_t index) {
        if (index < STEPS) {
            return index;
        }
        const uint64_t shift = index / STEPS - 1;
        return ((index % STEPS + STEPS + 1) << shift) - 1;
    }

    std::atomic<uint64_t> counts[1024] = {};
};

} // namespace storm

#endif // TARVO_STORM_HISTOGRAM_H
