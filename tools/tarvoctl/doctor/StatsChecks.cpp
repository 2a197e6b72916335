// What the processes have counted: who drops, who refuses, whose callbacks are slow, whose calls time out.
#include <fmt/format.h>

#include <cerrno>
#include <functional>

#include "doctor/Checks.h"
#include "shared/Duration.h"
#include "stats/Readings.h"
#include "stats/Rows.h"

namespace tarvoctl {
namespace {

constexpr char CHECK[] = "statistics";
// A callback that takes longer keeps the requests behind it, and callers with ordinary time-outs, waiting.
constexpr uint64_t SLOW_NS = 100000000;
// Callbacks that were timed, of which one in several is: a single one may be an accident.
constexpr uint64_t FEWEST_TIMES = 2;

// One thing that can go wrong with a pipe.
struct Complaint {
    std::function<uint64_t(const TarvoStatsPipe &)> count;
    const char *text; // after the number
    const char *remedy;
};

const std::vector<Complaint> &Complaints() {
    using Pipe = const TarvoStatsPipe &;
    static const auto *const complaints = new std::vector<Complaint>{
        {[](Pipe pipe) { return pipe.sent.refused[TARVO_STATS_SEND_FULL]; },
         "messages were refused since the FIFO was full",
         "the remote does not keep up: 'tarvoctl stat REMOTE' tells whether its callbacks are slow; send less, or "
         "later"},
        {[](Pipe pipe) { return pipe.sent.lost; }, "messages were taken into a batch and lost when the pipe broke",
         "flush before what must not be lost, and call where an answer is needed"},
        {[](Pipe pipe) { return pipe.requests.dropped[TARVO_STATS_DROP_QUEUE]; },
         "requests were dropped since the queue of their worker was full, or there was no worker",
         "shorter callbacks, or concurrent ones; more threads for more pipes"},
        {[](Pipe pipe) { return pipe.requests.dropped[TARVO_STATS_DROP_CALLBACKS]; },
         "requests were dropped since 200 concurrent callbacks of the pipe ran already",
         "shorter callbacks; answer from elsewhere what takes long"},
        {[](Pipe pipe) { return pipe.requests.dropped[TARVO_STATS_DROP_CACHE]; },
         "requests were dropped since the pipe has no callback and keeps 1000 already",
         "install a callback, or one-way requests to this pipe are in vain"},
        {[](Pipe pipe) { return pipe.requests.dropped[TARVO_STATS_DROP_MEMORY] + pipe.received.noMemory; },
         "messages were dropped for want of memory", "see the limits of the process: memory, threads"},
        {[](Pipe pipe) { return pipe.calls.ended[TARVO_STATS_END_TIMED_OUT]; }, "calls timed out",
         "'tarvoctl stat REMOTE': a long wait there is a lack of threads, a long callback is its own; or a longer "
         "time-out"},
        {[](Pipe pipe) {
             uint64_t bad = 0;
             for (const uint64_t reason : pipe.received.bad) {
                 bad += reason;
             }
             return bad;
         },
         "frames were thrown away that no process of this library writes",
         "see who may write to the FIFO: tarvoctl list"},
    };
    return *complaints;
}

bool IsPipe(const TarvoStatsSlot &slot) { return slot.kind == TARVO_STATS_PIPE || slot.kind == TARVO_STATS_GONE; }

std::string Whose(const ProcessReading &process) {
    return fmt::format("process {} ({})", process.Now().header.pid, Printable(process.Now().header.process));
}

// The pipe that has most of it is named.
std::string Where(const TarvoStatsSlot &slot) {
    return slot.kind == TARVO_STATS_GONE
               ? "pipes closed before"
               : fmt::format("the pipe {} to {}", Printable(slot.name), Printable(slot.remote));
}

void Complain(const ProcessReading &process, const Complaint &complaint, Findings &findings) {
    uint64_t sum = 0;
    uint64_t most = 0;
    const TarvoStatsSlot *worst = nullptr;
    for (uint32_t index = 0; index < process.Now().slots; ++index) {
        const TarvoStatsSlot &slot = process.Now().slot[index];
        const uint64_t count = IsPipe(slot) ? complaint.count(slot.of.pipe) : 0;
        sum += count;
        worst = count > most ? &slot : worst;
        most = count > most ? count : most;
    }
    if (worst == nullptr) {
        return;
    }
    std::string remedy = complaint.remedy;
    const std::size_t at = remedy.find("REMOTE");
    if (at != std::string::npos && worst->kind == TARVO_STATS_PIPE) {
        remedy.replace(at, 6, Printable(worst->remote));
    }
    findings.push_back(
        {Level::WARNING, CHECK,
         fmt::format("{}: {} {}, {} of them on {}", Whose(process), sum, complaint.text, most, Where(*worst)), remedy});
}

void CheckCallbacks(const ProcessReading &process, Findings &findings) {
    const TarvoStatsSlot *worst = nullptr;
    uint64_t slowest = SLOW_NS;
    for (uint32_t index = 0; index < process.Now().slots; ++index) {
        const TarvoStatsSlot &slot = process.Now().slot[index];
        if (!IsPipe(slot) || TarvoStatsTimesCount(&slot.of.pipe.callback) < FEWEST_TIMES) {
            continue;
        }
        const uint64_t percentile = TarvoStatsPercentile(&slot.of.pipe.callback, 99);
        worst = percentile > slowest ? &slot : worst;
        slowest = percentile > slowest ? percentile : slowest;
    }
    if (worst != nullptr) {
        findings.push_back({Level::WARNING, CHECK,
                            fmt::format("{}: callbacks are slow, the 99th percentile is {} on {}", Whose(process),
                                        DurationText(static_cast<double>(slowest)), Where(*worst)),
                            "requests of a pipe wait for the callback before: make it shorter, answer from another "
                            "thread, or have concurrent callbacks"});
    }
}

void CheckPool(const ProcessReading &process, Findings &findings) {
    for (uint32_t index = 0; index < process.Now().slots; ++index) {
        const TarvoStatsSlot &slot = process.Now().slot[index];
        if (slot.kind == TARVO_STATS_POOL && slot.of.pool.refused != 0) {
            findings.push_back({Level::WARNING, CHECK,
                                fmt::format("{}: {} times no callback thread was free, of {} at most", Whose(process),
                                            slot.of.pool.refused, slot.of.pool.threads.most),
                                "fewer pipes with callbacks in one process, or the loop, which needs no threads"});
        }
    }
}

void CheckEnd(const ProcessReading &process, Findings &findings) {
    if (process.LeftOpen() > 0) {
        findings.push_back({Level::WARNING, CHECK,
                            fmt::format("{} died with {} pipes open: killed, crashed, or ended without closing them",
                                        Whose(process), process.LeftOpen()),
                            fmt::format("its log, and coredumpctl, tell why; 'tarvoctl stat {}' tells what it did",
                                        process.Now().header.pid)});
    }
    if (process.Now().header.uncounted != 0) {
        findings.push_back({Level::WARNING, CHECK,
                            fmt::format("{}: {} pipes are not counted, since there was no room", Whose(process),
                                        process.Now().header.uncounted),
                            "make room in the file system of the statistics: tarvoctl clean --stats"});
    }
}

void CheckEnded(const Readings &readings, Findings &findings) {
    std::size_t ended = 0;
    for (const ProcessReading *process : readings.Processes()) {
        ended += process->Now().alive == 0 ? 1 : 0;
    }
    if (ended > 0) {
        findings.push_back({Level::NOTE, CHECK, fmt::format("{} processes have left their last numbers", ended),
                            "tarvoctl clean --stats"});
    }
}

} // namespace

void CheckStats(const std::string &directory, Findings &findings) {
    if (directory.empty()) {
        return;
    }
    Readings readings(directory);
    const int error = readings.Read();
    if (error != 0) {
        const bool absent = error == -ENOENT;
        findings.push_back(
            {Level::NOTE, CHECK,
             absent ? directory + " is missing: nothing is counted" : directory + ": " + ProblemText(error),
             absent ? "as root: tarvoctl init; processes that start then count"
                    : "run it as a member of the directory's group, or as root"});
        return;
    }
    const std::size_t before = findings.size();
    if (!readings.Problems().empty()) {
        const Unreadable &problem = readings.Problems().front();
        findings.push_back({Level::WARNING, CHECK,
                            fmt::format("{} files cannot be read, such as {}/{}: {}", readings.Problems().size(),
                                        directory, Printable(problem.file.c_str()), ProblemText(problem.error)),
                            "ls -l, and their owner or root may remove them"});
    }
    for (const ProcessReading *process : readings.Processes()) {
        for (const Complaint &complaint : Complaints()) {
            Complain(*process, complaint, findings);
        }
        CheckCallbacks(*process, findings);
        CheckPool(*process, findings);
        CheckEnd(*process, findings);
    }
    const bool well = findings.size() == before;
    CheckEnded(readings, findings);
    if (well) {
        findings.push_back({Level::OK, CHECK,
                            fmt::format("{} processes: none drops, refuses or waits long", readings.Processes().size()),
                            ""});
    }
}

} // namespace tarvoctl
