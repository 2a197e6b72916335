// What is measured, and how one measurement of one contestant is taken.
#ifndef TARVO_BENCH_PROCESS_SCENARIO_H
#define TARVO_BENCH_PROCESS_SCENARIO_H

#include <map>
#include <string>
#include <vector>

#include "Contestant.h"
#include "Roles.h"

namespace bench {

struct Scenario {
    const char *name;
    const char *text;
    ClientTask task;
    std::size_t clients = 1;
    bool foreignLoad = false;     // with two busy processes beside it
    bool ownTopologyOnly = false; // of interest for the library and the floor only
    bool manyPipes = false;       // the cost is also compared with that of the first scenario of this kind
};

const std::vector<Scenario> &Scenarios();

// Metric name to value: p50, p99, p999 (us), rate (1/s), cpu (us a call), syscalls (a call).
using Figures = std::map<std::string, double>;

bool Supports(const Contestant &contestant, const Scenario &scenario);

// Starts a server and its clients, measures, ends them. On one core (the last that this process may use) or on all.
// Throws std::runtime_error when the contestant fails.
Figures Measure(const Contestant &contestant, const Scenario &scenario, bool oneCore, std::size_t divisor);

} // namespace bench

#endif // TARVO_BENCH_PROCESS_SCENARIO_H
