// Kills servers and clients at random and at chosen moments, restarts them at once, and shows what that cost.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "storm/CommandLine.h"
#include "storm/Group.h"
#include "storm/Leftovers.h"
#include "storm/Percentile.h"
#include "storm/Proof.h"
#include "storm/StatsProof.h"
#include "support/Process.h"

namespace storm {
namespace {

struct Options {
    unsigned kills = 200;
    unsigned groups = 4;
    unsigned clients = 3;
    uint64_t seed = 0;
    double answerLimitMs = 1000;
    int wedgedAfterMs = 10000;
    bool quiet = false;
    bool stats = false;
    std::string cleaner;
};

struct Summary {
    unsigned kills = 0;
    unsigned restarts = 0;
    unsigned cutShort = 0;
    unsigned wedged = 0;
    unsigned failures = 0;
    uint64_t answers = 0;
    unsigned at[static_cast<std::size_t>(Moment::Count)] = {};
    std::vector<int32_t> answerUs;
};

void Add(const Findings &findings, Summary &sum) {
    sum.kills += findings.kills;
    sum.restarts += findings.restarts;
    sum.cutShort += findings.cutShort;
    sum.wedged += findings.wedged;
    sum.failures += findings.failures;
    sum.answers += findings.answers;
    for (std::size_t i = 0; i < static_cast<std::size_t>(Moment::Count); ++i) {
        sum.at[i] += findings.at[i];
    }
    sum.answerUs.insert(sum.answerUs.end(), findings.restartToAnswerUs, findings.restartToAnswerUs + findings.samples);
}

unsigned KillsOf(const std::vector<std::unique_ptr<Shared<Findings>>> &findings) {
    unsigned kills = 0;
    for (const auto &one : findings) {
        kills += (*one)->kills;
    }
    return kills;
}

// Runs the groups beside each other, each in a process of its own, which forks without having any thread.
Summary RunGroups(const Options &options) {
    std::vector<std::unique_ptr<Shared<Findings>>> findings;
    std::vector<std::unique_ptr<tarvo_test::ChildProcess>> processes;
    for (unsigned i = 0; i < options.groups; ++i) {
        findings.push_back(std::make_unique<Shared<Findings>>());
        Plan plan;
        plan.index = i;
        plan.kills = options.kills / options.groups + (i < options.kills % options.groups ? 1 : 0);
        plan.clients = options.clients;
        plan.seed = options.seed;
        plan.wedgedAfterMs = options.wedgedAfterMs;
        Findings &found = **findings.back();
        processes.push_back(std::make_unique<tarvo_test::ChildProcess>([plan, &found](tarvo_test::Channel &) {
            Group(plan, found).Run();
            return 0;
        }));
    }
    Summary sum;
    unsigned reported = 0;
    for (const auto &process : processes) {
        while (!process->EndsWithin(500)) {
            const unsigned kills = KillsOf(findings);
            if (!options.quiet && kills >= reported + 500) {
                reported = kills - kills % 500;
                std::fprintf(stderr, "%u kills\n", kills);
            }
        }
        if (const int code = process->Wait(); code != 0) {
            fmt::print("FAILED: a group's process ended with {}\n", code);
            ++sum.failures;
        }
    }
    for (const auto &one : findings) {
        Add(**one, sum);
    }
    return sum;
}

void PrintMoments(const Summary &sum) {
    fmt::print("\n{:<48}{:>8}\n", "killed", "times");
    for (std::size_t i = 0; i < static_cast<std::size_t>(Moment::Count); ++i) {
        fmt::print("{:<48}{:>8}\n", NameOf(static_cast<Moment>(i)), sum.at[i]);
    }
}

void PrintFiles(const char *what, const std::vector<std::string> &files) {
    fmt::print("{:<48}{:>8}{}\n", what, files.size(), files.empty() ? "" : "   such as " + files.front());
}

bool Judge(const Options &options, const Summary &sum) {
    const auto milliseconds = [&](double part) { return Percentile(sum.answerUs, part) / 1000.0; };
    fmt::print("\n{:<48}{:>8}\n", "kills", sum.kills);
    fmt::print("{:<48}{:>8}\n", "restarts killed again before their answer", sum.cutShort);
    fmt::print("{:<48}{:>8}\n", "answers, each compared", sum.answers);
    fmt::print("{:<48}{:>8}\n", "restart to first answer: measured", sum.answerUs.size());
    for (const auto &[name, part] : {std::pair{"median", 0.5}, {"90th", 0.9}, {"99th", 0.99}, {"maximum", 1.0}}) {
        fmt::print("{:<48}{:>8.1f} ms\n", std::string("restart to first answer: ") + name, milliseconds(part));
    }
    fmt::print("{:<48}{:>8}\n", "wedged processes", sum.wedged);
    fmt::print("{:<48}{:>8}\n", "other failures", sum.failures);
    return sum.wedged == 0 && sum.failures == 0 && sum.kills >= options.kills && !sum.answerUs.empty() &&
           milliseconds(0.99) < options.answerLimitMs;
}

// A pipe's files go with the first of its ends that ends in the orderly way or outlives the other. Those of two killed
// ends stay, since nobody uses their names again, as do temporary names; a cleaner removes what no process holds.
bool JudgeFiles(const Options &options) {
    std::vector<std::string> servers;
    for (unsigned i = 0; i < options.groups; ++i) {
        servers.push_back("s" + std::to_string(i) + "x");
    }
    const Leftovers left = FindLeftovers(servers);
    PrintFiles("files that the next start replaces", left.servers);
    PrintFiles("files of pipes, both of whose ends were killed", left.pipes);
    PrintFiles("temporary names, whose maker was killed", left.temporary);
    if (options.cleaner.empty()) {
        return true;
    }
    const int status = std::system(options.cleaner.c_str());
    const Leftovers dirt = FindLeftovers(servers);
    PrintFiles("of these, not removed by the cleaner", dirt.pipes);
    PrintFiles("the same, temporary names", dirt.temporary);
    return status == 0 && dirt.pipes.empty() && dirt.temporary.empty();
}

int Main(int argc, char **argv) {
    Options options;
    options.seed = std::random_device{}();
    CommandLine line(
        "Kills servers and clients of the library and restarts them at once. The exit status is the verdict.");
    line.Option("--kills", options.kills, "how many kills in all");
    line.Option("--seed", options.seed, "for the choice of victims and moments; another one each time");
    line.Option("--groups", options.groups, "servers, each with clients of its own");
    line.Option("--clients", options.clients, "clients of each server", 1U, static_cast<unsigned>(MAX_CLIENTS));
    line.Option("--limit", options.answerLimitMs, "99th percentile from restart to first answer, in ms");
    line.Option("--wedged-after", options.wedgedAfterMs, "a process is wedged without an answer for so many ms");
    line.Option("--cleaner", options.cleaner,
                "command that removes the FIFO files that no process holds; it must leave none");
    line.Flag("--quiet", options.quiet, "no progress");
    line.Flag("--stats", options.stats, "the processes count, and their numbers must agree in the end; for root");
    if (const auto status = line.Parse(argc, argv)) {
        return *status;
    }
    if (options.stats && !BeginStats()) {
        return CANNOT_COUNT;
    }
    return Prove([&] {
        fmt::print("seed {}, {} kills, {} servers with {} clients each\n", options.seed, options.kills, options.groups,
                   options.clients);
        std::fflush(stdout);
        const Summary sum = RunGroups(options);
        PrintMoments(sum);
        const bool judged = Judge(options, sum);
        return (!options.stats || JudgeStats(sum.answers)) && JudgeFiles(options) && judged;
    });
}

} // namespace
} // namespace storm

int main(int argc, char **argv) { return storm::Main(argc, argv); }
