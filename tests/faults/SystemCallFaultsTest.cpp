// Every system call of every exported function fails in every way that its manual page names.
#include <gtest/gtest.h>

#include <cerrno>

#include "faults/FaultTable.h"
#include "faults/Functions.h"
#include "faults/ManualPages.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

// More than any function makes of one kind: the end of a loop that does not end.
constexpr unsigned MOST_CALLS = 100;

// Those that a function makes in every run.
std::vector<Call> AllCalls() {
    std::vector<Call> calls;
    for (const ManualPage &page : ManualPages()) {
        if (page.always) {
            calls.push_back(page.call);
        }
    }
    return calls;
}

const ManualPage &PageOf(Call call) {
    for (const ManualPage &page : ManualPages()) {
        if (page.call == call) {
            return page;
        }
    }
    throw std::logic_error("a call without a page");
}

// All cases of one function.
class Trial {
public:
    explicit Trial(const Function &tested) : function(tested), table(tested) {}

    // Each call of this kind fails with each of its errors.
    void Fail(const ManualPage &page) {
        leftovers.clear();
        for (const int error : page.errnos) {
            FailWith(page, error);
            if (SLOW) {
                return; // the others take the same way through the code, and many times as long
            }
        }
    }

    const FaultTable &Table() const { return table; }
    const std::vector<std::string> &Problems() const { return problems; }

private:
    // The first call fails with this error, then the second, and so on until the function does not come that far.
    void FailWith(const ManualPage &page, int error) {
        for (unsigned nth = 1; nth <= MOST_CALLS; ++nth) {
            const Fault fault{page.call, error, nth, Whose::Callers, 0};
            Outcomes seen = RunCase(function, fault, true);
            if (!seen.problem.empty()) {
                problems.push_back(seen.problem);
                return;
            }
            if (!seen.hit) {
                return;
            }
            seen.fileStays = FileStays(fault, seen.result);
            table.Add(page, nth, error, seen);
        }
        problems.push_back(function.name + " makes ever more calls of " + page.name);
    }

    // Whether a file is left when the caller gives up. Looked at once for all errors with which the n-th call fails
    // alike.
    bool FileStays(const Fault &fault, int result) {
        const std::pair<unsigned, bool> alike(fault.nth, result < 0);
        const auto known = leftovers.find(alike);
        if (known != leftovers.end()) {
            return known->second;
        }
        const Outcomes seen = RunCase(function, fault, false);
        if (!seen.problem.empty()) {
            problems.push_back(seen.problem);
        }
        return leftovers[alike] = seen.fileStays;
    }

    const Function &function;
    FaultTable table;
    std::map<std::pair<unsigned, bool>, bool> leftovers;
    std::vector<std::string> problems;
};

class SystemCallFaults : public testing::TestWithParam<std::size_t> {};

TEST_P(SystemCallFaults, EachIsReportedAndLeavesTheLibraryUsable) {
    const Function &function = ExportedFunctions().at(GetParam());
    Trial trial(function);
    for (const Call call : CallsOf(function, AllCalls())) {
        trial.Fail(PageOf(call));
    }
    for (const std::string &problem : trial.Problems()) {
        ADD_FAILURE() << problem;
    }
    std::printf("%zu cases\n", trial.Table().Cases());
    if (SLOW) {
        std::printf("One error for each call under a sanitizer or an emulator; the table is not compared.\n");
    } else {
        CompareWithKept(function.name, trial.Table().Markdown());
    }
}

TEST(Waits, AreTakenUpAgainAfterAnInterruption) {
    for (const Function &function : ExportedFunctions()) {
        for (const ManualPage &page : ManualPages()) {
            if (!page.always) {
                const Outcomes seen = RunCase(function, Fault{page.call, EINTR, 1, Whose::Callers, 0}, true);
                EXPECT_EQ(seen.problem, "");
                EXPECT_GE(seen.result, 0) << function.name;
            }
        }
    }
}

std::string NameOfTest(const testing::TestParamInfo<std::size_t> &info) {
    std::string name;
    for (const char letter : ExportedFunctions().at(info.param).name) {
        name += std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Exported, SystemCallFaults, testing::Range<std::size_t>(0, ExportedFunctions().size()),
                         NameOfTest);

} // namespace
} // namespace tarvo_test
