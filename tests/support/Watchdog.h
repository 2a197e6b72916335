// Ends the process with a report when a test hangs.
#ifndef TARVO_SUPPORT_WATCHDOG_H
#define TARVO_SUPPORT_WATCHDOG_H

#include <chrono>

namespace tarvo_test {

// Aborts the process, with the name of the test and the last log lines, when it lives longer than `limit` of real time.
// It is an alarm(2) and no thread, so that it disturbs neither thread counts nor forks. One is in force at a time: an
// inner one replaces the outer until it ends. Every test runs under one of 100 s, 300 s in an
// emulator ($TARVO_TEST_WATCHDOG, in seconds).
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds limit);
    ~Watchdog();
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

private:
    unsigned outer;
};

// Starts the alarm of a test; 0 stops it.
unsigned ArmAlarm(unsigned seconds);

// Seconds that one test may take.
unsigned TestLimit();

} // namespace tarvo_test

#endif // TARVO_SUPPORT_WATCHDOG_H
