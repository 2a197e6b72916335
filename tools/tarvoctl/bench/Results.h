#ifndef TARVO_TARVOCTL_BENCHRESULTS_H
#define TARVO_TARVOCTL_BENCHRESULTS_H

#include <vector>

#include "bench/Machine.h"
#include "bench/Round.h"

namespace tarvoctl {

// The rounds of a benchmark: for each size one of each engine, in their order. Of engines it is told only where a loop
// takes part.
void PrintBenchJson(const BenchOptions &options, const Machine &machine, const std::vector<Round> &rounds);
void PrintBenchText(const BenchOptions &options, const Machine &machine, const std::vector<Round> &rounds);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_BENCHRESULTS_H
