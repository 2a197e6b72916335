// Every call of the logging function, also those that the level or the limiter keeps from being written. The test
// program defines VelmSyslog in front of the library's, to which it passes the calls on.
#ifndef TARVO_UNIT_FIFO_LOGCALLS_H
#define TARVO_UNIT_FIFO_LOGCALLS_H

#include <iosfwd>
#include <string>
#include <vector>

#include "diag/velm_syslog.h"

namespace tarvo_test {

constexpr char VELM_FIFO_TAG[] = "velm_fifo";

struct LogCall {
    VELMLogType type;
    int level;
    std::string file;
    std::string message;
};

bool operator==(const LogCall &left, const LogCall &right);
std::ostream &operator<<(std::ostream &out, const LogCall &call);

// Printf-formatted text of any length.
std::string Text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The calls made while it lives, by any thread; one at a time.
class LogCalls {
public:
    LogCalls();
    ~LogCalls();
    LogCalls(const LogCalls &) = delete;
    LogCalls &operator=(const LogCalls &) = delete;

    std::vector<LogCall> All() const;
    // The calls up to and including `lastLevel`.
    std::vector<LogCall> UpTo(int lastLevel) const;
};

} // namespace tarvo_test

#endif // TARVO_UNIT_FIFO_LOGCALLS_H
