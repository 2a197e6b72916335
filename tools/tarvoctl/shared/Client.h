#ifndef TARVO_TARVOCTL_CLIENT_H
#define TARVO_TARVOCTL_CLIENT_H

#include <atomic>
#include <chrono>
#include <string>

#include "base/UniqueFd.h"
#include "shared/Duration.h"
#include "shared/Interrupt.h"

namespace tarvoctl {

class CommandLine;

struct ClientOptions {
    std::string server;
    std::string self = "tarvoctl";
    std::string priority = "normal";
    Duration openTimeout{std::chrono::seconds(2)};
};

// Declares NAME, --as, --priority and --open-timeout.
void AddClientOptions(CommandLine &sub, ClientOptions &options);

// What a negative result of the library means here.
struct Failure {
    int exitStatus;
    std::string text;
};
Failure Explain(int result, const std::string &server);

// A connection to a server.
// Owns: the pipe, and the action of `interrupt` from Connect on. Threads: one, and Cancel from any. Locks: none. Ends:
// closes the pipe.
class Client {
public:
    Client(const ClientOptions &clientOptions, Interrupt &clientInterrupt)
        : options(clientOptions), interrupt(clientInterrupt) {}
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Opens the pipe. An interrupt ends the process meanwhile, since nothing else ends an open, and a client has no
    // files of its own; afterwards it cancels the client. 0, or the exit status after a line on standard error.
    int Connect();

    // These return 0 or a negated errno.
    int Open();
    // At most `timeoutMs`; negative waits for as long as the pipe is open.
    int Call(std::string &request, int timeoutMs, std::string &answer);
    int Send(std::string &request) const;

    // Keeps a descriptor of the write end, for the two waits below, beside the library's own, which goes with the
    // server.
    void KeepWriteEnd();
    // Waits until the server has read everything that was sent: a frame that is still unread when a pipe is closed is
    // lost. -ETIMEDOUT, or -EPIPE when the server is gone or an interrupt has come.
    int AwaitRead(std::chrono::microseconds limit) const;
    // Waits until the pipe may take another frame.
    void AwaitRoom(std::chrono::milliseconds limit) const;

    // Calls under way return -EPIPE, and so do all later ones.
    void Cancel();
    void Close();

private:
    // The library's descriptor of the write end; -1 when there is none any more.
    int WriteDescriptor() const;

    const ClientOptions options;
    Interrupt &interrupt;
    std::atomic<int> pipe{-1};
    UniqueFd writeEnd;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_CLIENT_H
