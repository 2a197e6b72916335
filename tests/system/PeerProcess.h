#ifndef TARVO_SYSTEM_PEERPROCESS_H
#define TARVO_SYSTEM_PEERPROCESS_H

#include <sys/types.h>

#include <deque>
#include <functional>
#include <string>

namespace tarvo_test {

// A child process that uses the library as a user does and obeys one line of text at a time (peers/peer.cpp).
// Owns: the child and the two ends of its standard streams. Threads: one. Ends: has a child that still runs end in the
// orderly way, and fails the test when it does not.
class PeerProcess {
public:
    // `inChild` runs in the child between fork and exec, where the process has one thread: users, groups, environment.
    // It returns false to give up. `program` speaks the line protocol.
    explicit PeerProcess(const std::function<bool()> &inChild = nullptr, const char *program = SYSTEM_PEER_PROGRAM);
    ~PeerProcess();
    PeerProcess(const PeerProcess &) = delete;
    PeerProcess &operator=(const PeerProcess &) = delete;

    // Sends a command and returns its reply. All waits end after 30 s, and with the child, with an exception.
    std::string Ask(const std::string &command);
    // The two halves of Ask, for commands that block.
    void Tell(const std::string &command);
    std::string Reply();
    // The same where the reply is a number.
    int AskInt(const std::string &command);
    // The next event that begins with `event`, and the rest of its line. Events that come in between are kept.
    std::string Await(const std::string &event);
    // The next event, whatever it is, without its "! ".
    std::string NextEvent();
    // How many events that begin with `event` the child has printed up to its last reply and nobody has awaited.
    std::size_t Pending(const std::string &event) const;

    void Signal(int signo) const;
    // Stops the child and returns once the kernel says that it is stopped.
    void Freeze() const;
    void Thaw() const;
    // Waits for the end of the child and returns the status as waitpid gives it.
    int Wait();
    // Ends the child in the orderly way and returns its exit code, or 128 + signal.
    int Quit();
    void KillAndWait();

    pid_t Pid() const { return pid_; }

private:
    void AwaitLine(const std::string &start, std::string *rest);
    bool ReadMore(); // false at the end of the child's output
    bool TakeLine(const std::string &start, std::string *rest);

    pid_t pid_ = -1;
    int commands_ = -1;
    int answers_ = -1;
    std::string unread_;
    std::deque<std::string> lines_;
};

} // namespace tarvo_test

#endif // TARVO_SYSTEM_PEERPROCESS_H
