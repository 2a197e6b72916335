// One contestant of the process-level benchmark. scripts/bench.sh runs it.
#include <sched.h>
#include <sys/prctl.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>

#include "Roles.h"

namespace {

void StayOnLastCore() {
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof(allowed), &allowed);
    for (int core = CPU_SETSIZE - 1; core >= 0; --core) {
        if (CPU_ISSET(core, &allowed)) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(core, &one);
            sched_setaffinity(0, sizeof(one), &one);
            return;
        }
    }
}

void AddPlace(CLI::App &app, bench::Role &role) {
    app.add_option("--endpoint", role.place.endpoint, "name of the server, unique on this machine")->required();
    app.add_flag("--urgent", role.place.urgent, "with the contestant's real-time priority");
    app.add_flag("--one-core", role.oneCore, "on the last core only");
    app.add_option("--lock", role.lock, "mlockall, in full or for what is touched")
        ->check(CLI::IsMember({"whole", "onfault"}));
}

void AddTask(CLI::App &app, bench::Role &role) {
    bench::Task &task = role.task;
    app.add_option("--self", role.place.self, "name of this client, unique on this machine")->required();
    app.add_option("--lanes", role.place.lanes, "threads that call at the same time");
    app.add_option("--server", role.servers, "process whose time and system calls count as the server's");
    app.add_option("--samples", role.samples, "file for the latencies: ns, 64-bit numbers of this machine");
    app.add_option("--kind", task.kind)->check(CLI::IsMember({"call", "window", "oneway", "connect", "opens", "open"}));
    app.add_option("--size", task.size, "bytes of a message")->check(CLI::Range(std::size_t{1}, bench::MAX_PAYLOAD));
    app.add_option("--warm-up", task.warmUp, "calls of each thread before it is ready");
    app.add_option("--pipes", task.pipes, "connections that are open, the last one in use");
    app.add_option("--window", task.window, "calls outstanding, or one-way messages not yet handled");
    app.add_option("--rate", task.rate, "calls a second, for --kind open");
    app.add_option("--fastest", task.fastest, "calls a second of this process for which there is memory");
    app.add_option("--seconds", task.seconds, "goes on for at least so long,");
    app.add_option("--least", task.samples, "and at least so often,");
    app.add_option("--limit", task.limit, "but for no more seconds than this");
    app.add_option("--count", task.count, "exactly so often instead");
    app.add_option("--realtime", task.realtime, "priority of the callers in SCHED_FIFO, for --kind open");
}

int Run(const CLI::App &app, const bench::Role &role) {
    if (role.oneCore) {
        StayOnLastCore();
    }
    return app.got_subcommand("describe") ? bench::Describe()
           : app.got_subcommand("server") ? bench::RunServer(role)
           : app.got_subcommand("client") ? bench::RunClient(role)
                                          : bench::RunBusy();
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    CLI::App app("One contestant of the process-level benchmark; scripts/bench.sh runs it.");
    app.require_subcommand(1);
    bench::Role role;
    app.add_subcommand("describe", "print what it is, as JSON");
    app.add_subcommand("busy", "use a core until killed");
    AddPlace(*app.add_subcommand("server", "serve until standard input ends"), role);
    CLI::App &client = *app.add_subcommand("client", "do what standard input says: \"run 0\", \"count 1000\"");
    AddPlace(client, role);
    AddTask(client, role);
    CLI11_PARSE(app, argc, argv);
    try {
        return Run(app, role);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
