// The child processes of the benchmark.
#ifndef TARVO_BENCH_PROCESS_ROLES_H
#define TARVO_BENCH_PROCESS_ROLES_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

// What one client process does.
struct ClientTask {
    std::string kind; // "call", "oneway" or "connect"
    std::size_t size = 64;
    std::size_t count = 1000;
    std::size_t lanes = 1;
    std::size_t pipes = 1; // open at the same time, the calls going over the last one
};

struct ChildOptions {
    std::string role;
    std::string contestant;
    std::string endpoint;
    std::string self;
    std::vector<pid_t> serverPids;
    ClientTask task;
};

// Both write a line "ready" to standard output when they are set up; the server adds the process ids of those that
// work for it, and its own. It ends when its standard input does; the
// client then waits for a line on it, runs its task and writes one line of `key=value` words. Exit status.
int RunServer(const ChildOptions &options);
int RunClient(const ChildOptions &options);

} // namespace bench

#endif // TARVO_BENCH_PROCESS_ROLES_H
