#include "PipeEnvironment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <numeric>

#include "support/Interpose.h"
#include "support/TimedWaits.h"

namespace tarvo_test {

namespace {

constexpr std::chrono::seconds LONGER_THAN_ANY_TEST_SLEEPS(10000);
constexpr int NO_DOMAIN = -1;

std::atomic<int> domainOfProcess{NO_DOMAIN};

} // namespace

FreshRestrainedLines::FreshRestrainedLines(FakeClock::Mode mode) : clock(mode) {
    static int previous = 0;
    clock.AdvanceWall(LONGER_THAN_ANY_TEST_SLEEPS * ++previous);
}

RecordedSleeps::RecordedSleeps()
    : FreshRestrainedLines(FakeClock::Mode::Frozen), hook(Call::Sleep, [this](const CallInfo &info) {
          const std::lock_guard<std::mutex> lock(mutex);
          sleeps.push_back(detail::ToNanoseconds(*static_cast<const timespec *>(info.data)) / 1000);
      }) {
    clock.SleepsAdvanceTheClock();
}

std::vector<int64_t> RecordedSleeps::Sleeps() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return sleeps;
}

int64_t RecordedSleeps::Total() const {
    const std::vector<int64_t> all = Sleeps();
    return std::accumulate(all.begin(), all.end(), int64_t{0});
}

ScopedDomain::ScopedDomain(TarvoDomain current) { domainOfProcess = current; }

ScopedDomain::~ScopedDomain() { domainOfProcess = NO_DOMAIN; }

DescriptorLimit::DescriptorLimit(int spare) {
    const int lowest = dup(STDIN_FILENO);
    EXPECT_GE(lowest, 0);
    close(lowest);
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit tight{static_cast<rlim_t>(lowest + spare), before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
}

DescriptorLimit::~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }

} // namespace tarvo_test

// These stand in front of the library's.
TarvoDomain GetCurrDomain(void) {
    const int current = tarvo_test::domainOfProcess;
    return current == tarvo_test::NO_DOMAIN ? TARVO_NEXT(GetCurrDomain)() : static_cast<TarvoDomain>(current);
}

bool IsOrlaDomainPipe(const TarvoDomain &domain) {
    const int current = tarvo_test::domainOfProcess;
    if (current == tarvo_test::NO_DOMAIN) {
        return TARVO_NEXT(IsOrlaDomainPipe)(domain);
    }
    return current == TARVO_DOMAIN_ORLA && (domain == TARVO_DOMAIN_LOCAL || domain == TARVO_DOMAIN_ORLA);
}

bool IsCrossDomainPipe(const TarvoDomain &domain) {
    const int current = tarvo_test::domainOfProcess;
    if (current == tarvo_test::NO_DOMAIN) {
        return TARVO_NEXT(IsCrossDomainPipe)(domain);
    }
    return domain != TARVO_DOMAIN_LOCAL && domain != current;
}
