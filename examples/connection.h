// A client's pipe to a server that may go away and come back.
#ifndef TELEMETRY_CONNECTION_H
#define TELEMETRY_CONNECTION_H

#include <atomic>
#include <memory>
#include <string>

#include "tarvo.h"

// Opens the pipe, notices when the server is gone, and opens a new one. Used by one thread.
class Connection {
public:
    // `self` is the name under which the server knows this client; the library adds "_" and the process id.
    Connection(const char *server, const char *self, TarvoPriority priority);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // The handle for requests and calls. Opens the pipe when there is none and waits up to 30 s for the server. Below
    // zero: the negated errno of an open that will not succeed.
    int Handle();

    // To be told of the result of each call and send: some of them mean that the pipe is of no use any more.
    void Report(int result);

    // How often a pipe was opened: 1 without a restart of the server.
    int Opened() const { return opened_; }

private:
    int Open();
    int OpenOnce(TarvoAttr &attr);
    void Close();

    const std::string server_;
    const std::string self_;
    const TarvoPriority priority_;
    // The handle whose remote is gone. The callback writes it on a thread of the library, perhaps after this object has
    // ended, so it shares the ownership.
    const std::shared_ptr<std::atomic<int>> lost_;
    int fd_ = 0;
    int opened_ = 0;
};

#endif // TELEMETRY_CONNECTION_H
