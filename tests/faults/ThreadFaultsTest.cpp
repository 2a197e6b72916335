// System calls fail on the threads behind a call: those that receive, that serve and that run the callbacks. Which of
// them makes the n-th call of a kind differs from run to run, and so does the result; that there is one, and that the
// library works afterwards, does not.
#include <gtest/gtest.h>

#include "faults/Functions.h"
#include "faults/ManualPages.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

// The threads go on for as long as there is work, so their calls have no last one.
constexpr unsigned CALLS = 4;

class ThreadFaults : public testing::TestWithParam<std::size_t> {};

TEST_P(ThreadFaults, EachLeavesTheLibraryUsable) {
    const Function &function = CallsThroughThreads().at(GetParam());
    std::vector<std::string> problems;
    unsigned cases = 0;
    for (const ManualPage &page : ManualPages()) {
        for (std::size_t i = 0; i < (SLOW ? 1 : page.errnos.size()); ++i) {
            Outcomes seen;
            seen.hit = true;
            for (unsigned nth = 1; nth <= CALLS && seen.hit; ++nth) {
                seen = RunCase(function, Fault{page.call, page.errnos[i], nth, Whose::Behind, 0}, true);
                cases += seen.hit ? 1 : 0;
                if (!seen.problem.empty()) {
                    problems.push_back(seen.problem);
                } else if (seen.result > 0) {
                    problems.push_back(page.name + ": result " + std::to_string(seen.result));
                }
            }
        }
    }
    for (const std::string &problem : problems) {
        ADD_FAILURE() << problem;
    }
    EXPECT_GT(cases, 10U);
    std::printf("%u cases\n", cases);
}

INSTANTIATE_TEST_SUITE_P(Behind, ThreadFaults, testing::Range<std::size_t>(0, CallsThroughThreads().size()));

} // namespace
} // namespace tarvo_test
