// The two streams of the tool: the answer on standard output, everything else on standard error.
#ifndef TARVO_TARVOCTL_OUTPUT_H
#define TARVO_TARVOCTL_OUTPUT_H

#include <fmt/format.h>

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace tarvoctl {

enum class Colour { NONE, GREEN, YELLOW, RED, DIM, BOLD };

// Writes a part of the answer. Threads may mix; one call is one piece.
void Put(std::string_view text);
// One JSON value on a line of its own. Bytes that are no UTF-8 are replaced.
void PutJson(const nlohmann::json &value);
// False when the answer could not be written, after a line on standard error unless its reader is gone.
bool FlushAnswer();

void PutDiagnostic(const std::string &text);

// A line on standard error, after "tarvoctl: ".
template <typename... Args>
void Diagnose(fmt::format_string<Args...> format, Args &&...args) {
    PutDiagnostic(fmt::format(format, std::forward<Args>(args)...));
}

// "auto", "always" or "never", for standard output.
void ChooseColours(const std::string &when);
// The text as it is, or between the codes of a terminal.
std::string Painted(Colour colour, const std::string &text);

// Columns as wide as their widest cell; cells may be painted. The first row is the heading.
class Table {
public:
    struct Cell {
        Cell(std::string cellText, Colour cellColour = Colour::NONE) // NOLINT(google-explicit-constructor)
            : text(std::move(cellText)), colour(cellColour) {}
        Cell(const char *cellText) : text(cellText) {}
        std::string text;
        Colour colour = Colour::NONE;
    };

    explicit Table(const std::vector<std::string> &heading);
    void Add(std::vector<Cell> row) { rows.push_back(std::move(row)); }
    bool Empty() const { return rows.size() <= 1; }
    std::string Text() const;

private:
    std::vector<std::vector<Cell>> rows;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_OUTPUT_H
