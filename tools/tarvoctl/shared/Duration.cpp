#include "shared/Duration.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace tarvoctl {
namespace {

constexpr double DAY_US = 86400e6;

constexpr std::array<std::pair<const char *, double>, 5> UNITS = {
    {{"", 1000}, {"us", 1}, {"ms", 1000}, {"s", 1e6}, {"min", 60e6}}};

} // namespace

int32_t Duration::Milliseconds() const { return static_cast<int32_t>((value.count() + 999) / 1000); }

bool lexical_cast(const std::string &text, Duration &duration) {
    if (text.find_first_not_of("0123456789.usmin") != std::string::npos) {
        return false;
    }
    std::size_t end = 0;
    double number = 0;
    try {
        number = std::stod(text, &end);
    } catch (const std::logic_error &) {
        return false;
    }
    for (const auto &[unit, microseconds] : UNITS) {
        if (text.substr(end) == unit && number * microseconds <= DAY_US) {
            duration.value = std::chrono::microseconds(std::llround(number * microseconds));
            return true;
        }
    }
    return false;
}

std::string DurationText(double nanoseconds) {
    if (nanoseconds < 1e3) {
        return fmt::format("{:.0f} ns", nanoseconds);
    }
    if (nanoseconds < 1e6) {
        return fmt::format("{:.4g} us", nanoseconds / 1e3);
    }
    if (nanoseconds < 1e9) {
        return fmt::format("{:.4g} ms", nanoseconds / 1e6);
    }
    return fmt::format("{:.4g} s", nanoseconds / 1e9);
}

} // namespace tarvoctl
