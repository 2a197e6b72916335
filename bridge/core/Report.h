// What the bridge has to say, a line at a time on the standard error, where journald finds it.
#ifndef TARVO_BRIDGE_CORE_REPORT_H
#define TARVO_BRIDGE_CORE_REPORT_H

#include <fmt/format.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvo_bridge {

// The numbers of the system log.
enum class Level { ERROR = 3, WARNING = 4, NOTICE = 5, INFO = 6 };

void SayLine(Level level, std::string_view line);
// Lines of less weight than this are left out. At first notices are the last to be told.
void SetTold(Level level);
bool IsTold(Level level);

template <typename... Arguments>
void Say(Level level, fmt::format_string<Arguments...> format, Arguments &&...arguments) {
    if (IsTold(level)) {
        SayLine(level, fmt::format(format, std::forward<Arguments>(arguments)...));
    }
}

// Keeps short what a stranger could have a bridge say without end.
// Owns: nothing. Threads: one at a time. Locks: none. Ends: any time.
class Seldom {
public:
    static constexpr int64_t INTERVAL_US = 10000000;

    // Whether it may be told now: the first time, and then once in an interval at most.
    bool MayTell(int64_t nowUs);

private:
    std::optional<int64_t> lastUs;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_REPORT_H
