#ifndef TARVO_TESTS_STATS_PIPENAMED_H
#define TARVO_TESTS_STATS_PIPENAMED_H

#include <cstdint>
#include <string_view>

#include "stats/Stats.h"
#include "tarvo_stats.h"

namespace tarvo_test {

inline StatsIdentity PipeNamed(std::string_view name, int64_t handle = 1) {
    return {TARVO_STATS_PIPE, TARVO_STATS_LOOP, handle, name, "remote"};
}

} // namespace tarvo_test

#endif // TARVO_TESTS_STATS_PIPENAMED_H
