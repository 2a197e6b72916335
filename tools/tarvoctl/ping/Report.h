#ifndef TARVO_TARVOCTL_PINGREPORT_H
#define TARVO_TARVOCTL_PINGREPORT_H

#include <chrono>
#include <cstdint>

#include "shared/Client.h"
#include "shared/Duration.h"
#include "shared/Histogram.h"

namespace tarvoctl {

struct PingOptions {
    ClientOptions client;
    uint64_t count = 0; // 0: until interrupted
    uint32_t size = 64;
    uint32_t outstanding = 1;
    Duration interval{std::chrono::seconds(1)};
    Duration timeout{std::chrono::seconds(1)};
    bool json = false;
};

// Prints the end of each call, and counts.
// Owns: the counts. Threads: one. Locks: none. Ends: any time.
class PingReport {
public:
    using Clock = std::chrono::steady_clock;

    explicit PingReport(const PingOptions &pingOptions) : options(pingOptions) {}

    // The time that is told counts from here.
    void Start() { start = Clock::now(); }
    // Calls that have ended.
    uint64_t Calls() const { return calls; }
    void Answer(uint64_t sequence, std::chrono::nanoseconds duration);
    // `result` is a negated errno.
    void Loss(uint64_t sequence, int result);
    // The statistics at the end, and the exit status.
    int Finish() const;

private:
    void PrintJson(double loss) const;
    void PrintText(double loss) const;

    const PingOptions &options;
    Clock::time_point start = Clock::now();
    uint64_t calls = 0;
    Histogram times;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_PINGREPORT_H
