#include "stats/Rows.h"

#include <fnmatch.h>

#include <algorithm>
#include <functional>
#include <numeric>

#include "shared/Duration.h"
#include "shared/Output.h"
#include "stats/Metrics.h"

namespace tarvoctl {
namespace {

template <std::size_t Size>
uint64_t Total(const uint64_t (&values)[Size]) {
    return std::accumulate(std::begin(values), std::end(values), uint64_t{0});
}

Row RowOf(const ProcessReading &process, uint32_t index, bool rates) {
    Row row;
    row.process = &process;
    row.slot = &process.Now().slot[index];
    row.before = rates ? process.Before(index) : nullptr;
    row.seconds = rates ? process.Seconds() : 0;
    const TarvoStatsPipe none{};
    const TarvoStatsPipe &now = row.slot->of.pipe;
    const TarvoStatsPipe &then = row.before == nullptr ? none : row.before->of.pipe;
    row.out = Total(now.sent.messages) - Total(then.sent.messages);
    row.in = Total(now.received.messages) - Total(then.received.messages);
    row.refused = Total(now.sent.refused) - Total(then.sent.refused);
    row.dropped = Total(now.requests.dropped) - Total(then.requests.dropped);
    row.timedOut = now.calls.ended[TARVO_STATS_END_TIMED_OUT] - then.calls.ended[TARVO_STATS_END_TIMED_OUT];
    return row;
}

using Figure = std::function<uint64_t(const Row &)>;

Figure TimesFigure(TarvoStatsTimes TarvoStatsPipe::*times) {
    return [times](const Row &row) {
        const TarvoStatsPipe numbers = NumbersOf(row);
        return TarvoStatsPercentile(&(numbers.*times), 99);
    };
}

// What the largest of comes first; empty for the names.
Figure FigureOf(const std::string &name) {
    if (name == "busy") {
        return [](const Row &row) { return row.out + row.in; };
    }
    if (name == "refused") {
        return [](const Row &row) { return row.refused; };
    }
    if (name == "dropped") {
        return [](const Row &row) { return row.dropped; };
    }
    if (name == "timeouts") {
        return [](const Row &row) { return row.timedOut; };
    }
    if (name == "queued") {
        return [](const Row &row) { return row.slot->of.pipe.requests.queued.now; };
    }
    if (name == "call") {
        return TimesFigure(&TarvoStatsPipe::roundTrip);
    }
    if (name == "callback") {
        return TimesFigure(&TarvoStatsPipe::callback);
    }
    return name == "trouble" ? [](const Row &row) { return row.Trouble(); } : Figure();
}

std::string Label(const TarvoStatsSlot &slot) {
    return slot.kind == TARVO_STATS_GONE ? "(closed before)" : Printable(slot.name);
}

// Of one that has not closed the pipe but has ended, that.
Table::Cell StateCell(const Row &row) {
    if (row.slot->kind == TARVO_STATS_GONE) {
        return {"-"};
    }
    if (row.Alive()) {
        return {StateText(row.slot->state)};
    }
    return row.slot->state == TARVO_STATS_CLOSED ? Table::Cell("ended", Colour::DIM) : Table::Cell("died", Colour::RED);
}

std::vector<Table::Cell> CellsOf(const Row &row) {
    const TarvoStatsPipe numbers = NumbersOf(row);
    const auto bad = [&row](uint64_t count) {
        return Table::Cell(CountText(count, row.seconds), count == 0 ? Colour::NONE : Colour::RED);
    };
    const TarvoStatsPipe &now = row.slot->of.pipe;
    return {{std::to_string(row.process->Now().header.pid)},
            {Label(*row.slot)},
            {row.slot->kind == TARVO_STATS_GONE ? "-" : Printable(row.slot->remote)},
            StateCell(row),
            {CountText(row.out, row.seconds)},
            {CountText(row.in, row.seconds)},
            bad(row.refused),
            bad(row.dropped),
            bad(row.timedOut),
            {std::to_string(now.requests.queued.now)},
            {std::to_string(now.calls.outstanding.now)},
            {PercentileText(numbers.roundTrip, 50)},
            {PercentileText(numbers.roundTrip, 99)},
            {PercentileText(numbers.wait, 99)},
            {PercentileText(numbers.callback, 99)}};
}

} // namespace

TarvoStatsPipe NumbersOf(const Row &row) {
    TarvoStatsPipe numbers = row.slot->of.pipe;
    if (row.before != nullptr) {
        TarvoStatsPipeSince(&row.slot->of.pipe, &row.before->of.pipe, &numbers);
    }
    return numbers;
}

bool Matches(const std::string &pattern, const ProcessReading &process, const TarvoStatsSlot &slot) {
    const auto fits = [&pattern](const char *text) { return fnmatch(pattern.c_str(), text, 0) == 0; };
    return pattern.empty() || fits(process.Now().header.process) || fits(slot.name) || fits(slot.remote) ||
           fits(std::to_string(process.Now().header.pid).c_str());
}

std::vector<Row> RowsOf(const Readings &readings, const std::string &pattern, bool rates) {
    std::vector<Row> rows;
    for (const ProcessReading *process : readings.Processes()) {
        for (uint32_t index = 0; index < process->Now().slots; ++index) {
            const TarvoStatsSlot &slot = process->Now().slot[index];
            const bool shown = slot.kind == TARVO_STATS_PIPE || slot.kind == TARVO_STATS_GONE;
            if (!shown || !Matches(pattern, *process, slot)) {
                continue;
            }
            const Row row = RowOf(*process, index, rates);
            // Most processes have lost no pipe yet.
            if (slot.kind == TARVO_STATS_PIPE || row.out + row.in + row.Trouble() > 0) {
                rows.push_back(row);
            }
        }
    }
    return rows;
}

const std::vector<std::string> &SortNames() {
    static const auto *const names = new std::vector<std::string>{"trouble", "busy", "refused",  "dropped", "timeouts",
                                                                  "queued",  "call", "callback", "name"};
    return *names;
}

void Sort(std::vector<Row> &rows, const std::string &name) {
    const Figure figure = FigureOf(name);
    struct Keyed {
        uint64_t key;
        Row row;
    };
    std::vector<Keyed> keyed;
    keyed.reserve(rows.size());
    for (const Row &row : rows) {
        keyed.push_back({figure ? figure(row) : 0, row});
    }
    std::stable_sort(keyed.begin(), keyed.end(), [&figure](const Keyed &one, const Keyed &other) {
        if (one.key != other.key) {
            return one.key > other.key;
        }
        const uint64_t busy = one.row.out + one.row.in;
        const uint64_t otherBusy = other.row.out + other.row.in;
        if (figure && busy != otherBusy) {
            return busy > otherBusy;
        }
        return std::make_pair(std::string_view(one.row.slot->name), std::string_view(one.row.slot->remote)) <
               std::make_pair(std::string_view(other.row.slot->name), std::string_view(other.row.slot->remote));
    });
    std::transform(keyed.begin(), keyed.end(), rows.begin(), [](const Keyed &one) { return one.row; });
}

std::string RowsText(const std::vector<Row> &rows, std::size_t most) {
    Table table({"PID", "NAME", "REMOTE", "STATE", "OUT", "IN", "REFUSED", "DROPPED", "TIMED OUT", "QUEUED", "CALLS",
                 "CALL P50", "CALL P99", "WAIT P99", "CALLBACK P99"});
    for (std::size_t i = 0; i < rows.size() && i < most; ++i) {
        table.Add(CellsOf(rows[i]));
    }
    return table.Text();
}

std::string SummaryText(const std::vector<Row> &rows) {
    Row all;
    for (const Row &row : rows) {
        all.seconds = std::max(all.seconds, row.seconds);
        all.out += row.out;
        all.in += row.in;
        all.refused += row.refused;
        all.dropped += row.dropped;
        all.timedOut += row.timedOut;
    }
    const auto count = [&all](uint64_t number) { return CountText(number, all.seconds); };
    return fmt::format("{} pipes: {} out, {} in, {} refused, {} dropped, {} timed out\n", rows.size(), count(all.out),
                       count(all.in), count(all.refused), count(all.dropped), count(all.timedOut));
}

std::string CountText(uint64_t count, double seconds) {
    if (seconds > 0) {
        const double rate = static_cast<double>(count) / seconds;
        return count == 0 ? "0" : rate < 10 ? fmt::format("{:.1f}/s", rate) : fmt::format("{:.0f}/s", rate);
    }
    if (count < 1000000) {
        return std::to_string(count);
    }
    return count < 1000000000 ? fmt::format("{:.1f}k", static_cast<double>(count) / 1e3)
                              : fmt::format("{:.1f}M", static_cast<double>(count) / 1e6);
}

std::string PercentileText(const TarvoStatsTimes &times, double percent) {
    return TarvoStatsTimesCount(&times) == 0 ? "-"
                                             : DurationText(static_cast<double>(TarvoStatsPercentile(&times, percent)));
}

} // namespace tarvoctl
