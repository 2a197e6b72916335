// Child processes that run a piece of the test, step by step with it.
#ifndef TARVO_SUPPORT_PROCESS_H
#define TARVO_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarvo_test {

// One end of the two-way channel between a test and its child. The two ends take turns as the test says: each Signal or
// Send of the one is met by an Await or Receive of the other, in the same order. Waits end under the watchdog.
class Channel {
public:
    Channel(int readFd, int writeFd) : in(readFd), out(writeFd) {}
    ~Channel();
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    // Both are false when the other process is gone.
    bool Signal() { return Send(std::string()); }
    [[nodiscard]] bool Await() { return Receive().has_value(); }

    bool Send(const std::string &text);
    [[nodiscard]] std::optional<std::string> Receive();

private:
    int in;
    int out;
};

// A forked child that runs `body` and exits with its result, or with 99 when an assertion failed in it; `body` may also
// call exit itself to run the process's ending. Fork before the test has started threads. Killed at the latest by the
// destructor.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<int(Channel &)> &body);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    pid_t Pid() const { return pid; }
    Channel &ToChild() { return *channel; }
    bool Signal() { return channel->Signal(); }
    [[nodiscard]] bool Await() { return channel->Await(); }

    void Kill(int signal = SIGKILL);
    // The exit code, or 128 plus the signal that ended it.
    int Wait();
    // Whether it ends within that many milliseconds.
    bool EndsWithin(int milliseconds) const;
    // A descriptor that can be read once the child has ended. The child's.
    int EndDescriptor() const { return endFd; }

private:
    pid_t pid = -1;
    int endFd = -1;
    std::optional<int> result;
    std::unique_ptr<Channel> channel;
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_PROCESS_H
