// The child processes of the benchmark, which scripts of bench/run start.
#ifndef TARVO_BENCH_PROCESS_ROLES_H
#define TARVO_BENCH_PROCESS_ROLES_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "Contestant.h"
#include "Task.h"

namespace bench {

struct Role {
    Place place;
    Task task;
    std::vector<pid_t> servers;
    bool oneCore = false; // on the last core that this process may use
    std::string lock;     // "whole": mlockall for all that is and comes, "onfault": for what is touched
    std::string samples;  // the file that takes a client's latencies, and with ".services" added the other ones
};

// One line of JSON that says what the contestant is.
int Describe();
// Says {"processes": [...]}, which work for it, and serves until its standard input ends.
int RunServer(const Role &role);
// Connects, says {"ready": true} and waits for lines on its standard input: "run T" runs the task from the moment T of
// the monotonic clock, "count N" runs N operations and counts their system calls. Each is answered with a line of JSON.
int RunClient(const Role &role);
// Uses its core until it is killed.
int RunBusy();

} // namespace bench

#endif // TARVO_BENCH_PROCESS_ROLES_H
