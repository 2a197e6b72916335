// The processes between which tarvoctl bench measures: this program again.
#ifndef TARVO_TARVOCTL_BENCHCHILD_H
#define TARVO_TARVOCTL_BENCHCHILD_H

#include <cstdint>
#include <string>
#include <vector>

#include "shared/Engine.h"
#include "shared/Histogram.h"

namespace tarvoctl {

struct ChildTask {
    std::string role; // "server" or "client"
    std::string server;
    std::string engine = ENGINE_THREADS;
    uint32_t size = 64;
    uint32_t threads = 1;     // each with one call under way
    uint32_t outstanding = 1; // calls under way on the loop
    uint64_t warmUpUs = 0;    // calls of this time do not count
    uint64_t durationUs = 1000000;
    double rate = 0; // calls a second of the whole process; 0: flat out
    bool urgent = false;
};

// As arguments of this program, and as the hidden subcommand that takes them.
std::vector<std::string> ArgumentsOf(const ChildTask &task);

// What a client reports.
struct ChildReport {
    uint64_t failures = 0;
    double seconds = 0;
    Histogram times;
};

// Each writes "ready" and a line end to standard output once it is set up. The server ends with its standard input; the
// client waits for a line on it, measures, and writes its report on one line. Exit status.
int RunBenchChild(const ChildTask &task);

// What the processes of both engines do alike.
constexpr int BENCH_OPEN_TIMEOUT_MS = 5000;
constexpr int BENCH_CALL_TIMEOUT_MS = 1000;
void SayReady();
// True when a line came, false at the end of the input.
bool ReadLine();
void PutReport(const ChildReport &report);
int ServerFailed(int error);
int ClientFailed(int error);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_BENCHCHILD_H
