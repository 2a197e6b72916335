#include "stats/Summary.h"

#include <cerrno>
#include <cstring>

#include "shared/Output.h"
#include "stats/Rows.h"

namespace tarvoctl {
namespace {

// A directory may be full of what is no statistics file.
constexpr std::size_t MOST_PROBLEMS = 10;

template <typename Visit>
void ForEachSlot(const Readings &readings, uint32_t kind, Visit visit) {
    for (const ProcessReading *process : readings.Processes()) {
        for (uint32_t index = 0; index < process->Now().slots; ++index) {
            if (process->Now().slot[index].kind == kind) {
                visit(*process, process->Now().slot[index]);
            }
        }
    }
}

std::string PidText(const ProcessReading &process) { return std::to_string(process.Now().header.pid); }

bool AnyMatches(const std::string &pattern, const ProcessReading &process) {
    for (uint32_t index = 0; index < process.Now().slots; ++index) {
        const TarvoStatsSlot &slot = process.Now().slot[index];
        if (slot.kind != TARVO_STATS_FREE && Matches(pattern, process, slot)) {
            return true;
        }
    }
    return pattern.empty();
}

TarvoStatsPool PoolOf(const ProcessReading &process) {
    for (uint32_t index = 0; index < process.Now().slots; ++index) {
        if (process.Now().slot[index].kind == TARVO_STATS_POOL) {
            return process.Now().slot[index].of.pool;
        }
    }
    return {};
}

std::string LevelText(const TarvoStatsLevel &level) { return fmt::format("{} of {}", level.now, level.most); }

} // namespace

std::string ServersText(const Readings &readings, const std::string &pattern) {
    Table table({"PID", "SERVER", "CLIENTS", "OPENED", "FAILED", "BAD PACKETS", "OPEN P50", "OPEN P99"});
    ForEachSlot(readings, TARVO_STATS_SERVER, [&](const ProcessReading &process, const TarvoStatsSlot &slot) {
        if (Matches(pattern, process, slot)) {
            const TarvoStatsServer &server = slot.of.server;
            table.Add({PidText(process), Printable(slot.name), CountText(server.packets), CountText(server.opened),
                       CountText(server.failed), CountText(server.bad), PercentileText(server.openTime, 50),
                       PercentileText(server.openTime, 99)});
        }
    });
    return table.Empty() ? "" : table.Text();
}

std::string ProcessesText(const Readings &readings, const std::string &pattern) {
    Table table({"PID", "PROCESS", "STATE", "OPENS", "FAILED OPENS", "OPEN P50", "THREADS", "TAKEN", "NONE FREE"});
    for (const ProcessReading *process : readings.Processes()) {
        if (!AnyMatches(pattern, *process)) {
            continue;
        }
        const TarvoStatsHeader &header = process->Now().header;
        const TarvoStatsPool pool = PoolOf(*process);
        uint64_t failed = 0;
        for (unsigned result = TARVO_STATS_OPEN_OK + 1; result < TARVO_STATS_OPEN_RESULTS; ++result) {
            failed += header.opens[result];
        }
        table.Add({PidText(*process), Printable(header.process), process->StateText(),
                   CountText(header.opens[TARVO_STATS_OPEN_OK]), CountText(failed), PercentileText(header.openTime, 50),
                   LevelText(pool.threads), LevelText(pool.taken), CountText(pool.refused)});
    }
    return table.Empty() ? "" : table.Text();
}

void DiagnoseReadings(const Readings &readings) {
    const std::vector<Unreadable> &problems = readings.Problems();
    for (std::size_t i = 0; i < problems.size() && i < MOST_PROBLEMS; ++i) {
        Diagnose("{}/{}: {}", readings.Directory(), Printable(problems[i].file.c_str()),
                 ProblemText(problems[i].error));
    }
    if (problems.size() > MOST_PROBLEMS) {
        Diagnose("{}: {} more files that cannot be read", readings.Directory(), problems.size() - MOST_PROBLEMS);
    }
    for (const ProcessReading *process : readings.Processes()) {
        if (process->Now().inexact != 0) {
            Diagnose("process {}: a pipe was closing all the while; its numbers may be there twice or not at all",
                     process->Now().header.pid);
        }
        if (process->Now().unreadable != 0) {
            Diagnose("process {}: {} places of its file cannot be read", process->Now().header.pid,
                     process->Now().unreadable);
        }
        if (process->Now().header.uncounted != 0) {
            Diagnose("process {}: {} pipes found no place in its file and are not counted", process->Now().header.pid,
                     process->Now().header.uncounted);
        }
    }
}

void DiagnoseStatsDirectory(const std::string &directory, int error) {
    if (error == -ENOENT) {
        Diagnose("{} is missing, so nothing is counted; 'tarvoctl init' makes it, and processes that start then count",
                 directory);
    } else {
        Diagnose("{}: {}", directory, std::strerror(-error));
    }
}

} // namespace tarvoctl
