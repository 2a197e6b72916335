// tarvoctl stat: what processes have counted.
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "shared/Command.h"
#include "shared/Duration.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "stats/Formats.h"
#include "stats/Rows.h"
#include "stats/Summary.h"

namespace tarvoctl {
namespace {

struct StatOptions {
    std::string directory = TARVO_STATS_DIRECTORY;
    std::string name;
    std::optional<Duration> interval;
    bool full = false;
    bool prometheus = false;
    bool json = false;
};

void Print(const StatOptions &options, const Readings &readings) {
    const bool rates = options.interval.has_value();
    if (options.prometheus) {
        Put(PrometheusText(readings, options.name));
        return;
    }
    if (options.json) {
        PutJson(StatsJson(readings, options.name, rates));
        return;
    }
    if (options.full) {
        Put(FullText(readings, options.name));
        return;
    }
    std::vector<Row> rows = RowsOf(readings, options.name, rates);
    Sort(rows, "name");
    Put(RowsText(rows, rows.size()) + SummaryText(rows));
    for (const std::string &table : {ServersText(readings, options.name), ProcessesText(readings, options.name)}) {
        Put(table.empty() ? "" : "\n" + table);
    }
}

int RunStat(const StatOptions &options, const Interrupt &interrupt) {
    if (options.prometheus && (options.json || options.full || options.interval)) {
        Diagnose("--prometheus has a format of its own, in totals: neither --json nor --full nor --interval");
        return EXIT_USAGE;
    }
    if (options.full && options.interval && !options.json) {
        Diagnose("--full is about totals; --json --interval tells each number of the interval");
        return EXIT_USAGE;
    }
    Readings readings(options.directory);
    int error = readings.Read();
    if (error == 0 && options.interval) {
        if (interrupt.WaitFor(options.interval->value)) {
            return EXIT_INTERRUPTED;
        }
        error = readings.Read();
    }
    if (error != 0) {
        DiagnoseStatsDirectory(options.directory, error);
        return EXIT_FAILED;
    }
    Print(options, readings);
    DiagnoseReadings(readings);
    return EXIT_DONE;
}

} // namespace

void AddStat(CommandLine &app, Command &command) {
    auto options = std::make_shared<StatOptions>();
    CommandLine sub = AddSubcommand(
        app, command, "stat", "Show what processes have counted: messages, failures, times",
        "0 shown, also when there is nothing; 1 nothing is counted here; 2 wrong usage; 130 interrupted.\n"
        "Processes that have ended are shown until 'tarvoctl clean --stats' removes their files.");
    sub.Add("NAME", options->name,
            "Only what has this name, remote name, process name or process id; a pattern of the shell");
    sub.Add("-i,--interval", options->interval, "Show rates over this time instead of totals");
    sub.Flag("--full", options->full, "Each number by its name");
    sub.Flag("--prometheus", options->prometheus, "Answer in the text format of Prometheus");
    AddStatsDirectoryOption(sub, options->directory);
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunStat(*options, interrupt); };
    });
}

} // namespace tarvoctl
