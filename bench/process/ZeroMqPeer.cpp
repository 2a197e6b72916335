// ZeroMQ over its ipc transport: a ROUTER in the server that sends the received message back, a DEALER for each caller,
// since its sockets belong to one thread; one-way messages from PUSH to PULL.
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <deque>
#include <stdexcept>
#include <thread>

#include "Contestant.h"
#include "Time.h"

namespace bench {

namespace {

constexpr int64_t MILLISECOND = SECOND / 1000;

std::string Address(const std::string &endpoint, const char *suffix) {
    return "ipc:///dev/shm/" + endpoint + suffix + ".sock";
}

void Require(bool succeeded) {
    if (!succeeded) {
        throw std::runtime_error(zmq_strerror(zmq_errno()));
    }
}

void *Context() {
    static void *const context = zmq_ctx_new();
    return context;
}

class ZeroMqServer : public Server {
public:
    explicit ZeroMqServer(const std::string &endpoint)
        : router(zmq_socket(Context(), ZMQ_ROUTER)), pull(zmq_socket(Context(), ZMQ_PULL)) {
        Require(zmq_bind(router, Address(endpoint, "").c_str()) == 0);
        Require(zmq_bind(pull, Address(endpoint, "w").c_str()) == 0);
        std::thread([this] { Echo(); }).detach();
        std::thread([this] { Count(); }).detach();
    }
    ~ZeroMqServer() override {
        _exit(0); // the threads still use the sockets
    }

private:
    void Echo() {
        zmq_msg_t identity;
        zmq_msg_t message;
        zmq_msg_init(&identity);
        zmq_msg_init(&message);
        while (zmq_msg_recv(&identity, router, 0) >= 0 && zmq_msg_recv(&message, router, 0) >= 0) {
            zmq_msg_send(&identity, router, ZMQ_SNDMORE);
            zmq_msg_send(&message, router, 0);
        }
    }

    void Count() {
        zmq_msg_t message;
        zmq_msg_init(&message);
        while (zmq_msg_recv(&message, pull, 0) >= 0) {
            HandleMessage(static_cast<const char *>(zmq_msg_data(&message)), zmq_msg_size(&message));
        }
    }

    void *const router;
    void *const pull;
};

class ZeroMqClient : public Client {
public:
    explicit ZeroMqClient(const Place &place) : push(zmq_socket(Context(), ZMQ_PUSH)) {
        for (std::size_t i = 0; i < place.lanes; ++i) {
            sockets.push_back(zmq_socket(Context(), ZMQ_DEALER));
            Require(zmq_connect(sockets.back(), Address(place.endpoint, "").c_str()) == 0);
        }
        pushAddress = Address(place.endpoint, "w");
    }
    ~ZeroMqClient() override {
        for (void *socket : sockets) {
            zmq_close(socket);
        }
        zmq_close(push);
    }

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override {
        char buffer[MAX_PAYLOAD];
        if (zmq_send(sockets[lane], data, size, 0) < 0) {
            return false;
        }
        const int received = zmq_recv(sockets[lane], buffer, sizeof(buffer), 0);
        word = FirstWord(buffer, static_cast<std::size_t>(std::max(received, 0)));
        return received > 0;
    }

    bool Send(const char *data, std::size_t size) override {
        if (!pushAddress.empty() && zmq_connect(push, pushAddress.c_str()) != 0) {
            return false;
        }
        pushAddress.clear(); // connected
        return zmq_send(push, data, size, 0) >= 0;
    }

    // The number of the call travels in a frame of its own, which the server sends back like the rest.
    bool Start(uint64_t token, const char *data, std::size_t size) override {
        return zmq_send(sockets[0], data, size, 0) >= 0 && (started.push_back(token), true);
    }

    bool Await(std::vector<Answered> &answers, int64_t until) override {
        zmq_pollitem_t item{sockets[0], 0, ZMQ_POLLIN, 0};
        const int64_t left = until == NO_LIMIT ? -1 : std::max<int64_t>(0, (until - Now()) / MILLISECOND);
        if (zmq_poll(&item, 1, left) < 0) {
            return false;
        }
        char buffer[MAX_PAYLOAD];
        int size = 0;
        while (item.revents != 0 && (size = zmq_recv(sockets[0], buffer, sizeof(buffer), ZMQ_DONTWAIT)) > 0) {
            answers.push_back({started.front(), FirstWord(buffer, static_cast<std::size_t>(size))});
            started.pop_front();
        }
        return true;
    }

private:
    std::vector<void *> sockets;
    void *const push;
    std::string pushAddress;
    std::deque<uint64_t> started; // answers come in the order of their calls
};

} // namespace

Contestant TheContestant() {
    return {
        "zeromq",
        "DEALER to ROUTER over ipc, a socket for each caller, the server on one thread; one-way PUSH to PULL",
        BENCH_VERSION,
        LANES | ONE_WAY | WINDOW | CONNECTS | MANY_CLIENTS,
        "threads",
        false,
        [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<ZeroMqServer>(place.endpoint); },
        [](const Place &place) -> std::unique_ptr<Client> { return std::make_unique<ZeroMqClient>(place); }};
}

} // namespace bench
