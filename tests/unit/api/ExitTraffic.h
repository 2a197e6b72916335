// Processes that exit while their threads are inside the library.
#ifndef TARVO_TESTS_API_EXITTRAFFIC_H
#define TARVO_TESTS_API_EXITTRAFFIC_H

#include <functional>

namespace tarvo_test {

struct ExitOptions {
    bool mayLeaveFiles = false;     // pipes are being opened when the process ends
    bool fromAnotherThread = false; // exit is not called by the main thread, which does something else then
};

// Forks processes one after another, 10 of them (5 under a sanitizer) or as many as $TARVO_EXIT_RUNS says. Each runs
// `start`, which returns once traffic flows, and then exits while that goes on. Checks that each ends with code 0 (a
// sanitizer's report ends it with another), soon, and without leaving a file of a pipe behind.
void ExitUnderTraffic(const std::function<void()> &start, ExitOptions options = {});

// ---- Pieces of traffic, for the child ----

// A thread that does it again and again until the process is gone.
void Forever(const std::function<void()> &step);
// Counts towards AwaitProgress.
void Progress();
// Returns once Progress has been called that often in this process.
void AwaitProgress(int times);

} // namespace tarvo_test

#endif // TARVO_TESTS_API_EXITTRAFFIC_H
