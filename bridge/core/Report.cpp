#include "core/Report.h"

#include <cstdio>
#include <cstdlib>

namespace tarvo_bridge {
namespace {

Level told = Level::NOTICE;

} // namespace

void SetTold(Level level) { told = level; }
bool IsTold(Level level) { return level <= told; }

void SayLine(Level level, std::string_view line) {
    // In a service the level goes before the line (sd-daemon(3)).
    static const bool inJournal = std::getenv("JOURNAL_STREAM") != nullptr;
    const std::string text =
        inJournal ? fmt::format("<{}>{}\n", static_cast<int>(level), line) : fmt::format("tarvo-bridge: {}\n", line);
    std::fwrite(text.data(), 1, text.size(), stderr);
}

bool Seldom::MayTell(int64_t nowUs) {
    if (lastUs && nowUs - *lastUs < INTERVAL_US) {
        return false;
    }
    lastUs = nowUs;
    return true;
}

} // namespace tarvo_bridge
