#include "unit/fifo/LogCalls.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <mutex>
#include <ostream>
#include <tuple>

#include "support/Interpose.h"

namespace tarvo_test {

namespace {

struct Record {
    std::mutex mutex;
    bool wanted = false;
    std::vector<LogCall> calls;
};

Record &TheRecord() {
    static auto *const record = new Record;
    return *record;
}

__attribute__((format(printf, 1, 0))) std::string Format(const char *format, std::va_list args) {
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    std::string text(static_cast<std::size_t>(std::max(length, 0)) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    return text;
}

} // namespace

bool operator==(const LogCall &left, const LogCall &right) {
    return std::tie(left.type, left.level, left.file, left.message) ==
           std::tie(right.type, right.level, right.file, right.message);
}

std::ostream &operator<<(std::ostream &out, const LogCall &call) {
    return out << "type " << call.type << ", level " << call.level << ", " << call.file << ": " << call.message;
}

std::string Text(const char *format, ...) {
    std::va_list args;
    va_start(args, format);
    std::string text = Format(format, args);
    va_end(args);
    return text;
}

LogCalls::LogCalls() {
    std::lock_guard<std::mutex> lock(TheRecord().mutex);
    TheRecord().calls.clear();
    TheRecord().wanted = true;
}

LogCalls::~LogCalls() {
    std::lock_guard<std::mutex> lock(TheRecord().mutex);
    TheRecord().wanted = false;
}

std::vector<LogCall> LogCalls::All() const {
    std::lock_guard<std::mutex> lock(TheRecord().mutex);
    return TheRecord().calls;
}

std::vector<LogCall> LogCalls::UpTo(int lastLevel) const {
    std::vector<LogCall> found;
    const std::vector<LogCall> all = All();
    std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                 [lastLevel](const LogCall &call) { return call.level <= lastLevel; });
    return found;
}

} // namespace tarvo_test

extern "C" void VelmSyslog(VELMLogType type, int level, int line, const char *file, const char *format, ...) {
    const int savedErrno = errno;
    std::va_list args;
    va_start(args, format);
    const std::string message = tarvo_test::Format(format, args);
    va_end(args);
    {
        tarvo_test::Record &record = tarvo_test::TheRecord();
        std::lock_guard<std::mutex> lock(record.mutex);
        if (record.wanted) {
            record.calls.push_back({type, level, file != nullptr ? file : "", message});
        }
    }
    errno = savedErrno;
    TARVO_NEXT(VelmSyslog)(type, level, line, file, "%s", message.c_str());
}
