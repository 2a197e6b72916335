// The surroundings of a pipe that its tests change: sleeps, the domain of the process, the number of descriptors.
#ifndef TARVO_TESTS_PIPE_PIPEENVIRONMENT_H
#define TARVO_TESTS_PIPE_PIPEENVIRONMENT_H

#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "support/FakeClock.h"
#include "support/Faults.h"
#include "tarvo.h"

namespace tarvo_test {

// A restrained line is written once by each call site and thread in 600 s. While this lives, the clock is so far ahead
// that no line of an earlier test of this process counts.
class FreshRestrainedLines {
public:
    explicit FreshRestrainedLines(FakeClock::Mode mode = FakeClock::Mode::Running);

    FakeClock clock;
};

// A clock that stands still but for the sleeps, which it records and does not sleep: also those on a condition
// variable, for which nothing ever happens.
class RecordedSleeps : public FreshRestrainedLines {
public:
    RecordedSleeps();

    // In microseconds, in order.
    std::vector<int64_t> Sleeps() const;
    int64_t Total() const;

private:
    mutable std::mutex mutex;
    void Record(int64_t nanoseconds);

    std::vector<int64_t> sleeps;
    ScopedHook sleepHook;
    ScopedHook waitHook;
};

// While it lives, this process belongs to the domain `current`, whatever the library was built for.
class ScopedDomain {
public:
    explicit ScopedDomain(TarvoDomain current);
    ~ScopedDomain();
    ScopedDomain(const ScopedDomain &) = delete;
    ScopedDomain &operator=(const ScopedDomain &) = delete;
};

// The arguments of each CreateFifo that the library calls while it lives.
class FifoCreations {
public:
    struct Creation {
        std::string name;
        uint32_t gid;
        int32_t targetPid;
        TarvoDomain domain;
        std::string targetCon;
    };

    FifoCreations();
    ~FifoCreations();
    FifoCreations(const FifoCreations &) = delete;
    FifoCreations &operator=(const FifoCreations &) = delete;

    std::vector<Creation> All() const;
};

// While it lives, the library knows of no directory for the FIFOs.
class NoFifoDirectory {
public:
    NoFifoDirectory();
    ~NoFifoDirectory();
    NoFifoDirectory(const NoFifoDirectory &) = delete;
    NoFifoDirectory &operator=(const NoFifoDirectory &) = delete;
};

// While it lives, this process can open `spare` more descriptors (in places that are free in order) and then no more.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int spare);
    ~DescriptorLimit();
    DescriptorLimit(const DescriptorLimit &) = delete;
    DescriptorLimit &operator=(const DescriptorLimit &) = delete;

private:
    rlimit before{};
};

} // namespace tarvo_test

#endif // TARVO_TESTS_PIPE_PIPEENVIRONMENT_H
