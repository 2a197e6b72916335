// The numbers of pipes as tables show them: in total, or of the time between two readings.
#ifndef TARVO_TARVOCTL_ROWS_H
#define TARVO_TARVOCTL_ROWS_H

#include <optional>
#include <string>
#include <vector>

#include "stats/Readings.h"

namespace tarvoctl {

// One pipe, or all that are gone of a process.
struct Row {
    const ProcessReading *process = nullptr;
    const TarvoStatsSlot *slot = nullptr;
    const TarvoStatsSlot *before = nullptr; // what is taken away for rates; null where the pipe is new
    double seconds = 0;                     // 0: totals
    uint64_t out = 0;                       // messages
    uint64_t in = 0;
    uint64_t refused = 0;
    uint64_t dropped = 0;
    uint64_t timedOut = 0;

    uint64_t Trouble() const { return refused + dropped + timedOut; }
    bool Alive() const { return process->Now().alive != 0; }
};

// What came in the row's time.
TarvoStatsPipe NumbersOf(const Row &row);

// Whether a slot is what the user asks for: a pattern of the shell for the name of its process, its own, its remote's,
// or the process id. An empty one is for all.
bool Matches(const std::string &pattern, const ProcessReading &process, const TarvoStatsSlot &slot);

// The pipes that match, in the order of the files. With `rates`, of the time between the last two readings.
std::vector<Row> RowsOf(const Readings &readings, const std::string &pattern, bool rates);

// What rows can be in order of; the first is how they are without a wish.
const std::vector<std::string> &SortNames();
void Sort(std::vector<Row> &rows, const std::string &name);

// The table of the rows, at most so many of them.
std::string RowsText(const std::vector<Row> &rows, std::size_t most);
// How many there are, and what all together do: one line.
std::string SummaryText(const std::vector<Row> &rows);

// "17", "1234.5k", and with a time "617/s".
std::string CountText(uint64_t count, double seconds = 0);
// Of a percentile; "-" when nothing was measured.
std::string PercentileText(const TarvoStatsTimes &times, double percent);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_ROWS_H
