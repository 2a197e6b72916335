// nng over its ipc transport, asynchronously on both sides: a REP socket with a context for each request under way, a
// REQ socket with one for each caller; one-way messages from PUSH to PULL.
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <unistd.h>

#include <deque>
#include <stdexcept>

#include "AnswerQueue.h"
#include "Contestant.h"

namespace bench {

namespace {

constexpr int SERVER_CONTEXTS = 64;

std::string Address(const std::string &endpoint, const char *suffix) {
    return "ipc:///dev/shm/" + endpoint + suffix + ".sock";
}

void Require(int ret) {
    if (ret != 0) {
        throw std::runtime_error(nng_strerror(ret));
    }
}

// Answers one request after another: the received message is sent back. Runs on nng's threads.
class Echo {
public:
    explicit Echo(nng_socket socket) {
        Require(nng_ctx_open(&context, socket));
        Require(nng_aio_alloc(
            &operation, [](void *self) { static_cast<Echo *>(self)->Next(); }, this));
        nng_ctx_recv(context, operation);
    }

private:
    void Next() {
        if (nng_aio_result(operation) != 0) {
            return;
        }
        receiving = !receiving;
        if (receiving) {
            nng_ctx_recv(context, operation);
        } else {
            nng_aio_set_msg(operation, nng_aio_get_msg(operation));
            nng_ctx_send(context, operation);
        }
    }

    nng_ctx context{};
    nng_aio *operation = nullptr;
    bool receiving = true;
};

class NngServer : public Server {
public:
    explicit NngServer(const std::string &endpoint) {
        Require(nng_rep0_open(&rep));
        Require(nng_listen(rep, Address(endpoint, "").c_str(), nullptr, 0));
        Require(nng_pull0_open(&pull));
        Require(nng_listen(pull, Address(endpoint, "w").c_str(), nullptr, 0));
        for (int i = 0; i < SERVER_CONTEXTS; ++i) {
            echoes.emplace_back(rep);
        }
        Require(nng_aio_alloc(
            &pulled, [](void *self) { static_cast<NngServer *>(self)->Count(); }, this));
        nng_recv_aio(pull, pulled);
    }
    ~NngServer() override {
        _exit(0); // the threads still use the sockets
    }

private:
    void Count() {
        if (nng_aio_result(pulled) != 0) {
            return;
        }
        nng_msg *message = nng_aio_get_msg(pulled);
        HandleMessage(static_cast<const char *>(nng_msg_body(message)), nng_msg_len(message));
        nng_msg_free(message);
        nng_recv_aio(pull, pulled);
    }

    nng_socket rep{};
    nng_socket pull{};
    std::deque<Echo> echoes;
    nng_aio *pulled = nullptr;
};

// A context and the handle of its operations, one call at a time.
class Caller {
public:
    Caller(nng_socket socket, AnswerQueue &answers) : queue(answers) {
        Require(nng_ctx_open(&context, socket));
        Require(nng_aio_alloc(&operation, nullptr, nullptr));
        Require(nng_aio_alloc(
            &started, [](void *self) { static_cast<Caller *>(self)->Next(); }, this));
    }
    ~Caller() {
        nng_ctx_close(context);
        nng_aio_free(operation);
        nng_aio_free(started);
    }
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;

    bool Call(const char *data, std::size_t size, uint64_t &word) {
        return Prepare(operation, data, size) && Wait(nng_ctx_send) && Wait(nng_ctx_recv) &&
               TakeAnswer(operation, word);
    }

    bool Start(uint64_t number, const char *data, std::size_t size) {
        token = number;
        receiving = false;
        const bool prepared = Prepare(started, data, size);
        if (prepared) {
            nng_ctx_send(context, started);
        }
        return prepared;
    }

private:
    static bool Prepare(nng_aio *aio, const char *data, std::size_t size) {
        nng_msg *message = nullptr;
        if (nng_msg_alloc(&message, 0) != 0 || nng_msg_append(message, data, size) != 0) {
            return false;
        }
        nng_aio_set_msg(aio, message);
        return true;
    }

    static bool TakeAnswer(nng_aio *aio, uint64_t &word) {
        nng_msg *message = nng_aio_get_msg(aio);
        word = FirstWord(static_cast<const char *>(nng_msg_body(message)), nng_msg_len(message));
        nng_msg_free(message);
        return true;
    }

    bool Wait(void (*begin)(nng_ctx, nng_aio *)) {
        begin(context, operation);
        nng_aio_wait(operation);
        return nng_aio_result(operation) == 0;
    }

    // On nng's threads: the request is sent, or the answer is there.
    void Next() {
        if (nng_aio_result(started) != 0) {
            queue.Fail();
            return;
        }
        receiving = !receiving;
        if (receiving) {
            nng_ctx_recv(context, started);
            return;
        }
        uint64_t word = 0;
        TakeAnswer(started, word);
        queue.Put({token, word});
    }

    AnswerQueue &queue;
    nng_ctx context{};
    nng_aio *operation = nullptr;
    nng_aio *started = nullptr;
    uint64_t token = 0;
    bool receiving = false;
};

class NngClient : public Client {
public:
    explicit NngClient(const Place &place) : pushAddress(Address(place.endpoint, "w")) {
        Require(nng_req0_open(&req));
        Require(nng_dial(req, Address(place.endpoint, "").c_str(), nullptr, 0));
        for (std::size_t i = 0; i < place.lanes; ++i) {
            lanes.emplace_back(req, queue);
        }
    }
    ~NngClient() override {
        lanes.clear();
        nng_close(req);
    }

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override {
        return lanes[lane].Call(data, size, word);
    }

    bool Send(const char *data, std::size_t size) override {
        if (!pushAddress.empty() &&
            (nng_push0_open(&push) != 0 || nng_dial(push, pushAddress.c_str(), nullptr, 0) != 0)) {
            return false;
        }
        pushAddress.clear(); // connected
        return nng_send(push, const_cast<char *>(data), size, 0) == 0;
    }

    // A token is a small number that is used again once its call has been answered: it has a context of its own.
    bool Start(uint64_t token, const char *data, std::size_t size) override {
        while (token >= lanes.size()) {
            lanes.emplace_back(req, queue);
        }
        return lanes[token].Start(token, data, size);
    }
    bool Await(std::vector<Answered> &answers, int64_t until) override { return queue.Take(answers, until); }

private:
    nng_socket req{};
    nng_socket push{};
    std::string pushAddress;
    AnswerQueue queue;
    std::deque<Caller> lanes;
};

} // namespace

Contestant TheContestant() {
    return {"nng",
            "aio: REQ and REP over ipc, a context for each caller, 64 in the server; one-way PUSH to PULL",
            BENCH_VERSION,
            LANES | ONE_WAY | WINDOW | CONNECTS | MANY_CLIENTS,
            "threads",
            false,
            [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<NngServer>(place.endpoint); },
            [](const Place &place) -> std::unique_ptr<Client> { return std::make_unique<NngClient>(place); }};
}

} // namespace bench
