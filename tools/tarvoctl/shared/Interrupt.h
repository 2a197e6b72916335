#ifndef TARVO_TARVOCTL_INTERRUPT_H
#define TARVO_TARVOCTL_INTERRUPT_H

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "base/UniqueFd.h"

namespace tarvoctl {

// Turns SIGINT, SIGTERM and SIGHUP into an ordinary event, so that every subcommand ends by the same path as it does
// otherwise and leaves no file.
// Owns: three descriptors and a thread that waits for the signals. Threads: any; make it before there are others, since
// they inherit the blocked signals. Locks: `mutex` guards the action and is held while it runs. Ends: with the run.
class Interrupt {
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt &) = delete;
    Interrupt &operator=(const Interrupt &) = delete;

    bool Requested() const { return requested; }
    // Readable from the request on.
    int Fd() const { return requestFd.Get(); }
    // Sleeps so long at most; true when there is or comes a request.
    bool WaitFor(std::chrono::microseconds duration) const;
    // Runs `action` on the request, on another thread; at once when it has come already. Replaces the one before, which
    // does not run any more when this returns.
    void OnRequest(std::function<void()> action);

private:
    void Watch();

    UniqueFd requestFd;
    UniqueFd signalFd;
    UniqueFd endFd;
    std::atomic<bool> requested{false};
    std::mutex mutex;
    std::function<void()> onRequest;
    std::thread watcher;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_INTERRUPT_H
