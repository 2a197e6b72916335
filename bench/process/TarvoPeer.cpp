// The library under measurement, through its public header.
#include <sched.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Contestant.h"
#include "tarvo.h"

namespace bench {

namespace {

constexpr int CONNECT_TIMEOUT_MS = 10000;

void OnRequest(int fd, TarvoRequest *request) {
    if (request == nullptr) {
        return;
    }
    uint64_t count = 0;
    const Answer answer = HandleMessage(request->data, request->size, count);
    if (answer.size == 0) {
        return;
    }
    TarvoResponse response{request->id, const_cast<char *>(answer.data), static_cast<uint32_t>(answer.size)};
    TarvoSendResponse(fd, &response);
}

class TarvoServer : public Server {
public:
    explicit TarvoServer(const std::string &endpoint) : name(endpoint) {
        TarvoServerAttr attr;
        attr.callback = OnRequest;
        attr.selfName = name.c_str();
        const int ret = TarvoCreateServer(&attr);
        if (ret != 0) {
            throw std::runtime_error(std::string("TarvoCreateServer: ") + std::strerror(-ret));
        }
    }
    ~TarvoServer() override { TarvoCfgFinishServer(); }

private:
    const std::string name;
};

class TarvoClient : public Client {
public:
    TarvoClient(const std::string &endpoint, const std::string &self) {
        TarvoAttr attr;
        attr.targetName = endpoint.c_str();
        attr.selfName = self.c_str();
        attr.timeout = CONNECT_TIMEOUT_MS;
        fd = TarvoCreateClient(&attr);
        if (fd < 0) {
            throw std::runtime_error(std::string("TarvoCreateClient: ") + std::strerror(-fd));
        }
    }
    ~TarvoClient() override { TarvoClosePipe(fd); }

    bool Call(std::size_t, const char *data, std::size_t size, uint64_t &word) override {
        TarvoRequest request{0, const_cast<char *>(data), static_cast<uint32_t>(size)};
        TarvoResponse response{};
        if (TarvoTimedRPCSync(fd, &request, &response, CONNECT_TIMEOUT_MS) != 0) {
            return false;
        }
        word = FirstWord(response.data, response.size);
        DestroyResponse(&response);
        return true;
    }

    bool Send(const char *data, std::size_t size) override {
        TarvoRequest request{0, const_cast<char *>(data), static_cast<uint32_t>(size)};
        int ret = TarvoSendRequest(fd, &request);
        while (ret == -EAGAIN) {
            sched_yield();
            ret = TarvoSendRequest(fd, &request);
        }
        return ret == 0;
    }

private:
    int fd = -1;
};

} // namespace

Contestant TarvoContestant() {
    return {
        "tarvo",
        "TarvoTimedRPCSync with a time-out, TarvoSendRequest; serial callbacks",
        [](const std::string &endpoint) -> std::unique_ptr<Server> { return std::make_unique<TarvoServer>(endpoint); },
        [](const std::string &endpoint, const std::string &self, std::size_t) -> std::unique_ptr<Client> {
            return std::make_unique<TarvoClient>(endpoint, self);
        },
        true,
        true};
}

} // namespace bench
