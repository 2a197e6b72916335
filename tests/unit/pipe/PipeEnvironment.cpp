#include "PipeEnvironment.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <numeric>

#include "api/EnvManager.h"
#include "fifo/velm_fifo.h"
#include "support/Interpose.h"
#include "support/TimedWaits.h"

namespace tarvo_test {

namespace {

constexpr std::chrono::seconds LONGER_THAN_ANY_TEST_SLEEPS(10000);
constexpr int NO_DOMAIN = -1;

std::atomic<int> domainOfProcess{NO_DOMAIN};
std::atomic<bool> noFifoDirectory{false};

// Never destroyed: the library may create files while statics end.
struct CreationRecord {
    std::mutex mutex;
    bool wanted = false;
    std::vector<FifoCreations::Creation> all;
};

CreationRecord &Creations() {
    static auto *const record = new CreationRecord;
    return *record;
}

} // namespace

FreshRestrainedLines::FreshRestrainedLines(FakeClock::Mode mode) : clock(mode) {
    static int previous = 0;
    clock.AdvanceWall(LONGER_THAN_ANY_TEST_SLEEPS * ++previous);
}

RecordedSleeps::RecordedSleeps()
    : FreshRestrainedLines(FakeClock::Mode::Frozen),
      sleepHook(
          Call::Sleep,
          [this](const CallInfo &info) { Record(detail::ToNanoseconds(*static_cast<const timespec *>(info.data))); }),
      waitHook(
          Call::CondTimedwait,
          [this](const CallInfo &info) {
              Record(detail::ToNanoseconds(*info.until) - detail::MovedNow(info.number));
              clock.AdvanceMonotonic(std::chrono::nanoseconds(sleeps.back() * 1000));
              return std::optional<Outcome>(Outcome{ETIMEDOUT, 0});
          },
          Where().Always()) {
    clock.SleepsAdvanceTheClock();
}

void RecordedSleeps::Record(int64_t nanoseconds) {
    const std::lock_guard<std::mutex> lock(mutex);
    sleeps.push_back(nanoseconds / 1000);
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

FifoCreations::FifoCreations() {
    const std::lock_guard<std::mutex> lock(Creations().mutex);
    Creations().wanted = true;
    Creations().all.clear();
}

FifoCreations::~FifoCreations() {
    const std::lock_guard<std::mutex> lock(Creations().mutex);
    Creations().wanted = false;
}

std::vector<FifoCreations::Creation> FifoCreations::All() const {
    const std::lock_guard<std::mutex> lock(Creations().mutex);
    return Creations().all;
}

NoFifoDirectory::NoFifoDirectory() { noFifoDirectory = true; }

NoFifoDirectory::~NoFifoDirectory() { noFifoDirectory = false; }

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
int CreateFifo(const std::string &name, uint32_t gid, int32_t targetPid, TarvoDomain domain,
               const std::string &targetCon) {
    static const auto next = reinterpret_cast<decltype(&CreateFifo)>(
        dlsym(RTLD_NEXT, "_Z10CreateFifoRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEji11TarvoDomainS6_"));
    {
        const std::lock_guard<std::mutex> lock(tarvo_test::Creations().mutex);
        if (tarvo_test::Creations().wanted) {
            tarvo_test::Creations().all.push_back({name, gid, targetPid, domain, targetCon});
        }
    }
    return next(name, gid, targetPid, domain, targetCon);
}

std::string EnvManager::FifoPrefix() {
    static const auto next =
        reinterpret_cast<std::string (*)()>(dlsym(RTLD_NEXT, "_ZN10EnvManager10FifoPrefixB5cxx11Ev"));
    return tarvo_test::noFifoDirectory ? std::string() : next();
}

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
