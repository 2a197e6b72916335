#include "support/SyslogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>

#include "support/Interpose.h"

namespace tarvo_test {

struct SyslogCapture::Store {
    mutable std::mutex mutex;
    mutable std::condition_variable added;
    std::vector<LogLine> lines;
};

namespace {

// No more: to a soak, what grows looks like a leak.
constexpr std::size_t RECENT_LINES = 100;

struct Log {
    std::mutex mutex;
    std::vector<std::shared_ptr<SyslogCapture::Store>> captures;
    std::deque<std::string> recent;
};

// Never destroyed: library threads log while statics die.
Log &TheLog() {
    static auto *const log = new Log;
    return *log;
}

// Looked up before main: a test may change the environment while other threads log.
const bool PRINTS_LINES = [] {
    const char *value = std::getenv("TARVO_TEST_LOG");
    return value != nullptr && std::string_view(value) == "1";
}();

void Record(int level, const std::string &text) {
    const LogLine line = ParseLogLine(level, text);
    Log &log = TheLog();
    std::lock_guard<std::mutex> lock(log.mutex);
    log.recent.push_back("<" + std::to_string(level) + "> " + text);
    if (log.recent.size() > RECENT_LINES) {
        log.recent.pop_front();
    }
    if (PRINTS_LINES) {
        std::fprintf(stderr, "%s\n", log.recent.back().c_str());
    }
    for (const auto &store : log.captures) {
        std::lock_guard<std::mutex> storeLock(store->mutex);
        store->lines.push_back(line);
        store->added.notify_all();
    }
}

bool IsLevel(const LogLine &line, int level) { return level == ANY_LEVEL || line.level == level; }

bool HasPart(const LogLine &line, int level, std::string_view part) {
    return IsLevel(line, level) && line.message.find(part) != std::string::npos;
}

void WriteLine(int priority, const char *format, va_list args) {
    const OwnMemory own;
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return;
    }
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, args);
    text.pop_back();
    CallInfo info{Call::Syslog};
    info.number = priority;
    info.path = text.c_str();
    detail::Forward<void>(info, [&] { Record(priority, text); });
    // The C library's may leave anything there: whoever needs errno afterwards must have kept it.
    errno = ENOTCONN;
}

} // namespace

LogLine ParseLogLine(int level, const std::string &text) {
    LogLine line;
    line.level = level;
    line.text = text;
    line.message = text;
    std::string fields[6];
    std::size_t at = 0;
    for (std::string &field : fields) {
        const std::size_t end = text.find(']', at);
        if (at >= text.size() || text[at] != '[' || end == std::string::npos) {
            return line;
        }
        field = text.substr(at + 1, end - at - 1);
        at = end + 1;
    }
    const std::size_t colon = fields[5].rfind(':');
    if (colon == std::string::npos || at >= text.size() || text[at] != ' ') {
        return line;
    }
    line.hasHeader = true;
    line.label = fields[0];
    line.process = fields[1];
    line.time = fields[2];
    line.pid = fields[3];
    line.thread = fields[4];
    line.file = fields[5].substr(0, colon);
    line.line = fields[5].substr(colon + 1);
    line.message = text.substr(at + 1);
    return line;
}

SyslogCapture::SyslogCapture() : store(std::make_shared<Store>()) {
    std::lock_guard<std::mutex> lock(TheLog().mutex);
    TheLog().captures.push_back(store);
}

SyslogCapture::~SyslogCapture() {
    std::lock_guard<std::mutex> lock(TheLog().mutex);
    auto &captures = TheLog().captures;
    captures.erase(std::remove(captures.begin(), captures.end(), store), captures.end());
}

std::vector<LogLine> SyslogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(store->mutex);
    return store->lines;
}

std::vector<std::string> SyslogCapture::Messages() const {
    std::vector<std::string> messages;
    for (const LogLine &line : Lines()) {
        messages.push_back(line.message);
    }
    return messages;
}

std::size_t SyslogCapture::Count(int level, std::string_view part) const {
    std::lock_guard<std::mutex> lock(store->mutex);
    return static_cast<std::size_t>(std::count_if(store->lines.begin(), store->lines.end(),
                                                  [&](const LogLine &line) { return HasPart(line, level, part); }));
}

std::size_t SyslogCapture::CountExactly(int level, std::string_view message) const {
    std::lock_guard<std::mutex> lock(store->mutex);
    return static_cast<std::size_t>(std::count_if(store->lines.begin(), store->lines.end(), [&](const LogLine &line) {
        return IsLevel(line, level) && line.message == message;
    }));
}

std::optional<LogLine> SyslogCapture::WaitFor(int level, std::string_view part, std::size_t times) const {
    const RealTime real;
    std::unique_lock<std::mutex> lock(store->mutex);
    std::optional<LogLine> latest;
    const bool found = store->added.wait_for(lock, std::chrono::seconds(30), [&] {
        std::size_t count = 0;
        for (const LogLine &line : store->lines) {
            if (HasPart(line, level, part)) {
                latest = line;
                ++count;
            }
        }
        return count >= times;
    });
    if (found) {
        return latest;
    }
    lock.unlock();
    std::string all;
    for (const LogLine &line : Lines()) {
        all += "\n<" + std::to_string(line.level) + "> " + line.text;
    }
    ADD_FAILURE() << "no line of level " << level << " with \"" << part << "\"; the log is:" << all;
    return std::nullopt;
}

void SyslogCapture::Clear() {
    std::lock_guard<std::mutex> lock(store->mutex);
    store->lines.clear();
}

std::vector<std::string> RecentLogLines() {
    std::unique_lock<std::mutex> lock(TheLog().mutex, std::try_to_lock);
    if (!lock.owns_lock()) {
        return {"(the log is in use)"};
    }
    return {TheLog().recent.begin(), TheLog().recent.end()};
}

} // namespace tarvo_test

extern "C" {

void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    tarvo_test::WriteLine(priority, format, args);
    va_end(args);
}

void vsyslog(int priority, const char *format, va_list args) { tarvo_test::WriteLine(priority, format, args); }

} // extern "C"
