// tarvoctl top: what pipes do now, the busiest and those in trouble first.
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "shared/Command.h"
#include "shared/Duration.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "stats/Formats.h"
#include "stats/Rows.h"
#include "stats/Summary.h"
#include "top/Keys.h"
#include "top/View.h"
#include "watch/Picture.h"

namespace tarvoctl {
namespace {

using Clock = std::chrono::steady_clock;

struct TopOptions {
    std::string directory = TARVO_STATS_DIRECTORY;
    std::string name;
    std::string sort = SortNames().front();
    Duration interval{std::chrono::seconds(1)};
    uint64_t count = 0; // 0: until it is ended
    bool json = false;
};

// Above the rows: the view's own lines, two of the summary, and the heading.
constexpr std::size_t LINES_ABOVE = 4;

std::string TimeOfDay() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return fmt::format("{:02}:{:02}:{:02}", local.tm_hour, local.tm_min, local.tm_sec);
}

void Show(const TopOptions &options, const Readings &readings, const View &view) {
    if (options.json) {
        nlohmann::json shown = StatsJson(readings, view.filter, true);
        shown["time"] = std::time(nullptr);
        PutJson(shown);
        return;
    }
    std::vector<Row> rows = RowsOf(readings, view.filter, true);
    Sort(rows, view.sort);
    const std::string above = TimeOfDay() + " " + SummaryText(rows);
    if (isatty(STDOUT_FILENO) != 1) {
        Put(above + RowsText(rows, rows.size()) + "\n");
        return;
    }
    // No more rows are made than there is room for, and one, so that the picture can tell that there are more.
    const WindowSize window = WindowOf(STDOUT_FILENO);
    const std::size_t room = window.rows > LINES_ABOVE ? window.rows - LINES_ABOVE : rows.size();
    std::string text = above + ViewText(view) + "\n" + RowsText(rows, room);
    if (rows.size() > room) {
        text += std::string(rows.size() - room, '\n');
    }
    Put(Picture(text, window));
}

// Until the next reading is due; keys are answered at once. True when it is over.
bool Pause(const TopOptions &options, const Readings &readings, View &view, Keys &keys, const Interrupt &interrupt) {
    const auto due = Clock::now() + options.interval.value;
    while (!interrupt.Requested() && !view.over) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(due - Clock::now());
        if (left.count() <= 0 && !view.paused) {
            return false;
        }
        const std::string pressed = keys.Await(view.paused ? options.interval.value : left, interrupt);
        if (!pressed.empty()) {
            Press(view, pressed);
            Show(options, readings, view);
            FlushAnswer();
        }
    }
    return true;
}

int RunTop(const TopOptions &options, const Interrupt &interrupt) {
    Readings readings(options.directory);
    View view;
    view.sort = options.sort;
    view.filter = options.name;
    Keys keys;
    for (uint64_t shown = 0;; ++shown) {
        const int error = readings.Read();
        if (error != 0) {
            DiagnoseStatsDirectory(options.directory, error);
            return EXIT_FAILED;
        }
        // The first has totals: there is no time yet to take rates of.
        Show(options, readings, view);
        if (!FlushAnswer()) {
            return EXIT_FAILED;
        }
        if (shown + 1 == options.count || Pause(options, readings, view, keys, interrupt)) {
            Put(isatty(STDOUT_FILENO) == 1 && !options.json ? "\n" : "");
            return EXIT_DONE;
        }
    }
}

} // namespace

void AddTop(CommandLine &app, Command &command) {
    auto options = std::make_shared<TopOptions>();
    CommandLine sub = AddSubcommand(
        app, command, "top", "Show what pipes do now, those in trouble and the busiest first, until q or Ctrl-C",
        "0 ended by q, Ctrl-C or --count; 1 nothing is counted here; 2 wrong usage.\n"
        "The first picture has totals, the next ones have rates. On a terminal keys sort, filter and pause; ? tells "
        "them.");
    sub.Add("NAME", options->name, "Only what has this name; as for stat");
    sub.Add("-i,--interval", options->interval, "Time between two readings (1s)");
    sub.Add("-c,--count", options->count, "End after so many").AtLeastOne().Type("N");
    sub.Add("-s,--sort", options->sort, "What comes first").OneOf(SortNames()).Type("ORDER").ShowDefault();
    AddStatsDirectoryOption(sub, options->directory);
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunTop(*options, interrupt); };
    });
}

} // namespace tarvoctl
