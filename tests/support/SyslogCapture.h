// The lines that the program writes to the system log. The test programs define syslog themselves: nothing reaches the
// machine's log. With TARVO_TEST_LOG=1 in the environment the lines also go to standard error.
#ifndef TARVO_SUPPORT_SYSLOGCAPTURE_H
#define TARVO_SUPPORT_SYSLOGCAPTURE_H

#include <syslog.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvo_test {

constexpr int ANY_LEVEL = -1;

// One line, and its header "[label][process][time][pid][thread][file:line] message" taken apart.
struct LogLine {
    int level = 0;
    std::string text;
    bool hasHeader = false; // false: `message` is the whole text and the other parts are empty
    std::string label;
    std::string process;
    std::string time;
    std::string pid;
    std::string thread;
    std::string file;
    std::string line;
    std::string message;
};

LogLine ParseLogLine(int level, const std::string &text);

// Keeps every line written while it lives. Any thread.
class SyslogCapture {
public:
    SyslogCapture();
    ~SyslogCapture();
    SyslogCapture(const SyslogCapture &) = delete;
    SyslogCapture &operator=(const SyslogCapture &) = delete;

    std::vector<LogLine> Lines() const;
    std::vector<std::string> Messages() const;

    // `part` is looked for in the message, without the header.
    bool Contains(int level, std::string_view part) const { return Count(level, part) > 0; }
    std::size_t Count(int level, std::string_view part) const;
    // The whole message.
    bool ContainsExactly(int level, std::string_view message) const { return CountExactly(level, message) > 0; }
    std::size_t CountExactly(int level, std::string_view message) const;

    // Waits for a line that has `part` in its message, written since the capture began (or was cleared), at least
    // `times` of them; yields the latest. After 30 s the test fails and the result is empty.
    std::optional<LogLine> WaitFor(int level, std::string_view part, std::size_t times = 1) const;

    void Clear();

    struct Store;

private:
    std::shared_ptr<Store> store;
};

// The last lines of the process, captured or not, for reports of a failure. Never blocks.
std::vector<std::string> RecentLogLines();

} // namespace tarvo_test

#endif // TARVO_SUPPORT_SYSLOGCAPTURE_H
