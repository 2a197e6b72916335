// tarvoctl bench: how fast calls are between processes on this machine.
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "bench/Machine.h"
#include "bench/Round.h"
#include "pipe/Message.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

constexpr unsigned HISTOGRAM_LINES = 16;
constexpr uint64_t MAX_PROCESSES = 1000;

double CallsPerSecond(const Round &round) {
    return round.seconds > 0 ? static_cast<double>(round.times.Count()) / round.seconds : 0;
}

nlohmann::json RoundJson(const Round &round) {
    const auto microseconds = [](uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e3; };
    return {{"size", round.size},
            {"calls", round.times.Count()},
            {"failures", round.failures},
            {"seconds", round.seconds},
            {"calls_per_second", CallsPerSecond(round)},
            {"min_us", microseconds(round.times.Min())},
            {"mean_us", round.times.Mean() / 1e3},
            {"p50_us", microseconds(round.times.Percentile(50))},
            {"p90_us", microseconds(round.times.Percentile(90))},
            {"p99_us", microseconds(round.times.Percentile(99))},
            {"p999_us", microseconds(round.times.Percentile(99.9))},
            {"max_us", microseconds(round.times.Max())},
            {"histogram", round.times.ToJson()}};
}

void PrintJson(const BenchOptions &options, const Machine &machine, const std::vector<Round> &rounds) {
    nlohmann::json results = nlohmann::json::array();
    for (const Round &round : rounds) {
        results.push_back(RoundJson(round));
    }
    PutJson({{"machine",
              {{"kernel", machine.kernel},
               {"processor", machine.processor},
               {"processors", machine.processors},
               {"governor", machine.governor.empty() ? nlohmann::json() : nlohmann::json(machine.governor)},
               {"load", machine.load}}},
             {"version", TARVO_VERSION},
             {"clients", options.clients},
             {"threads", options.threads},
             {"priority", options.priority},
             {"rate", options.rate > 0 ? nlohmann::json(options.rate) : nlohmann::json()},
             {"results", results}});
}

std::string Micro(double nanoseconds) { return fmt::format("{:.1f}", nanoseconds / 1e3); }

std::string Micro(uint64_t nanoseconds) { return Micro(static_cast<double>(nanoseconds)); }

void PrintText(const BenchOptions &options, const Machine &machine, const std::vector<Round> &rounds) {
    Put(fmt::format("machine  {}, {} processors ({}), governor {}, load {:.2f}\n", machine.kernel, machine.processors,
                    machine.processor.empty() ? "unknown" : machine.processor,
                    machine.governor.empty() ? "unknown" : machine.governor, machine.load));
    Put(fmt::format("tarvo    {}, {} clients of {} threads, {} priority, {}\n\n", TARVO_VERSION, options.clients,
                    options.threads, options.priority,
                    options.rate > 0 ? fmt::format("{} calls/s", options.rate) : std::string("flat out")));
    Table table({"BYTES", "CALLS", "CALLS/S", "MIN us", "MEAN", "P50", "P90", "P99", "P99.9", "MAX", "LOST"});
    for (const Round &round : rounds) {
        const Histogram &times = round.times;
        table.Add({std::to_string(round.size),
                   std::to_string(times.Count()),
                   fmt::format("{:.0f}", CallsPerSecond(round)),
                   Micro(times.Min()),
                   Micro(times.Mean()),
                   Micro(times.Percentile(50)),
                   Micro(times.Percentile(90)),
                   Micro(times.Percentile(99)),
                   Micro(times.Percentile(99.9)),
                   Micro(times.Max()),
                   {std::to_string(round.failures), round.failures > 0 ? Colour::RED : Colour::NONE}});
    }
    Put(table.Text());
    for (const Round &round : rounds) {
        Put(fmt::format("\n{} bytes, from\n{}", round.size, round.times.Text(HISTOGRAM_LINES)));
    }
}

int RunBench(const BenchOptions &options, const Interrupt &interrupt) {
    // The load before the benchmark adds its own.
    const Machine machine = DescribeMachine();
    std::vector<Round> rounds;
    uint64_t failures = 0;
    try {
        for (const uint32_t size : options.sizes) {
            rounds.push_back(MeasureRound(options, size, interrupt));
            failures += rounds.back().failures;
        }
    } catch (const std::runtime_error &error) {
        Diagnose("{}", error.what());
        return interrupt.Requested() ? EXIT_INTERRUPTED : EXIT_FAILED;
    }
    if (options.json) {
        PrintJson(options, machine, rounds);
    } else {
        PrintText(options, machine, rounds);
    }
    return failures > 0 ? EXIT_FINDINGS : EXIT_DONE;
}

// What the benchmark starts; no part of the interface.
void AddBenchChild(CommandLine &app, Command &command) {
    auto task = std::make_shared<ChildTask>();
    CommandLine sub = app.HiddenSubcommand("bench-child");
    sub.Add("role", task->role).Required();
    sub.Add("server", task->server).Required();
    sub.Add("--size", task->size);
    sub.Add("--threads", task->threads);
    sub.Add("--warm-up", task->warmUpUs);
    sub.Add("--duration", task->durationUs);
    sub.Add("--rate", task->rate);
    sub.Flag("--urgent", task->urgent);
    sub.WhenNamed([task, &command] {
        command.run = [task](Interrupt &) {
            return task->role == "server" ? RunBenchServer(*task) : RunBenchClient(*task);
        };
    });
}

} // namespace

void AddBench(CommandLine &app, Command &command) {
    auto options = std::make_shared<BenchOptions>();
    CommandLine sub = AddSubcommand(app, command, "bench",
                                    "Measure calls between processes that it starts itself: a server and its clients",
                                    "0 measured; 1 failed; 2 wrong usage; 5 measured, but calls were lost; 130 "
                                    "interrupted.");
    sub.Add("--size", options->sizes, "Bytes of requests and answers; several, with commas, one after another")
        .Split(',')
        .Range(1, Message::MAX_PAYLOAD_LEN)
        .Type("BYTES")
        .ShowDefault();
    sub.Add("--clients", options->clients, "Client processes").Range(1, MAX_PROCESSES).Type("N").ShowDefault();
    sub.Add("--threads", options->threads, "Threads of each client, calling over one pipe")
        .Range(1, MAX_PROCESSES)
        .Type("N")
        .ShowDefault();
    sub.Add("--duration", options->duration, "How long each size is measured (2s)");
    sub.Add("--rate", options->rate,
            "Calls a second over all clients, timed from when they are due (default: flat out)")
        .Positive()
        .Type("N");
    sub.Add("--priority", options->priority, "normal, or urgent for real-time threads on both sides")
        .OneOf({"normal", "urgent"})
        .Type("PRIORITY")
        .ShowDefault();
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunBench(*options, interrupt); };
    });
    AddBenchChild(app, command);
}

} // namespace tarvoctl
