#ifndef TARVO_TARVOCTL_LOOPPINGER_H
#define TARVO_TARVOCTL_LOOPPINGER_H

#include <deque>
#include <string>

#include "ping/Report.h"
#include "shared/Interrupt.h"
#include "tarvo_loop.hpp"

namespace tarvoctl {

// A ping with several calls outstanding, on the loop: each of them is followed by the next one after the interval. A
// server that goes away and comes back is called again, and the calls between are losses.
// Owns: the loop and its link. Threads: the one that has made it. Locks: none. Ends: any time; calls that are
// outstanding are then told of no more.
class LoopPinger {
public:
    LoopPinger(const PingOptions &pingOptions, const Interrupt &pingInterrupt);

    // The exit status.
    int Run();

private:
    using Clock = PingReport::Clock;

    // A call that has begun and was not sent yet: it waits for the link to open, or for room.
    struct Call {
        uint64_t sequence;
        Clock::time_point start;
    };
    enum class State { CLOSED, OPENING, OPEN };

    // 0, or the exit status after a line on standard error.
    int Connect();
    void Open();
    void OnOpened(std::error_code error);
    void OnClosed();

    void BeginDue();
    void SendWaiting();
    // False when there is no room.
    bool Send(const Call &call);
    void Ended(const Call &call, std::error_code error);
    void LoseWaiting(int error);
    void LoseOverdue();

    bool Over() const { return options.count > 0 && report.Calls() == options.count; }
    // Sleeps until there is something to do, and does what the loop has.
    void Await();
    Clock::time_point NextTime() const;

    const PingOptions &options;
    const Interrupt &interrupt;
    const std::string request;
    tarvo::Loop loop;
    tarvo::Link link;
    State state = State::CLOSED;
    int openError = 0;
    bool full = false;
    PingReport report;
    uint64_t begun = 0;
    std::deque<Clock::time_point> due; // when calls are to begin, in order
    std::deque<Call> waiting;          // in the order in which they have begun
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_LOOPPINGER_H
