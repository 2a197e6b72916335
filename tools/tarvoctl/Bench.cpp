// tarvoctl bench: how fast calls are between processes on this machine.
#include <memory>
#include <stdexcept>

#include "bench/Machine.h"
#include "bench/Results.h"
#include "bench/Round.h"
#include "pipe/Message.h"
#include "shared/Command.h"
#include "shared/Engine.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

constexpr uint64_t MAX_PROCESSES = 1000;
constexpr char ENGINE_BOTH[] = "both";

// What --engine says.
struct EngineChoice {
    std::string engine;
    std::string serverEngine;
};

// Several calls under way in one client are the loop's.
std::vector<std::string> EnginesOf(const EngineChoice &choice, const BenchOptions &options) {
    if (choice.engine == ENGINE_BOTH) {
        return {ENGINE_THREADS, ENGINE_LOOP};
    }
    if (choice.engine.empty()) {
        return {options.outstanding > 1 ? ENGINE_LOOP : ENGINE_THREADS};
    }
    return {choice.engine};
}

bool OptionsFit(const BenchOptions &options) {
    const bool threads = options.engines.front() == ENGINE_THREADS;
    const bool loop = options.engines.back() == ENGINE_LOOP;
    if (loop && options.threads > 1) {
        Diagnose("--threads is for the engine 'threads' alone; the loop has --outstanding calls on one thread");
        return false;
    }
    if (!loop && options.outstanding > 1) {
        Diagnose("a thread has one call outstanding: --threads {}, or --engine loop or both", options.outstanding);
        return false;
    }
    if (threads && options.outstanding > MAX_OUTSTANDING_OF_THREADS) {
        Diagnose("--outstanding takes as many threads with --engine both: at most {}", MAX_OUTSTANDING_OF_THREADS);
        return false;
    }
    return (!loop && options.serverEngine == ENGINE_THREADS) || LoopHasPriority(options.priority);
}

int RunBench(const BenchOptions &options, const Interrupt &interrupt) {
    if (!OptionsFit(options)) {
        return EXIT_USAGE;
    }
    // The load before the benchmark adds its own.
    const Machine machine = DescribeMachine();
    std::vector<Round> rounds;
    uint64_t failures = 0;
    try {
        for (const uint32_t size : options.sizes) {
            for (Round &round : MeasureSize(options, size, interrupt)) {
                failures += round.failures;
                rounds.push_back(std::move(round));
            }
        }
    } catch (const std::runtime_error &error) {
        Diagnose("{}", error.what());
        return interrupt.Requested() ? EXIT_INTERRUPTED : EXIT_FAILED;
    }
    if (options.json) {
        PrintBenchJson(options, machine, rounds);
    } else {
        PrintBenchText(options, machine, rounds);
    }
    return failures > 0 ? EXIT_FINDINGS : EXIT_DONE;
}

// What the benchmark starts; no part of the interface.
void AddBenchChild(CommandLine &app, Command &command) {
    auto task = std::make_shared<ChildTask>();
    CommandLine sub = app.HiddenSubcommand("bench-child");
    sub.Add("role", task->role).Required();
    sub.Add("server", task->server).Required();
    sub.Add("--engine", task->engine);
    sub.Add("--outstanding", task->outstanding);
    sub.Add("--size", task->size);
    sub.Add("--threads", task->threads);
    sub.Add("--warm-up", task->warmUpUs);
    sub.Add("--duration", task->durationUs);
    sub.Add("--rate", task->rate);
    sub.Flag("--urgent", task->urgent);
    sub.WhenNamed([task, &command] { command.run = [task](Interrupt &) { return RunBenchChild(*task); }; });
}

void AddEngineOptions(CommandLine &sub, EngineChoice &choice, BenchOptions &options) {
    sub.Add("--engine", choice.engine,
            "Engine of the clients: threads (the default), loop (that with --outstanding), or both, in turn against "
            "the same server, side by side")
        .OneOf({ENGINE_THREADS, ENGINE_LOOP, ENGINE_BOTH})
        .Type("ENGINE");
    sub.Add("--server-engine", choice.serverEngine,
            "Engine of the server: threads, or loop (the default where clients use it)")
        .OneOf({ENGINE_THREADS, ENGINE_LOOP})
        .Type("ENGINE");
    sub.Add("--outstanding", options.outstanding,
            "Calls that each client has under way at the same time: on the loop from one thread, on the other engine, "
            "with both, from as many threads")
        .Range(1, MAX_OUTSTANDING)
        .Type("N")
        .ShowDefault();
}

} // namespace

void AddBench(CommandLine &app, Command &command) {
    auto options = std::make_shared<BenchOptions>();
    auto choice = std::make_shared<EngineChoice>();
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
    AddEngineOptions(sub, *choice, *options);
    sub.WhenNamed([options, choice, &command] {
        options->json = command.common.json;
        options->engines = EnginesOf(*choice, *options);
        options->serverEngine = choice->serverEngine.empty() ? options->engines.back() : choice->serverEngine;
        command.run = [options](Interrupt &interrupt) { return RunBench(*options, interrupt); };
    });
    AddBenchChild(app, command);
}

} // namespace tarvoctl
