#ifndef TARVO_LOOP_TIMERS_H
#define TARVO_LOOP_TIMERS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/UniqueFd.h"

// Something that a loop wakes at a moment. Owns: nothing. Threads: that of the loop. Locks: none. Ends: disarmed.
class Timer {
public:
    Timer() = default;
    virtual ~Timer() = default;
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;

    // Its moment has come; it is not armed any more. Calls no callback of the user.
    virtual void OnTimer() = 0;

    bool Armed() const { return position != NOWHERE; }
    // Of an armed one.
    int64_t Deadline() const { return deadline; }

private:
    friend class Timers;
    static constexpr std::size_t NOWHERE = SIZE_MAX;

    int64_t deadline = 0; // monotonic microseconds
    std::size_t position = NOWHERE;
};

// All the timers of a loop on one timerfd, which is set only where an earlier deadline than the one that it stands at
// comes up: most timers never run out, and setting it costs a system call.
// Owns: the timerfd. Threads: one. Locks: none. Ends: any time; the timers are their owners'.
class Timers {
public:
    // 0 or a negated errno.
    int Init();
    int Fd() const { return fd.Get(); }

    // Arms `timer`, or moves it. False when there is no memory for it; it is then as it was.
    bool Arm(Timer &timer, int64_t deadlineUs);
    void Disarm(Timer &timer);

    // The descriptor has become readable: Settle() has to set it again.
    void Fired() { setTo = FIRED; }

    // After Fired(): wakes all whose moment has come. At other times there is nobody to wake, nor is the clock read.
    void Expire();

    // Wakes `timer` if its moment has come, and no other. When settled; Settle() has to set the descriptor again then.
    void Ring(Timer &timer);

    // Sets the timerfd where that is needed. After changes, before the thread sleeps.
    void Settle();

    bool Empty() const { return heap.empty(); }

private:
    static constexpr int64_t UNSET = INT64_MAX;
    static constexpr int64_t FIRED = INT64_MIN;

    struct Entry {
        int64_t deadline;
        Timer *timer;
    };

    void Place(std::size_t position, Entry entry);
    void Rise(std::size_t position, Entry entry);
    void Sink(std::size_t position, Entry entry);
    void Set(int64_t deadlineUs);

    UniqueFd fd;
    int64_t setTo = UNSET;
    std::vector<Entry> heap;
};

#endif // TARVO_LOOP_TIMERS_H
