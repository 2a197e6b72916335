// Measures the library against the least program of its topology and against other messaging systems, each with its
// server and its clients in processes of their own. scripts/bench.sh runs it.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <sstream>
#include <string>

#include "Report.h"
#include "Roles.h"
#include "Scenario.h"

namespace {

using bench::Contestant;
using bench::Scenario;

constexpr std::size_t QUICK_DIVISOR = 50;

struct Options {
    bench::ChildOptions child;
    int rounds = 5;
    std::size_t divisor = 1;
    std::string json;
    std::string svg;
    std::string cores = "one,all";
    std::string contestants;
    std::string scenarios;
};

void Usage() {
    std::puts("Usage: bench_process [--quick] [--rounds N] [--divisor N] [--cores one,all] [--contestants A,B]\n"
              "                     [--scenarios A,B] [--json FILE] [--svg FILE]\n\n"
              "  --quick        one short round: shows that everything runs, gives no figures worth keeping\n"
              "  --divisor N    an N-th of the calls\n"
              "  --contestants  only these (and the floor, for the ratios)");
    for (const Scenario &scenario : bench::Scenarios()) {
        std::printf("  scenario %-14s %s\n", scenario.name, scenario.text);
    }
}

// Whether `list`, separated by commas, names `name`; an empty list names everything.
bool Named(const std::string &list, const std::string &name) {
    std::istringstream stream(list);
    std::string item;
    while (std::getline(stream, item, ',')) {
        if (item == name) {
            return true;
        }
    }
    return list.empty();
}

bool Parse(int argc, char **argv, Options &options) {
    bench::ClientTask &task = options.child.task;
    const auto number = [](std::size_t &target) {
        return [&target](const std::string &value) { target = std::strtoul(value.c_str(), nullptr, 10); };
    };
    const auto text = [](std::string &target) { return [&target](const std::string &value) { target = value; }; };
    const std::map<std::string, std::function<void(const std::string &)>> known = {
        {"--role", text(options.child.role)},
        {"--contestant", text(options.child.contestant)},
        {"--endpoint", text(options.child.endpoint)},
        {"--self", text(options.child.self)},
        {"--server", [&](const std::string &value) { options.child.serverPids.push_back(std::atoi(value.c_str())); }},
        {"--kind", text(task.kind)},
        {"--size", number(task.size)},
        {"--count", number(task.count)},
        {"--lanes", number(task.lanes)},
        {"--pipes", number(task.pipes)},
        {"--rounds", [&](const std::string &value) { options.rounds = std::atoi(value.c_str()); }},
        {"--divisor", number(options.divisor)},
        {"--json", text(options.json)},
        {"--svg", text(options.svg)},
        {"--cores", text(options.cores)},
        {"--contestants", text(options.contestants)},
        {"--scenarios", text(options.scenarios)},
    };
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--quick") {
            options.rounds = 1;
            options.divisor = QUICK_DIVISOR;
            continue;
        }
        const auto option = known.find(argv[i]);
        if (option == known.end() || i + 1 == argc) {
            return false;
        }
        option->second(argv[++i]);
    }
    return options.rounds > 0 && options.divisor > 0;
}

// One round of everything; the contestants of a scenario follow each other, so that they meet the same machine.
int MeasureRound(const Options &options, int round, bench::Report &report) {
    int failed = 0;
    for (const Scenario &scenario : bench::Scenarios()) {
        for (const bool oneCore : {true, false}) {
            if (!Named(options.scenarios, scenario.name) || !Named(options.cores, oneCore ? "one" : "all")) {
                continue;
            }
            std::fprintf(stderr, "round %d of %d: %s, %s\n", round, options.rounds, scenario.text,
                         oneCore ? "one core" : "all cores");
            for (const Contestant &contestant : bench::Contestants()) {
                const std::string name = contestant.name;
                if ((name != "floor" && !Named(options.contestants, name)) || !bench::Supports(contestant, scenario)) {
                    continue;
                }
                try {
                    report.Add(scenario.name, oneCore, name,
                               bench::Measure(contestant, scenario, oneCore, options.divisor));
                } catch (const std::exception &error) {
                    report.AddFailure(scenario.name, oneCore, name, error.what());
                    ++failed;
                }
            }
        }
    }
    return failed;
}

int MeasureAll(const Options &options) {
    bench::Report report;
    int failed = 0;
    for (int round = 1; round <= options.rounds; ++round) {
        failed += MeasureRound(options, round, report);
    }
    report.PrintTable();
    if (!options.json.empty()) {
        report.WriteJson(options.json, options.rounds);
    }
    if (!options.svg.empty()) {
        report.WriteSvg(options.svg);
    }
    return failed == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    if (!Parse(argc, argv, options)) {
        Usage();
        return 2;
    }
    try {
        if (options.child.role == "server") {
            return bench::RunServer(options.child);
        }
        if (options.child.role == "client") {
            return bench::RunClient(options.child);
        }
        return MeasureAll(options);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench_process %s: %s\n", options.child.contestant.c_str(), error.what());
        return 1;
    }
}
