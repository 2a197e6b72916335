#ifndef TARVO_TARVOCTL_ROUND_H
#define TARVO_TARVOCTL_ROUND_H

#include <cstdint>
#include <string>
#include <vector>

#include "bench/Child.h"
#include "shared/Duration.h"
#include "shared/Interrupt.h"

namespace tarvoctl {

struct BenchOptions {
    std::vector<uint32_t> sizes = {64};
    uint32_t clients = 1;
    uint32_t threads = 1;
    uint32_t outstanding = 1;
    std::vector<std::string> engines; // of the clients, in turn
    std::string serverEngine;
    Duration duration{std::chrono::seconds(2)};
    double rate = 0;
    std::string priority = "normal";
    bool json = false;
};

// The figures of one request size with one engine.
struct Round {
    std::string engine;
    uint32_t size = 0;
    uint64_t failures = 0;
    double seconds = 0;
    Histogram times;
};

// Starts a server, and for one engine after another the clients, lets them measure and adds up what they report, with
// progress on standard error. All of them have ended when it returns. Throws std::runtime_error when one of them fails
// or an interrupt comes.
std::vector<Round> MeasureSize(const BenchOptions &options, uint32_t size, const Interrupt &interrupt);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_ROUND_H
