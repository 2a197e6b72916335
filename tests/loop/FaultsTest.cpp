// Every allocation and every system call of the loop fails once, and descriptors run out: nothing is lost but what the
// failure took, nothing is left behind, and the loop goes on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "faults/ManualPages.h"
#include "loop/LoopScenes.h"
#include "support/Sanitized.h"
#include "support/Watchdog.h"

namespace tarvo_test {
namespace {

constexpr unsigned MOST_FAULTS = 300;

// One error that each call may well have, and one that nobody expects.
struct Kind {
    Call call;
    std::vector<int> errors;
};

const std::vector<Kind> &Kinds() {
    static const auto *const kinds = new std::vector<Kind>{
        {Call::Access, {EACCES, ENOENT}},
        {Call::Chmod, {EPERM}},
        {Call::Close, {EINTR, EIO}},
        {Call::EpollCreate, {EMFILE, ENOMEM}},
        {Call::EpollCtl, {ENOMEM, ENOSPC}},
        {Call::EpollWait, {EINTR}},
        {Call::Eventfd, {EMFILE, ENOMEM}},
        {Call::Fcntl, {EPERM}},
        {Call::Flock, {ENOLCK, EWOULDBLOCK}},
        {Call::Fstat, {ENOMEM}},
        {Call::InotifyInit, {EMFILE, ENOMEM}},
        {Call::InotifyAddWatch, {ENOSPC, EACCES}},
        {Call::Link, {EEXIST, ENOSPC}},
        {Call::Lstat, {EACCES, ENOENT}},
        {Call::Mkfifo, {EACCES, ENOSPC, EEXIST}},
        {Call::Open, {EMFILE, ENOENT, ENXIO, EINTR}},
        {Call::Read, {EINTR, EIO, EAGAIN}},
        {Call::Realpath, {ENOENT, ENOMEM}},
        {Call::TimerfdCreate, {EMFILE}},
        {Call::TimerfdSettime, {EINVAL}},
        {Call::Unlink, {EACCES, ENOENT}},
        {Call::Write, {EAGAIN, EINTR, EIO, EPIPE}},
    };
    return *kinds;
}

class LoopFaults : public testing::TestWithParam<std::size_t> {
protected:
    const Function function = LoopFunctions().at(GetParam());
    std::vector<std::string> problems; // told at the end: processes forked from one that has failed could not tell

    ~LoopFaults() override {
        for (const std::string &problem : problems) {
            ADD_FAILURE() << problem;
        }
    }
};

TEST_P(LoopFaults, EachAllocationMayFail) {
    const Watchdog watchdog(std::chrono::seconds(280));
    for (unsigned nth = 1;; ++nth) {
        bool hit = false;
        for (const bool goOn : {true, false}) {
            CurrentFault() = Fault{Call::Count, 0, nth, Whose::Callers, nth};
            const Outcomes seen = RunCase(function, CurrentFault(), goOn);
            hit = seen.hit;
            if (!seen.problem.empty()) {
                problems.push_back(seen.problem);
                return;
            }
        }
        if (!hit) {
            std::printf("%u allocations\n", nth - 1);
            return;
        }
        ASSERT_LT(nth, MOST_FAULTS) << "it allocates without end";
    }
}

TEST_P(LoopFaults, EachSystemCallMayFail) {
    const Watchdog watchdog(std::chrono::seconds(280));
    std::vector<Call> all;
    for (const Kind &kind : Kinds()) {
        all.push_back(kind.call);
    }
    const std::vector<Call> made = CallsOf(function, all);
    unsigned cases = 0;
    for (const Kind &kind : Kinds()) {
        if (function.name == "Close" && (kind.call == Call::Fstat || kind.call == Call::Lstat)) {
            continue; // who cannot tell whether a file is still its own leaves it
        }
        for (const int error : kind.errors) {
            for (unsigned nth = 1; std::find(made.begin(), made.end(), kind.call) != made.end(); ++nth) {
                CurrentFault() = Fault{kind.call, error, nth, Whose::Callers, 0};
                const Outcomes seen = RunCase(function, CurrentFault(), true);
                if (!seen.problem.empty()) {
                    problems.push_back("call " + std::to_string(static_cast<int>(kind.call)) + " number " +
                                       std::to_string(nth) + " " + NameOfErrno(error) + ": " + seen.problem);
                    break;
                }
                if (!seen.hit || nth >= MOST_FAULTS) {
                    EXPECT_LT(nth, MOST_FAULTS) << "ever more calls of kind " << static_cast<int>(kind.call);
                    break;
                }
                ++cases;
            }
            if (SLOW) {
                break; // the others take the same way, and many times as long
            }
        }
    }
    std::printf("%u cases\n", cases);
    EXPECT_GT(cases, 0U);
}

class Descriptors {
public:
    void TakeAllBut(std::size_t spare) {
        for (int fd = dup(STDERR_FILENO); fd >= 0; fd = dup(STDERR_FILENO)) {
            taken.push_back(fd);
        }
        for (; spare > 0 && !taken.empty(); --spare) {
            close(taken.back());
            taken.pop_back();
        }
    }
    void GiveBack() {
        for (const int fd : taken) {
            close(fd);
        }
        taken.clear();
    }

private:
    std::vector<int> taken;
};

bool LimitDescriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 300;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

TEST_P(LoopFaults, DescriptorsMayRunOut) {
    for (std::size_t spare = 0; spare <= 8; ++spare) {
        Descriptors descriptors;
        const Outcomes seen = RunWithout(
            function, {LimitDescriptors, [&] { descriptors.TakeAllBut(spare); }, [&] { descriptors.GiveBack(); }});
        if (!seen.problem.empty()) {
            problems.push_back(std::to_string(spare) + " spare: " + seen.problem);
        } else if (spare == 8) {
            EXPECT_TRUE(seen.result >= 0 || seen.result == -ETIMEDOUT) << seen.result;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Uses, LoopFaults, testing::Range<std::size_t>(0, LoopFunctions().size()),
                         [](const testing::TestParamInfo<std::size_t> &use) {
                             return LoopFunctions().at(use.param).name;
                         });

} // namespace
} // namespace tarvo_test
