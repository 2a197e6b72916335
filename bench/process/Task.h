// What one client process does, and what it finds.
#ifndef TARVO_BENCH_PROCESS_TASK_H
#define TARVO_BENCH_PROCESS_TASK_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Contestant.h"

namespace bench {

struct Task {
    std::string kind = "call"; // "call", "window", "oneway", "connect", "opens" or "open"
    std::size_t size = 64;
    std::size_t warmUp = 500;
    std::size_t pipes = 1;   // open at the same time, the calls going over the last one
    std::size_t window = 1;  // calls outstanding, or one-way messages unhandled
    double rate = 0;         // calls a second, for "open"
    double fastest = 4e5;    // calls a second that nobody exceeds: samples for so many have their memory beforehand
    double seconds = 0;      // goes on for at least so long,
    std::size_t samples = 0; // and so often,
    double limit = 60;       // but no longer than this
    std::size_t count = 0;   // exactly so often, whatever the three say
    int realtime = 0;        // priority of the calling threads in SCHED_FIFO, 0: ordinary
};

// What a run of a task came to; times in ns.
struct Outcome {
    std::vector<int64_t> latencies; // "open": from when the call was due
    std::vector<int64_t> services;  // "open": from when it was made
    int64_t begin = 0;
    int64_t end = 0;
    int64_t ownTime = 0; // processor time of this process, and of the server's
    int64_t serverTime = 0;
    std::size_t operations = 0;
    std::size_t failures = 0; // "opens": connections that were refused, or whose first call failed
};

class Budget;

// A client process at work. Owns: its connections. Threads: one, which makes and joins others. Locks: none.
class Session {
public:
    Session(const Contestant &owner, const Place &where, const Task &work, std::vector<pid_t> serverProcesses);

    void Connect();
    void WarmUp();
    // `begin`: when, on the monotonic clock; at once when that is past. Throws std::runtime_error when a call fails.
    Outcome Run(int64_t begin);
    // The same, exactly so often.
    Outcome RunExactly(std::size_t count);

private:
    void Calls(Outcome &outcome);
    void CallFromLanes(Outcome &outcome);
    void CallFrom(std::size_t lane, Budget &budget, std::vector<int64_t> &latencies);
    void Window(Outcome &outcome);
    void OneWay(Outcome &outcome);
    void Connects(Outcome &outcome);
    void ConnectOnce(Outcome &outcome);
    void Open(Outcome &outcome);
    void OpenFromLanes(Outcome &outcome, std::size_t total);
    void OpenFromOneThread(Outcome &outcome, std::size_t total);
    void CallOnce(Client &client, std::size_t lane);
    void Begin(Outcome &outcome) const;
    void End(Outcome &outcome) const;

    const Contestant &contestant;
    const Place place;
    Task task;
    const std::vector<pid_t> servers;
    std::vector<char> payload;
    std::vector<std::unique_ptr<Client>> clients;
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_TASK_H
