// A clock that tests move: what clock_gettime, and with it std::chrono, tells the whole program.
#ifndef TARVO_SUPPORT_FAKECLOCK_H
#define TARVO_SUPPORT_FAKECLOCK_H

#include <chrono>

namespace tarvo_test {

// Moves CLOCK_MONOTONIC and CLOCK_REALTIME (and their coarse and raw kin) and ends the timed waits whose deadline the
// moved clock has passed: condition variables (std::condition_variable included), semaphores, timed mutexes.
// Make it before the waits begin that it is to end; one at a time. Descriptor time-outs (epoll_wait) and futures are
// not moved. A timed wait on a condition variable of a CLOCK_MONOTONIC attribute is taken for a wall-clock one.
class FakeClock {
public:
    using Duration = std::chrono::nanoseconds;
    enum class Mode {
        Running, // goes on at its usual pace between the moves
        Frozen,  // stands still between the moves
    };

    explicit FakeClock(Mode mode = Mode::Running);
    // Back to the real clocks; waits that are under way are woken to look at them.
    ~FakeClock();
    FakeClock(const FakeClock &) = delete;
    FakeClock &operator=(const FakeClock &) = delete;

    // Moves both clocks, also backwards. Returns when the threads whose condition wait thereby timed out have left it,
    // or after a second when they cannot get their mutex back (as when a hook moves the clock under it).
    void Advance(Duration by);
    void AdvanceMonotonic(Duration by);
    void AdvanceWall(Duration by);

    // Sets one clock, as the time since its epoch.
    void SetMonotonic(Duration now);
    void SetWall(Duration now);

    // From now on nanosleep, clock_nanosleep and usleep (std::this_thread::sleep_for included) move the clock by their
    // duration and return at once.
    void SleepsAdvanceTheClock(bool on = true);

    // How many threads are in a timed wait with at least `remaining` to go.
    unsigned Waiting(Duration remaining = Duration::zero()) const;
    // Blocks until at least `threads` are; false after 30 s.
    bool WaitUntilWaiting(unsigned threads, Duration remaining = Duration::zero()) const;
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_FAKECLOCK_H
