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
constexpr int CALL_TIMEOUT_MS = 60000; // a thousand clients may start at the same time

void OnRequest(int fd, TarvoRequest *request) {
    if (request == nullptr) {
        return;
    }
    const Answer answer = HandleMessage(request->data, request->size);
    if (answer.size == 0) {
        return;
    }
    TarvoResponse response{request->id, const_cast<char *>(answer.data), static_cast<uint32_t>(answer.size)};
    TarvoSendResponse(fd, &response);
}

TarvoPriority PriorityOf(const Place &place) { return place.urgent ? TARVO_PRIORITY_URGENT : TARVO_PRIORITY_NORMAL; }

class TarvoServer : public Server {
public:
    explicit TarvoServer(const Place &place) : name(place.endpoint) {
        TarvoServerAttr attr;
        attr.callback = OnRequest;
        attr.priority = PriorityOf(place);
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
    explicit TarvoClient(const Place &place) {
        TarvoAttr attr;
        attr.targetName = place.endpoint.c_str();
        attr.selfName = place.self.c_str();
        attr.priority = PriorityOf(place);
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
        if (TarvoTimedRPCSync(fd, &request, &response, CALL_TIMEOUT_MS) != 0) {
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

Contestant TheContestant() {
    return {"tarvo",
            "TarvoTimedRPCSync with a time-out, TarvoSendRequest; serial callbacks",
            BENCH_VERSION,
            LANES | ONE_WAY | CONNECTS | MANY_CLIENTS | MANY_PIPES | URGENT,
            "threads",
            false,
            [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<TarvoServer>(place); },
            [](const Place &place) -> std::unique_ptr<Client> { return std::make_unique<TarvoClient>(place); }};
}

} // namespace bench
