#include "shared/Output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

namespace tarvoctl {
namespace {

// Written before any thread of the tool starts.
bool colours = false;

const char *CodeOf(Colour colour) {
    switch (colour) {
    case Colour::GREEN:
        return "\033[32m";
    case Colour::YELLOW:
        return "\033[33m";
    case Colour::RED:
        return "\033[31m";
    case Colour::DIM:
        return "\033[2m";
    case Colour::BOLD:
        return "\033[1m";
    case Colour::NONE:
        break;
    }
    return "";
}

// See no-color.org: any non-empty value switches colours off.
bool TerminalTakesColours() {
    const char *noColour = std::getenv("NO_COLOR");
    const char *terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || *noColour == '\0') && terminal != nullptr &&
           std::strcmp(terminal, "dumb") != 0;
}

// Characters and not bytes, which is all that names in other scripts need here.
std::size_t WidthOf(const std::string &text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; // not a continuation byte
    }));
}

} // namespace

void Put(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void PutJson(const nlohmann::json &value) {
    Put(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

bool FlushAnswer() {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return true;
    }
    const int error = errno;
    // A reader that has seen enough, such as head(1), is no news.
    if (error != EPIPE) {
        Diagnose("cannot write to standard output: {}", std::strerror(error));
    }
    return false;
}

void PutDiagnostic(const std::string &text) {
    const std::string line = "tarvoctl: " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void ChooseColours(const std::string &when) {
    colours = when == "always" || (when == "auto" && TerminalTakesColours());
}

std::string Painted(Colour colour, const std::string &text) {
    if (!colours || colour == Colour::NONE) {
        return text;
    }
    return CodeOf(colour) + text + "\033[0m";
}

Table::Table(const std::vector<std::string> &heading) {
    std::vector<Cell> row;
    row.reserve(heading.size());
    for (const std::string &text : heading) {
        row.emplace_back(text, Colour::BOLD);
    }
    rows.push_back(std::move(row));
}

std::string Table::Text() const {
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const auto &row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], WidthOf(row[i].text));
        }
    }
    std::string text;
    for (const auto &row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool last = i + 1 == row.size();
            const std::size_t padding = last ? 0 : widths[i] - WidthOf(row[i].text) + 2;
            text += Painted(row[i].colour, row[i].text) + std::string(padding, ' ');
        }
        text += '\n';
    }
    return text;
}

} // namespace tarvoctl
