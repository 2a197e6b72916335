#include "bench/Results.h"

#include <nlohmann/json.hpp>

#include "shared/Engine.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

constexpr unsigned HISTOGRAM_LINES = 16;

bool HasLoop(const BenchOptions &options) {
    return options.engines.back() == ENGINE_LOOP || options.serverEngine == ENGINE_LOOP;
}

bool HasBoth(const BenchOptions &options) { return options.engines.size() > 1; }

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

// What figures come out as on the loop, divided by what they are on the threads; null where that is nothing.
nlohmann::json RatioOf(const nlohmann::json &threads, const nlohmann::json &loop) {
    nlohmann::json ratio = {{"size", loop["size"]}};
    for (const char *figure :
         {"calls_per_second", "min_us", "mean_us", "p50_us", "p90_us", "p99_us", "p999_us", "max_us"}) {
        const double below = threads[figure].get<double>();
        ratio[figure] = below > 0 ? nlohmann::json(loop[figure].get<double>() / below) : nlohmann::json();
    }
    return ratio;
}

nlohmann::json RatiosJson(const nlohmann::json &results) {
    nlohmann::json ratios = nlohmann::json::array();
    for (std::size_t i = 1; i < results.size(); i += 2) {
        ratios.push_back(RatioOf(results[i - 1], results[i]));
    }
    return ratios;
}

std::string Micro(double nanoseconds) { return fmt::format("{:.1f}", nanoseconds / 1e3); }

std::string Micro(uint64_t nanoseconds) { return Micro(static_cast<double>(nanoseconds)); }

std::string Clients(const BenchOptions &options) {
    if (!HasLoop(options)) {
        return fmt::format("{} clients of {} threads", options.clients, options.threads);
    }
    const std::string engines = HasBoth(options) ? "engines threads and loop" : "engine " + options.engines.front();
    const std::string calls = options.threads > 1 ? fmt::format("{} threads", options.threads)
                                                  : fmt::format("{} calls outstanding", options.outstanding);
    return fmt::format("{}, server {}, {} clients of {}", engines, options.serverEngine, options.clients, calls);
}

void PrintTable(const std::vector<Round> &rounds) {
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
}

// One size, the two engines beside each other.
void PrintBeside(const Round &threads, const Round &loop) {
    Table table({fmt::format("{} BYTES", loop.size), "THREADS", "LOOP", "LOOP/THREADS"});
    const auto add = [&](const char *figure, double one, double other, int decimals) {
        table.Add({figure, fmt::format("{:.{}f}", one, decimals), fmt::format("{:.{}f}", other, decimals),
                   one > 0 ? fmt::format("{:.2f}", other / one) : "-"});
    };
    const auto addTime = [&](const char *figure, double one, double other) { add(figure, one / 1e3, other / 1e3, 1); };
    const auto addPercentile = [&](const char *figure, double percent) {
        addTime(figure, static_cast<double>(threads.times.Percentile(percent)),
                static_cast<double>(loop.times.Percentile(percent)));
    };
    add("calls/s", CallsPerSecond(threads), CallsPerSecond(loop), 0);
    addTime("min us", static_cast<double>(threads.times.Min()), static_cast<double>(loop.times.Min()));
    addTime("mean us", threads.times.Mean(), loop.times.Mean());
    addPercentile("p50 us", 50);
    addPercentile("p90 us", 90);
    addPercentile("p99 us", 99);
    addPercentile("p99.9 us", 99.9);
    addTime("max us", static_cast<double>(threads.times.Max()), static_cast<double>(loop.times.Max()));
    const auto lost = [](const Round &round) {
        return Table::Cell(std::to_string(round.failures), round.failures > 0 ? Colour::RED : Colour::NONE);
    };
    table.Add({"calls", std::to_string(threads.times.Count()), std::to_string(loop.times.Count()), ""});
    table.Add({"lost", lost(threads), lost(loop), ""});
    Put(table.Text());
}

} // namespace

void PrintBenchJson(const BenchOptions &options, const Machine &machine, const std::vector<Round> &rounds) {
    nlohmann::json results = nlohmann::json::array();
    for (const Round &round : rounds) {
        results.push_back(RoundJson(round));
        if (HasLoop(options)) {
            results.back()["engine"] = round.engine;
        }
    }
    nlohmann::json report = {
        {"machine",
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
        {"results", results}};
    if (HasLoop(options)) {
        report["engine"] = HasBoth(options) ? "both" : options.engines.front();
        report["server_engine"] = options.serverEngine;
        report["outstanding"] = options.outstanding;
    }
    if (HasBoth(options)) {
        report["ratios"] = RatiosJson(results);
    }
    PutJson(report);
}

void PrintBenchText(const BenchOptions &options, const Machine &machine, const std::vector<Round> &rounds) {
    Put(fmt::format("machine  {}, {} processors ({}), governor {}, load {:.2f}\n", machine.kernel, machine.processors,
                    machine.processor.empty() ? "unknown" : machine.processor,
                    machine.governor.empty() ? "unknown" : machine.governor, machine.load));
    Put(fmt::format("tarvo    {}, {}, {} priority, {}\n\n", TARVO_VERSION, Clients(options), options.priority,
                    options.rate > 0 ? fmt::format("{} calls/s", options.rate) : std::string("flat out")));
    if (!HasBoth(options)) {
        PrintTable(rounds);
    }
    for (std::size_t i = 1; HasBoth(options) && i < rounds.size(); i += 2) {
        Put(i > 1 ? "\n" : "");
        PrintBeside(rounds[i - 1], rounds[i]);
    }
    for (const Round &round : rounds) {
        const std::string engine = HasBoth(options) ? ", " + round.engine : "";
        Put(fmt::format("\n{} bytes{}, from\n{}", round.size, engine, round.times.Text(HISTOGRAM_LINES)));
    }
}

} // namespace tarvoctl
