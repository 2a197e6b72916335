#include "ExitTraffic.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/Names.h"
#include "support/Process.h"
#include "support/Sanitized.h"
#include "support/ThreadSanitizer.h"
#include "support/Watchdog.h"
#include "tarvo.h"

namespace tarvo_test {

namespace {

using Clock = std::chrono::steady_clock;

#ifdef TARVO_THREAD_SANITIZER
// ThreadSanitizer waits a second at exit for late races, while the traffic keeps all processors busy.
constexpr auto USUAL_LIMIT = std::chrono::seconds(4);
#else
constexpr auto USUAL_LIMIT = std::chrono::seconds(2);
#endif
// Both processors are busy all the time; $TARVO_EXIT_RUNS asks for more.
const int DEFAULT_RUNS = SANITIZED ? 5 : 10;
constexpr auto HANG = std::chrono::seconds(60);
constexpr auto ALL_RUNS = std::chrono::seconds(280);

std::atomic<int> progress{0};

int Runs() {
    const char *text = std::getenv("TARVO_EXIT_RUNS");
    return text == nullptr ? DEFAULT_RUNS : std::max(1, std::atoi(text));
}

[[noreturn]] void ExitElsewhere() {
    std::thread([] { std::exit(0); }).detach();
    for (;;) {
        TarvoServiceIsExist();
    }
}

Clock::duration ExitOnce(const std::function<void()> &start, bool fromAnotherThread) {
    const Watchdog watchdog(HANG);
    ChildProcess child([&](Channel &channel) -> int {
        start();
        channel.Signal();
        if (fromAnotherThread) {
            ExitElsewhere();
        }
        std::exit(0);
    });
    EXPECT_TRUE(child.Await());
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(child.Wait(), 0);
    return Clock::now() - begin;
}

} // namespace

void ExitUnderTraffic(const std::function<void()> &start, ExitOptions options) {
    const Watchdog watchdog(ALL_RUNS);
    FifoDirectory();
    std::vector<Clock::duration> times;
    for (int run = 0; run < Runs() && !testing::Test::HasFailure(); ++run) {
        times.push_back(ExitOnce(start, options.fromAnotherThread));
        if (!options.mayLeaveFiles) {
            EXPECT_THAT(OwnFifoFiles(), testing::IsEmpty());
        }
        RemoveOwnFifoFiles();
    }
    // The middle one, since a single process may have been kept waiting by the machine.
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
    EXPECT_LT(times[times.size() / 2], USUAL_LIMIT);
}

void Forever(const std::function<void()> &step) {
    std::thread([step] {
        for (;;) {
            step();
        }
    }).detach();
}

void Progress() { progress.fetch_add(1, std::memory_order_relaxed); }

void AwaitProgress(int times) {
    if (!Eventually([times] { return progress >= times; })) {
        std::abort();
    }
}

} // namespace tarvo_test
