#include "support/FakeClock.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>

#include "support/Interpose.h"
#include "support/TimedWaits.h"

namespace tarvo_test {

namespace {

enum Axis { MONOTONIC, WALL, AXES };

constexpr int64_t ONE_SECOND = detail::NANOSECONDS_PER_SECOND;
constexpr int64_t FAR_AWAY = 100000000 * ONE_SECOND;
constexpr int64_t SLICE = 1000000;

std::atomic<bool> active{false};
std::atomic<bool> frozen{false};
std::atomic<bool> sleepsAdvance{false};
// Frozen: the time itself. Running: its distance from the real clock.
std::atomic<int64_t> value[AXES] = {};

struct Waiter {
    pthread_cond_t *cond; // null: wakes by itself
    clockid_t clock;
    int64_t deadline;
    bool expired = false;
};

struct WaitList {
    std::mutex mutex;
    std::condition_variable changed;
    std::list<Waiter> waiters;
};

// Never destroyed: library threads wait while statics die.
WaitList &Waits() {
    static auto *const list = new WaitList;
    return *list;
}

int AxisOf(clockid_t clock) {
    switch (clock) {
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_BOOTTIME:
        return MONOTONIC;
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
        return WALL;
    default:
        return AXES;
    }
}

// A wait that is on the list for as long as this lives, also when the thread is cancelled in it.
class Listed {
public:
    Listed(pthread_cond_t *cond, clockid_t clock, int64_t deadline) {
        std::lock_guard<std::mutex> lock(Waits().mutex);
        due = detail::MovedNow(clock) >= deadline;
        if (!due) {
            entry = Waits().waiters.insert(Waits().waiters.end(), Waiter{cond, clock, deadline});
            Waits().changed.notify_all();
        }
    }
    ~Listed() {
        if (!due) {
            std::lock_guard<std::mutex> lock(Waits().mutex);
            Waits().waiters.erase(entry);
            Waits().changed.notify_all();
        }
    }
    Listed(const Listed &) = delete;
    Listed &operator=(const Listed &) = delete;

    bool Due() const {
        std::lock_guard<std::mutex> lock(Waits().mutex);
        return due || entry->expired;
    }

private:
    std::list<Waiter>::iterator entry;
    bool due = false;
};

// Wakes the listed condition waits that `ends` picks until they have left the list. A waiter may be listed and not yet
// asleep, so that one broadcast could miss it; while it is listed its condition variable exists.
template <typename Ends>
void Wake(Ends ends) {
    const int64_t limit = detail::RealNow(CLOCK_MONOTONIC) + ONE_SECOND;
    for (bool any = true; any && detail::RealNow(CLOCK_MONOTONIC) < limit; sched_yield()) {
        std::lock_guard<std::mutex> lock(Waits().mutex);
        any = false;
        for (Waiter &waiter : Waits().waiters) {
            if (waiter.cond != nullptr && ends(waiter)) {
                any = true;
                pthread_cond_broadcast(waiter.cond);
            }
        }
    }
}

void WakeDue() {
    Wake([](Waiter &waiter) {
        waiter.expired = waiter.expired || detail::MovedNow(waiter.clock) >= waiter.deadline;
        return waiter.expired;
    });
}

// All waiters together try again about a thousand times a second.
int64_t SliceOfOne() {
    std::lock_guard<std::mutex> lock(Waits().mutex);
    return SLICE * std::max<int64_t>(1, static_cast<int64_t>(Waits().waiters.size()));
}

unsigned CountWaiting(int64_t remaining) {
    const auto &waiters = Waits().waiters;
    return static_cast<unsigned>(std::count_if(waiters.begin(), waiters.end(), [&](const Waiter &waiter) {
        return waiter.deadline - detail::MovedNow(waiter.clock) >= remaining;
    }));
}

int64_t RealOf(int axis) { return detail::RealNow(axis == MONOTONIC ? CLOCK_MONOTONIC : CLOCK_REALTIME); }

} // namespace

timespec detail::ToTimespec(int64_t nanoseconds) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(nanoseconds / ONE_SECOND);
    time.tv_nsec = static_cast<long>(nanoseconds % ONE_SECOND);
    if (time.tv_nsec < 0) { // before the epoch
        time.tv_nsec += ONE_SECOND;
        --time.tv_sec;
    }
    return time;
}

int64_t detail::RealNow(clockid_t clock) {
    timespec now{};
    TARVO_NEXT(clock_gettime)(clock, &now);
    return ToNanoseconds(now);
}

bool detail::ClockIsMoved(clockid_t clock) {
    return active.load(std::memory_order_acquire) && !RealTime::Wanted() && AxisOf(clock) != AXES;
}

int64_t detail::MovedNow(clockid_t clock) {
    const int64_t set = value[AxisOf(clock)].load();
    return frozen.load() ? set : RealNow(clock) + set;
}

bool detail::SleepThroughClock(int64_t nanoseconds) {
    if (!active.load() || !sleepsAdvance.load() || RealTime::Wanted()) {
        return false;
    }
    value[MONOTONIC] += nanoseconds;
    value[WALL] += nanoseconds;
    WakeDue();
    return true;
}

int detail::MovedCondWait(pthread_cond_t *cond, clockid_t clock, int64_t deadline,
                          const std::function<int(const timespec *)> &wait) {
    const Listed listed(cond, clock, deadline);
    if (listed.Due()) {
        // A deadline that has passed on the real clock too: gives the mutex away for a moment, as the real wait does.
        const timespec past{};
        return wait(&past);
    }
    const int64_t remaining = frozen.load() ? FAR_AWAY : deadline - MovedNow(clock);
    const timespec until = ToTimespec(RealNow(clock) + std::max<int64_t>(remaining, 0));
    const int result = wait(&until);
    if (listed.Due() || MovedNow(clock) >= deadline) {
        return ETIMEDOUT;
    }
    // The clock was moved back meanwhile: woken early, like any spurious wake-up.
    return result == ETIMEDOUT ? 0 : result;
}

void detail::MovedSlicedWait(clockid_t clock, int64_t deadline, const std::function<bool(const timespec *)> &wait) {
    const Listed listed(nullptr, clock, deadline);
    for (bool timedOut = true; timedOut;) {
        const bool last = MovedNow(clock) >= deadline;
        const timespec until = ToTimespec(last ? 0 : RealNow(clock) + SliceOfOne());
        timedOut = wait(&until) && !last;
    }
}

FakeClock::FakeClock(Mode mode) {
    sleepsAdvance = false;
    frozen = mode == Mode::Frozen;
    for (int axis = 0; axis < AXES; ++axis) {
        value[axis] = mode == Mode::Frozen ? RealOf(axis) : 0;
    }
    active.store(true, std::memory_order_release);
}

FakeClock::~FakeClock() {
    active = false;
    Wake([](const Waiter &) { return true; });
}

void FakeClock::Advance(Duration by) {
    value[MONOTONIC] += by.count();
    value[WALL] += by.count();
    WakeDue();
}

void FakeClock::AdvanceMonotonic(Duration by) {
    value[MONOTONIC] += by.count();
    WakeDue();
}

void FakeClock::AdvanceWall(Duration by) {
    value[WALL] += by.count();
    WakeDue();
}

void FakeClock::SetMonotonic(Duration now) {
    value[MONOTONIC] = frozen ? now.count() : now.count() - RealOf(MONOTONIC);
    WakeDue();
}

void FakeClock::SetWall(Duration now) {
    value[WALL] = frozen ? now.count() : now.count() - RealOf(WALL);
    WakeDue();
}

void FakeClock::SleepsAdvanceTheClock(bool on) { sleepsAdvance = on; }

unsigned FakeClock::Waiting(Duration remaining) const {
    std::lock_guard<std::mutex> lock(Waits().mutex);
    return CountWaiting(remaining.count());
}

bool FakeClock::WaitUntilWaiting(unsigned threads, Duration remaining) const {
    const RealTime real;
    std::unique_lock<std::mutex> lock(Waits().mutex);
    return Waits().changed.wait_for(lock, std::chrono::seconds(30),
                                    [&] { return CountWaiting(remaining.count()) >= threads; });
}

} // namespace tarvo_test
