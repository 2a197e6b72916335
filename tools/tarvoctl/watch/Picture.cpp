#include "watch/Picture.h"

#include <fmt/format.h>
#include <sys/ioctl.h>

#include <sstream>
#include <vector>

namespace tarvoctl {
namespace {

// Cursor to the upper left corner. What was there is cleared line by line, right before the new one is written over it,
// which keeps the picture from flickering; and not after it, since at the end of a full line that takes its last
// letter.
constexpr char HOME[] = "\033[H";
constexpr char CLEAR_LINE[] = "\033[K";
constexpr char CLEAR_BELOW[] = "\033[J";

// The line without what does not fit. Codes of colours stay: they take no room, and what they began must end.
std::string CutLine(const std::string &line, std::size_t columns) {
    std::string cut;
    std::size_t width = 0;
    bool inCode = false;
    for (const char byte : line) {
        const bool continues = (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; // of the character before it
        if (byte == '\033') {
            inCode = true;
        } else if (!inCode && !continues) {
            ++width;
        }
        if (inCode || width <= columns) {
            cut += byte;
        }
        inCode = inCode && byte != 'm';
    }
    return cut;
}

} // namespace

WindowSize WindowOf(int terminal) {
    winsize size{};
    return ioctl(terminal, TIOCGWINSZ, &size) == 0 ? WindowSize{size.ws_row, size.ws_col} : WindowSize();
}

std::string Picture(const std::string &text, const WindowSize &window) {
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        lines.push_back(line);
    }
    if (window.rows > 0 && lines.size() > window.rows) {
        const std::size_t hidden = lines.size() - window.rows + 1;
        lines.resize(window.rows);
        lines.back() = fmt::format("... {} more lines", hidden);
    }
    std::string picture = HOME;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        picture += i == 0 ? "" : "\n";
        picture += i + 1 == lines.size() ? CLEAR_BELOW : CLEAR_LINE;
        picture += window.columns > 0 ? CutLine(lines[i], window.columns) : lines[i];
    }
    return picture;
}

} // namespace tarvoctl
