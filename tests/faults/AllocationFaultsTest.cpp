// Every allocation of every exported function fails once: the first, then the second, until the function makes no more.
// The process has not used the library before, so those that are made only once in a process are among them.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <set>

#include "faults/FaultTable.h"
#include "faults/Functions.h"
#include "support/Sanitized.h"
#include "support/Watchdog.h"

namespace tarvo_test {
namespace {

constexpr unsigned MOST_ALLOCATIONS = 500;

std::string TextOf(const Function &function, int result) {
    if (function.returns == Returns::Nothing) {
        return "done";
    }
    if (result < 0) {
        return "−" + NameOfErrno(-result);
    }
    return function.returns == Returns::Handle ? "handle" : std::to_string(result);
}

// The results in words; what went wrong goes to `problems`.
std::set<std::string> FailEachAllocation(const Function &function, std::vector<std::string> &problems) {
    std::set<std::string> results;
    for (unsigned nth = 1; nth <= MOST_ALLOCATIONS; ++nth) {
        const Fault fault{Call::Count, 0, nth, Whose::Callers, nth};
        for (const bool goOn : {true, false}) {
            if (SLOW && !goOn) {
                continue; // for time
            }
            const Outcomes seen = RunCase(function, fault, goOn);
            if (!seen.problem.empty()) {
                problems.push_back(seen.problem);
            } else if (!seen.hit) {
                std::printf("%s: %u allocations\n", function.name.c_str(), nth - 1);
                return results;
            } else {
                results.insert(TextOf(function, seen.result));
            }
        }
    }
    problems.push_back(function.name + " allocates without end");
    return results;
}

TEST(AllocationFaults, EachIsReportedAndLeavesTheLibraryUsable) {
    const Watchdog watchdog(std::chrono::seconds(290)); // some 300 processes, one after another
    std::vector<std::string> problems;
    std::string rows = "| function | results |\n|---|---|\n";
    for (const Function &function : ExportedFunctions()) {
        std::string text;
        for (const std::string &result : FailEachAllocation(function, problems)) {
            text += (text.empty() ? "" : ", ") + result;
        }
        rows += "| " + function.name + " | " + (text.empty() ? "allocates nothing" : text) + " |\n";
    }
    for (const std::string &problem : problems) {
        ADD_FAILURE() << problem;
    }
    CompareWithKept("Allocations", rows);
}

} // namespace
} // namespace tarvo_test
