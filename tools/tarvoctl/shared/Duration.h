#ifndef TARVO_TARVOCTL_DURATION_H
#define TARVO_TARVOCTL_DURATION_H

#include <chrono>
#include <cstdint>
#include <string>

namespace tarvoctl {

// A span of time on the command line: "250ms", "2s", "1.5s", "100us", "5min"; a number alone is milliseconds.
struct Duration {
    std::chrono::microseconds value{0};

    // Whole milliseconds, rounded up: a limit is never shorter than asked for.
    int32_t Milliseconds() const;
};

// For CLI11, which finds it by the type of `duration`. False when the text is no such span, or is longer than a day.
bool lexical_cast(const std::string &text, Duration &duration); // NOLINT(readability-identifier-naming)

// "812 us", "1.234 ms", "12.3 s": four significant digits in the unit that suits.
std::string DurationText(double nanoseconds);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_DURATION_H
