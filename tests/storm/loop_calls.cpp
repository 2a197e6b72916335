// Calls of the loop in masses: some are cancelled, and the time-outs of others are the median time that an answer
// takes, so that each answer and its time-out meet as often as not. Each call must end once, the answer must be its
// own, and neither process may grow. The service runs in a process of its own, which may be killed again and again.
#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "storm/Board.h"
#include "storm/CommandLine.h"
#include "storm/LoopClient.h"
#include "storm/LoopService.h"
#include "storm/Proof.h"
#include "storm/Usage.h"
#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/Process.h"
#include "support/Sanitized.h"

namespace storm {
namespace {

using tarvo_test::Channel;
using tarvo_test::ChildProcess;

constexpr int64_t NANOSECONDS_PER_MINUTE = 60000000000;
// What an allocator may keep more of than before, and what the kernel counts for a process.
constexpr long HEAP_LIMIT = 100000;
constexpr long RESIDENT_LIMIT_KIB = 1024;

struct Options {
    uint64_t calls = 1000000;
    unsigned kills = 0;
    unsigned groups = 1;
    double minutes = 0; // at least so long
    int paceMs = 0;     // between two turns
    uint64_t seed = 0;
};

// What the two processes hold.
struct Holding {
    static Holding Now(pid_t service) {
        Holding held;
        held.service = service;
        held.heap = tarvo_test::SANITIZED ? 0 : static_cast<long>(mallinfo2().uordblks);
        held.clientKiB = ResidentOf(getpid()).Total();
        held.serviceKiB = ResidentOf(service).Total();
        held.clientDescriptors = CountEntries(getpid(), "fd");
        held.serviceDescriptors = CountEntries(service, "fd");
        held.threads = CountEntries(getpid(), "task") + CountEntries(service, "task");
        return held;
    }

    void Print(double minute, uint64_t calls) const {
        fmt::print("{:>6.1f} {:>12} {:>10} {:>8} {:>8} {:>6} {:>6} {:>8}\n", minute, calls, heap, clientKiB, serviceKiB,
                   clientDescriptors, serviceDescriptors, threads);
        std::fflush(stdout);
    }

    // Whether it is no more than `before`, but for what an allocator keeps.
    bool Within(const Holding &before) const {
        // Another service has been started since.
        const bool comparable = service == before.service && !tarvo_test::SANITIZED;
        return heap - before.heap < HEAP_LIMIT && clientDescriptors <= before.clientDescriptors &&
               threads <= before.threads &&
               (!comparable || (clientKiB - before.clientKiB < RESIDENT_LIMIT_KIB &&
                                serviceKiB - before.serviceKiB < RESIDENT_LIMIT_KIB &&
                                serviceDescriptors <= before.serviceDescriptors));
    }

    pid_t service = 0;
    long heap = 0; // bytes, of the client
    long clientKiB = 0;
    long serviceKiB = 0;
    long clientDescriptors = 0;
    long serviceDescriptors = 0;
    long threads = 0;
};

// One client and its service. Owns: both. Threads: one. Locks: none. Ends: kills the service.
class Group {
public:
    Group(const Options &wanted, const std::string &name)
        : options(wanted), services(name), service(services.Start()), client(wanted.seed, name) {}

    bool Run() {
        const int64_t start = Now();
        const auto end = start + static_cast<int64_t>(options.minutes * NANOSECONDS_PER_MINUTE);
        int64_t nextRow = start + NANOSECONDS_PER_MINUTE;
        bool good = client.Connect();
        if (options.minutes > 1) {
            fmt::print("{:>6} {:>12} {:>10} {:>8} {:>8} {:>6} {:>6} {:>8}\n", "minute", "calls", "heap B", "RSS KiB",
                       "service", "fds", "service", "threads");
        }
        while (good && (client.Begun() < options.calls || killed < options.kills || Now() < end)) {
            client.Turn();
            good = Live();
            if (!warm && client.Begun() > options.calls / 2) {
                warm = true;
                before = Holding::Now(service);
            }
            if (options.minutes > 1 && Now() >= nextRow) {
                Holding::Now(service).Print(static_cast<double>(Now() - start) / NANOSECONDS_PER_MINUTE,
                                            client.Begun());
                nextRow += NANOSECONDS_PER_MINUTE;
            }
        }
        client.EndAll();
        return Judge() && good;
    }

private:
    bool Live() {
        if (killed < options.kills && client.Begun() >= (killed + 1) * (options.calls / (options.kills + 1) + 1)) {
            ++killed;
            service = services.Start();
        }
        if (options.paceMs > 0) {
            poll(nullptr, 0, options.paceMs);
        }
        return client.Connected() || client.Connect();
    }

    bool Judge() const {
        const Holding after = Holding::Now(service);
        const bool good = client.Judge();
        fmt::print("{:<40}{:>10}\n{:<40}{:>10}\n{:<40}{:>10}\n", "kills", killed, "heap bytes more in the second half",
                   after.heap - before.heap, "descriptors more", after.clientDescriptors - before.clientDescriptors);
        fmt::print("{:<40}{:>10}\n", "threads of both", after.threads);
        const long emulators = tarvo_test::EMULATED ? 2 : 0; // a thread of its own in each process
        const bool single = after.threads == 2 + emulators || tarvo_test::SANITIZED;
        return good && single && warm && after.Within(before);
    }

    const Options options;
    Services services;
    pid_t service;
    LoopClient client;
    unsigned killed = 0;
    bool warm = false;
    Holding before;
};

// Several at once: most of the time of a killed one passes with the wait for its files to go.
bool RunGroups(const Options &options) {
    std::vector<std::unique_ptr<ChildProcess>> groups;
    for (unsigned i = 0; i < options.groups; ++i) {
        Options share = options;
        share.calls = options.calls / options.groups;
        share.kills = options.kills / options.groups + (i < options.kills % options.groups ? 1 : 0);
        share.seed = options.seed + i;
        const std::string name = tarvo_test::UniqueName("storm");
        groups.push_back(std::make_unique<ChildProcess>([=](Channel &) { return Group(share, name).Run() ? 0 : 1; }));
    }
    return std::count_if(groups.begin(), groups.end(), [](const auto &group) { return group->Wait() != 0; }) == 0;
}

int Main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    options.seed = std::random_device{}();
    CommandLine line(
        "Makes masses of calls over the loop, with cancels and time-outs. The exit status is the verdict.");
    line.Option("--calls", options.calls, "how many calls");
    line.Option("--kills", options.kills, "how often the service is killed and restarted");
    line.Option("--groups", options.groups, "clients, with a service each, that share them", 1U, 64U);
    line.Option("--minutes", options.minutes, "how long at least; more than one: a row each");
    line.Option("--pace-ms", options.paceMs, "pause after each round of a client");
    line.Option("--seed", options.seed, "for what is cancelled; another one each time");
    if (const auto status = line.Parse(argc, argv)) {
        return *status;
    }
    return Prove([&] {
        fmt::print("seed {}\n", options.seed);
        return RunGroups(options);
    });
}

} // namespace
} // namespace storm

int main(int argc, char **argv) { return storm::Main(argc, argv); }
