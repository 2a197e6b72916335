#ifndef TARVO_TARVOCTL_COMMANDRUN_H
#define TARVO_TARVOCTL_COMMANDRUN_H

#include <chrono>
#include <optional>
#include <string>

#include "shared/Subprocess.h"

namespace tarvoctl {

// Which request a command answers.
struct CommandTask {
    std::string command;
    std::string server;
    std::string client;
    std::string request;
    std::chrono::microseconds limit{0};
};

// A run of a shell command that answers a request, for a caller that polls.
// Owns: the process. Threads: one. Locks: none. Ends: kills the process if it still runs.
class CommandRun {
public:
    using Clock = std::chrono::steady_clock;

    // Starts it. Throws std::system_error.
    explicit CommandRun(const CommandTask &task);

    // To be watched for reading; may be another one after each step.
    int Fd() const { return exited.Get() >= 0 ? exited.Get() : child.Output(); }
    // When it is given up.
    Clock::time_point End() const { return end; }
    // To be called when the descriptor is readable, and at the end of its time. True when it is over.
    bool Advance(bool readable);
    // Ends it before its time.
    void GiveUp() { state = State::GIVEN_UP; }
    // Once it is over: what it printed, or nothing after a line on standard error.
    std::optional<std::string> Answer();

private:
    enum class State { PRINTS, EXITS, OVER, GIVEN_UP };

    void Read();
    void AwaitExit();

    const std::string client;
    const Clock::time_point end;
    Subprocess child;
    State state = State::PRINTS;
    std::string text;
    UniqueFd exited;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_COMMANDRUN_H
