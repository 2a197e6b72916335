// ZeroMQ over its ipc transport: a ROUTER in the server, a DEALER for each caller, since its sockets belong to one
// thread.
#include <unistd.h>
#include <zmq.h>

#include <stdexcept>
#include <thread>

#include "Contestant.h"

namespace bench {

namespace {

std::string Address(const std::string &endpoint) { return "ipc:///dev/shm/" + endpoint + ".sock"; }

void *Context() {
    static void *const context = zmq_ctx_new();
    return context;
}

class ZeroMqServer : public Server {
public:
    explicit ZeroMqServer(const std::string &endpoint) : socket(zmq_socket(Context(), ZMQ_ROUTER)) {
        if (zmq_bind(socket, Address(endpoint).c_str()) != 0) {
            throw std::runtime_error(zmq_strerror(zmq_errno()));
        }
        std::thread([this] { Loop(); }).detach();
    }
    ~ZeroMqServer() override {
        _exit(0); // the thread still uses the socket
    }

private:
    void Loop() {
        char identity[256];
        char buffer[MAX_PAYLOAD];
        for (;;) {
            const int identitySize = zmq_recv(socket, identity, sizeof(identity), 0);
            const int size = zmq_recv(socket, buffer, sizeof(buffer), 0);
            uint64_t count = 0;
            const Answer answer = HandleMessage(buffer, size > 0 ? static_cast<std::size_t>(size) : 0, count);
            if (answer.size > 0 && identitySize > 0) {
                zmq_send(socket, identity, static_cast<std::size_t>(identitySize), ZMQ_SNDMORE);
                zmq_send(socket, answer.data, answer.size, 0);
            }
        }
    }

    void *const socket;
};

class ZeroMqClient : public Client {
public:
    ZeroMqClient(const std::string &endpoint, std::size_t lanes) {
        for (std::size_t i = 0; i < lanes; ++i) {
            sockets.push_back(zmq_socket(Context(), ZMQ_DEALER));
            if (zmq_connect(sockets.back(), Address(endpoint).c_str()) != 0) {
                throw std::runtime_error(zmq_strerror(zmq_errno()));
            }
        }
    }

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override {
        char buffer[MAX_PAYLOAD];
        if (zmq_send(sockets[lane], data, size, 0) < 0) {
            return false;
        }
        const int received = zmq_recv(sockets[lane], buffer, sizeof(buffer), 0);
        if (received <= 0) {
            return false;
        }
        word = FirstWord(buffer, static_cast<std::size_t>(received));
        return true;
    }

    bool Send(const char *data, std::size_t size) override { return zmq_send(sockets[0], data, size, 0) >= 0; }

private:
    std::vector<void *> sockets;
};

} // namespace

Contestant ZeroMqContestant() {
    return {
        "zeromq",
        "DEALER to ROUTER over ipc, a socket for each caller, the server on one thread",
        [](const std::string &endpoint) -> std::unique_ptr<Server> { return std::make_unique<ZeroMqServer>(endpoint); },
        [](const std::string &endpoint, const std::string &, std::size_t lanes) -> std::unique_ptr<Client> {
            return std::make_unique<ZeroMqClient>(endpoint, lanes);
        },
        true,
        true};
}

} // namespace bench
