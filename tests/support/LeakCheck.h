// What a test leaves behind: descriptors, threads, and files in the FIFO directory that carry this process's tag.
#ifndef TARVO_SUPPORT_LEAKCHECK_H
#define TARVO_SUPPORT_LEAKCHECK_H

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarvo_test {

// Number of threads of this process. A thread that was joined may be counted for a moment longer.
std::size_t ThreadCount();
// The open descriptors and what they refer to.
std::map<int, std::string> OpenDescriptors();

// Fails the test when, at its end, there is more than at its beginning, or fewer descriptors or files. Threads may take
// `patience` to end.
class ScopedLeakCheck {
public:
    explicit ScopedLeakCheck(std::chrono::milliseconds patience = std::chrono::seconds(30));
    ~ScopedLeakCheck();
    ScopedLeakCheck(const ScopedLeakCheck &) = delete;
    ScopedLeakCheck &operator=(const ScopedLeakCheck &) = delete;

    // One line for each difference, after waiting for threads to end.
    std::vector<std::string> Leaks() const;
    // The end is not checked.
    void Dismiss() { dismissed = true; }

private:
    std::vector<std::string> Differences() const;

    const std::chrono::milliseconds patience;
    std::map<int, std::string> descriptors;
    std::map<int, std::string> threads;
    std::set<std::string> files;
    bool dismissed = false;
};

// Base of fixtures whose tests must leave nothing behind. It is checked after the members of the fixture are gone.
class LeakCheckedTest : public testing::Test {
private:
    ScopedLeakCheck check;
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_LEAKCHECK_H
