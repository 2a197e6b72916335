// What the bridge has to say, a line at a time on the standard error, where journald finds it.
#ifndef TARVO_BRIDGE_CORE_REPORT_H
#define TARVO_BRIDGE_CORE_REPORT_H

#include <fmt/format.h>

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

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_REPORT_H
