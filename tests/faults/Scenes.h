// The building blocks of the scenes.
#ifndef TARVO_FAULTS_SCENES_H
#define TARVO_FAULTS_SCENES_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <string>

#include "faults/FaultCase.h"
#include "support/Names.h"
#include "support/Pipes.h"
#include "support/RawPeer.h"

namespace tarvo_test {

// What makes a scene of the kind.
template <typename Made, typename... Arguments>
std::function<std::unique_ptr<Scene>()> Making(Arguments... arguments) {
    return [=] { return std::make_unique<Made>(arguments...); };
}

// Passes the first request on.
class Inbox {
public:
    Callback Receiver() {
        return [this](int, TarvoRequest *request) {
            if (request != nullptr && !taken.exchange(true)) {
                first.set_value(std::string(request->data, request->size));
            }
        };
    }
    std::string First() { return first.get_future().get(); }

private:
    std::atomic<bool> taken{false};
    std::promise<std::string> first;
};

inline int SendText(int fd, std::string text) {
    TarvoRequest request{7, text.data(), static_cast<uint32_t>(text.size())};
    return TarvoSendRequest(fd, &request);
}

inline int AnswerText(int fd, std::string text) {
    TarvoResponse response{7, text.data(), static_cast<uint32_t>(text.size())};
    return TarvoSendResponse(fd, &response);
}

// A FIFO that stands where a server's would, read by nobody but this object.
class RawServer {
public:
    explicit RawServer(const std::string &name) : file(FifoDirectory() + name) {
        EXPECT_EQ(mkfifo(file.c_str(), 0660), 0);
        fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    ~RawServer() {
        ::close(fd);
        ::unlink(file.c_str());
    }
    RawServer(const RawServer &) = delete;
    RawServer &operator=(const RawServer &) = delete;

private:
    const std::string file;
    int fd = -1;
};

} // namespace tarvo_test

#endif // TARVO_FAULTS_SCENES_H
