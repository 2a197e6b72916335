// tarvo-bridge: makes servers of one machine reachable from another.
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <set>
#include <string>

#include "api/EnvManager.h"
#include "base/UniqueFd.h"
#include "core/Report.h"
#include "local/Rounds.h"
#include "local/Runner.h"
#include "loop/Loop.h"
#include "loop/Moments.h"
#include "network/DdsNetwork.h"
#include "program/NameLocks.h"
#include "program/Options.h"
#include "program/StateFile.h"

namespace tarvo_bridge {
namespace {

constexpr unsigned DDS_END_LIMIT_S = 2;

Level LevelOf(const std::string &name) {
    if (name == "error") {
        return Level::ERROR;
    }
    if (name == "warning") {
        return Level::WARNING;
    }
    return name == "info" ? Level::INFO : Level::NOTICE;
}

RunId DrawRun() {
    std::random_device random;
    RunId run = 0;
    while (run == 0) {
        run = uint64_t{random()} << 32 | random();
    }
    return run;
}

// Each client takes two descriptors.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

bool TakeNames(const Options &options, NameLocks &locks) {
    std::string fault;
    for (const std::string &name : options.plan.exports) {
        fault = fault.empty() ? locks.Take(options.stateFolder, name, "exported") : fault;
    }
    for (const ImportRule &rule : options.plan.imports) {
        fault = fault.empty() ? locks.Take(options.stateFolder, rule.local, "imported") : fault;
    }
    if (!fault.empty()) {
        Say(Level::ERROR, "{}", fault);
    }
    return fault.empty();
}

UniqueFd BlockedSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    // Before the DDS makes its threads.
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Tells the service manager, as often as it wants to be told, that the loop goes round.
// Owns: its task. Threads: that of the loop. Locks: none. Ends: before the loop.
class Watchdog {
public:
    explicit Watchdog(TarvoLoop &loop) : task(loop, [this] { Tell(); }) {
        uint64_t limitUs = 0;
        if (sd_watchdog_enabled(0, &limitUs) > 0) {
            intervalMs = static_cast<int64_t>(limitUs / 3 / 1000);
            Tell();
        }
    }

private:
    void Tell() {
        sd_notify(0, "WATCHDOG=1");
        task.At(Now() / MICROSECONDS_PER_MILLISECOND + intervalMs);
    }

    int64_t intervalMs = 0;
    Task task;
};

volatile std::sig_atomic_t exitStatus = EXIT_OK;

// To end, the DDS sends its threads a packet at its own address, and waits for them for ever where the network has
// gone. All else of the bridge has ended by then, so that the process may.
int EndSoon(int status) {
    std::fflush(nullptr);
    exitStatus = status;
    signal(SIGALRM, [](int) { _exit(exitStatus); });
    alarm(DDS_END_LIMIT_S);
    return status;
}

int Check(const Options &options) {
    // Nobody but the DDS knows what a file for it may say.
    DdsNetwork network;
    const std::string fault = options.network.ddsConfig.empty() ? "" : network.Configure(options.network);
    if (!fault.empty()) {
        Say(Level::ERROR, "{}", fault);
        return EndSoon(EXIT_USAGE);
    }
    fmt::print("exports {}, imports {}, machine '{}': all right\n", options.plan.exports.size(),
               options.plan.imports.size(), options.plan.machine);
    return EndSoon(EXIT_OK);
}

int Serve(Options &options) {
    DdsNetwork network; // ends last
    const UniqueFd signals = BlockedSignals();
    RaiseDescriptorLimit();
    NameLocks locks;
    if (!TakeNames(options, locks)) {
        return EXIT_FAILED;
    }
    options.plan.run = DrawRun();
    const RunId run = options.plan.run;
    const std::string machine = options.plan.machine;
    TarvoLoop loop;
    const int ret = loop.Init();
    if (ret != 0) {
        Say(Level::ERROR, "the bridge cannot start: {}", std::strerror(-ret));
        return EXIT_FAILED;
    }
    const std::string fault = network.Open(run, options.network);
    if (!fault.empty()) {
        Say(Level::ERROR, "{}", fault);
        return EndSoon(EXIT_FAILED);
    }
    Runner runner(loop, std::move(options.plan), network);
    StateFile state(loop, options.stateFolder, machine, runner.TheBridge());
    runner.SetObserver([&state] { state.Changed(); });
    Rounds rounds(loop, runner, network);
    Task ending(loop, [&rounds] { rounds.Stop(); });
    if (rounds.Init() != 0 || ending.WhenReadable(signals.Get()) != 0) {
        Say(Level::ERROR, "the bridge cannot start: {}", std::strerror(ENOMEM));
        return EndSoon(EXIT_FAILED);
    }
    runner.Begin();
    const Watchdog watchdog(loop);
    state.Changed();
    sd_notify(0, "READY=1");
    Say(Level::NOTICE, "machine '{}', run {:016x}: at work", machine, run);
    const bool stopped = rounds.Run();
    runner.SetObserver(nullptr);
    sd_notify(0, "STOPPING=1");
    return EndSoon(stopped ? EXIT_OK : EXIT_FAILED);
}

} // namespace
} // namespace tarvo_bridge

int main(int argc, char **argv) {
    using namespace tarvo_bridge;
    Options options;
    switch (ParseOptions(argc, argv, options)) {
    case Parsed::DONE:
        return EXIT_OK;
    case Parsed::WRONG:
        return EXIT_USAGE;
    case Parsed::RUN:
        break;
    }
    SetTold(LevelOf(options.log));
    return options.check ? Check(options) : Serve(options);
}
