#include "connection.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "client_loop.h"

using Clock = std::chrono::steady_clock;

Connection::Connection(const char *server, const char *self, TarvoPriority priority)
    : server_(server), self_(self), priority_(priority), lost_(std::make_shared<std::atomic<int>>(0)) {}

Connection::~Connection() { Close(); }

int Connection::Handle() {
    if (fd_ > 0 && lost_->load() != fd_) {
        return fd_;
    }
    const auto start = Clock::now();
    if (fd_ > 0) {
        std::printf("%s: lost the server\n", self_.c_str());
        Close();
    }
    const int fd = Open();
    if (fd < 0) {
        std::fprintf(stderr, "%s: cannot reach %s: %s\n", self_.c_str(), server_.c_str(), std::strerror(-fd));
        return fd;
    }
    fd_ = fd;
    ++opened_;
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    std::printf("%s: connected%s to %s as pipe %d after %lld ms\n", self_.c_str(), opened_ > 1 ? " again" : "",
                server_.c_str(), fd_, static_cast<long long>(waited.count()));
    return fd_;
}

void Connection::Report(int result) {
    // -EPIPE: the server is gone. -ENOENT and -1: the library has closed the pipe already, or is closing it.
    if (result == -EPIPE || result == -ENOENT || result == -1) {
        lost_->store(fd_);
    }
}

int Connection::Open() {
    TarvoAttr attr;
    attr.targetName = server_.c_str();
    attr.selfName = self_.c_str();
    attr.mode = TARVO_MODE_CLIENT; // the server creates the FIFO files
    attr.priority = priority_;
    attr.timeout = 500;
    // This client receives no requests, only the news that the server is gone. An open that failed stays with the
    // library, callback included, and is completed by the next attempt; hence the handle and not just a flag.
    attr.callback = [lost = lost_](int fd, TarvoRequest *request) {
        if (request == nullptr) {
            lost->store(fd);
        }
    };
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    int result = OpenOnce(attr);
    // -ENXIO: no such server runs (yet). Others come from a server that goes away or comes up at this very moment. Only
    // wrong attributes stay wrong.
    while (result < 0 && result != -EINVAL && Clock::now() < deadline && !EndRequested()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        result = OpenOnce(attr);
    }
    return result;
}

int Connection::OpenOnce(TarvoAttr &attr) {
    const int fd = TarvoCreateClient(&attr);
    if (fd < 0) {
        return fd;
    }
    // A server that is just being killed may still take an announcement, and even a request. Only an answer proves that
    // somebody is there; from then on its end is sure to be noticed, too.
    const Answer answer = Ask(fd, "hello", 500);
    if (answer.result != 0) {
        TarvoClosePipe(fd);
        return answer.result;
    }
    return fd;
}

void Connection::Close() {
    // The library closes a pipe whose remote is gone by itself, but only once the callback has returned. Closing it
    // here as well does no harm and makes sure that the next open does not find it half closed.
    if (fd_ > 0) {
        TarvoClosePipe(fd_);
        fd_ = 0;
    }
}
