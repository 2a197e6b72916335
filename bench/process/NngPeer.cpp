// nng over its ipc transport: requests and replies on one socket, with a context for each caller and several in the
// server; one-way messages are requests that are not offered, so it takes no part in those.
#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "Contestant.h"

namespace bench {

namespace {

constexpr int SERVER_THREADS = 2;

std::string Address(const std::string &endpoint) { return "ipc:///dev/shm/" + endpoint + ".sock"; }

void Require(int ret) {
    if (ret != 0) {
        throw std::runtime_error(nng_strerror(ret));
    }
}

// A context and the handle of its operations, one at a time.
class Lane {
public:
    explicit Lane(nng_socket socket) {
        Require(nng_ctx_open(&context, socket));
        Require(nng_aio_alloc(&operation, nullptr, nullptr));
    }

    // Takes the message when it succeeds.
    bool Send(nng_msg *message) {
        nng_aio_set_msg(operation, message);
        nng_ctx_send(context, operation);
        nng_aio_wait(operation);
        return nng_aio_result(operation) == 0;
    }

    // Null when it failed.
    nng_msg *Receive() {
        nng_ctx_recv(context, operation);
        nng_aio_wait(operation);
        return nng_aio_result(operation) == 0 ? nng_aio_get_msg(operation) : nullptr;
    }

private:
    nng_ctx context{};
    nng_aio *operation = nullptr;
};

class NngServer : public Server {
public:
    explicit NngServer(const std::string &endpoint) {
        Require(nng_rep0_open(&socket));
        Require(nng_listen(socket, Address(endpoint).c_str(), nullptr, 0));
        for (int i = 0; i < SERVER_THREADS; ++i) {
            std::thread([this] { Loop(); }).detach();
        }
    }
    ~NngServer() override {
        _exit(0); // the threads still use the socket
    }

private:
    void Loop() {
        Lane lane(socket);
        // Echoed as they are; only calls are sent to this server.
        for (nng_msg *message = lane.Receive(); message != nullptr; message = lane.Receive()) {
            if (!lane.Send(message)) {
                nng_msg_free(message);
            }
        }
    }

    nng_socket socket{};
};

class NngClient : public Client {
public:
    NngClient(const std::string &endpoint, std::size_t count) {
        Require(nng_req0_open(&socket));
        Require(nng_dial(socket, Address(endpoint).c_str(), nullptr, 0));
        for (std::size_t i = 0; i < count; ++i) {
            lanes.emplace_back(socket);
        }
    }

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override {
        nng_msg *message = nullptr;
        if (nng_msg_alloc(&message, 0) != 0 || nng_msg_append(message, data, size) != 0 || !lanes[lane].Send(message)) {
            return false;
        }
        message = lanes[lane].Receive();
        if (message == nullptr) {
            return false;
        }
        word = FirstWord(static_cast<const char *>(nng_msg_body(message)), nng_msg_len(message));
        nng_msg_free(message);
        return true;
    }

    bool Send(const char *, std::size_t) override { return false; }

private:
    nng_socket socket{};
    std::vector<Lane> lanes;
};

} // namespace

Contestant NngContestant() {
    return {
        "nng",
        "req and rep over ipc, a context for each caller, two in the server",
        [](const std::string &endpoint) -> std::unique_ptr<Server> { return std::make_unique<NngServer>(endpoint); },
        [](const std::string &endpoint, const std::string &, std::size_t lanes) -> std::unique_ptr<Client> {
            return std::make_unique<NngClient>(endpoint, lanes);
        },
        true,
        false};
}

} // namespace bench
