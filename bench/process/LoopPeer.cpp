// The library's loop: one thread in the server and one in each client.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Contestant.h"
#include "tarvo_loop.h"

namespace bench {

namespace {

constexpr int32_t OPEN_TIMEOUT_MS = 10000;
constexpr int CALL_TIMEOUT_MS = 10000;
constexpr int64_t NS_PER_MS = 1000000;
constexpr int CALLBACKS = 1000; // of one dispatch

void Check(int result, const char *what) {
    if (result != 0) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(result));
    }
}

// The one of this process, which ends with it.
TarvoLoop *TheLoop() {
    static TarvoLoop *const loop = [] {
        TarvoLoop *created = nullptr;
        Check(TarvoLoopCreate(&created), "TarvoLoopCreate");
        return created;
    }();
    return loop;
}

// Answers that did not fit into the FIFO of a client with many calls outstanding, in their order. Owns: their bytes.
// Threads: the loop's. Locks: none. Ends: with its link.
class Waiting {
public:
    void Add(uint32_t request, const Answer &answer) {
        answers.push_back({request, std::string(answer.data, answer.size)});
    }
    bool Empty() const { return answers.empty(); }
    void Send(TarvoLink *link) {
        while (!answers.empty()) {
            const auto &[request, bytes] = answers.front();
            if (TarvoLinkReply(link, request, {bytes.data(), static_cast<uint32_t>(bytes.size())}) == -EAGAIN) {
                return;
            }
            answers.pop_front();
        }
    }

private:
    std::deque<std::pair<uint32_t, std::string>> answers;
};

void OnClient(void *, TarvoService *, TarvoLink *link, const char *) { TarvoLinkSetContext(link, new Waiting); }
void OnClosed(void *context, TarvoLink *) { delete static_cast<Waiting *>(context); }
void OnWritable(void *context, TarvoLink *link) { static_cast<Waiting *>(context)->Send(link); }

void OnRequest(void *context, TarvoLink *link, uint32_t request, TarvoBytes payload) {
    Waiting &waiting = *static_cast<Waiting *>(context);
    const Answer answer = HandleMessage(payload.data, payload.size);
    if (answer.size == 0) {
        return;
    }
    const TarvoBytes bytes{answer.data, static_cast<uint32_t>(answer.size)};
    if (!waiting.Empty() || TarvoLinkReply(link, request, bytes) == -EAGAIN) {
        waiting.Add(request, answer);
    }
}

class LoopServer : public Server {
public:
    explicit LoopServer(const std::string &endpoint) {
        TarvoLinkCallbacks callbacks = {};
        callbacks.size = sizeof(callbacks);
        callbacks.request = OnRequest;
        callbacks.closed = OnClosed;
        callbacks.writable = OnWritable;
        TarvoServiceOptions options = {};
        options.size = sizeof(options);
        options.name = endpoint.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.client = OnClient;
        options.callbacks = &callbacks;
        Check(TarvoServiceOpen(TheLoop(), &options, &service), "TarvoServiceOpen");
    }
    ~LoopServer() override { TarvoServiceClose(service); }

    void Run(int stop) override {
        std::thread watch([stop, loop = TheLoop()] {
            AwaitReadable(stop);
            TarvoLoopStop(loop);
        });
        TarvoLoopRun(TheLoop(), -1);
        watch.join();
    }

private:
    TarvoService *service = nullptr;
};

class LoopClient : public Client {
public:
    explicit LoopClient(const Place &place) {
        TarvoLinkCallbacks callbacks = {};
        callbacks.size = sizeof(callbacks);
        callbacks.opened = [](void *context, TarvoLink *, int result) {
            static_cast<LoopClient *>(context)->opened = result;
            TarvoLoopStop(TheLoop());
        };
        TarvoLinkOptions options = {};
        options.size = sizeof(options);
        options.target = place.endpoint.c_str();
        options.self = place.self.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.timeoutMs = OPEN_TIMEOUT_MS;
        options.context = this;
        options.callbacks = &callbacks;
        Check(TarvoLinkOpen(TheLoop(), &options, &link), "TarvoLinkOpen");
        while (opened > 0) {
            TarvoLoopRun(TheLoop(), -1);
        }
        if (opened != 0) {
            TarvoLinkClose(link);
            Check(opened, "opened");
        }
    }
    ~LoopClient() override { TarvoLinkClose(link); }

    bool Call(std::size_t, const char *data, std::size_t size, uint64_t &word) override {
        char answer[MAX_PAYLOAD];
        uint32_t room = sizeof(answer);
        const TarvoBytes payload{data, static_cast<uint32_t>(size)};
        if (TarvoLinkCallSync(link, payload, CALL_TIMEOUT_MS, answer, &room) != 0) {
            return false;
        }
        word = FirstWord(answer, room);
        return true;
    }

    // What is sent between two waits goes out together, as in the rounds of a loop.
    bool Send(const char *data, std::size_t size) override {
        Hold();
        int result = 0;
        while ((result = TarvoLinkSend(link, {data, static_cast<uint32_t>(size)})) == -EAGAIN) {
            DispatchOnce(-1);
        }
        return result == 0;
    }

    bool Flush() override {
        held = false;
        int result = 0;
        while ((result = TarvoLinkFlush(link)) == -EAGAIN) {
            DispatchOnce(-1);
        }
        return result == 0;
    }

    // What is started between two waits goes out together.
    bool Start(uint64_t token, const char *data, std::size_t size) override {
        Hold();
        while (calls.size() <= token) {
            calls.push_back(std::make_unique<Begun>(Begun{this, calls.size()}));
        }
        int64_t call = 0;
        while ((call = Begin(token, data, size)) == -EAGAIN && into != nullptr) {
            DispatchOnce(-1);
        }
        return call > 0;
    }

    bool Await(std::vector<Answered> &answers, int64_t until) override {
        into = &answers;
        if (held) {
            held = false;
            TarvoLinkFlush(link);
        }
        // As under a foreign loop: everything that has come is taken at once.
        while (!answered && !failed) {
            const int64_t left = until == NO_LIMIT ? -1 : std::max<int64_t>((until - Now()) / NS_PER_MS, 0);
            if (!DispatchOnce(static_cast<int>(left))) {
                break;
            }
        }
        answered = false;
        return !failed;
    }

private:
    struct Begun {
        LoopClient *client;
        uint64_t token;
    };

    void Hold() {
        if (!held) {
            held = true;
            TarvoLinkHold(link);
        }
    }

    int64_t Begin(uint64_t token, const char *data, std::size_t size) {
        return TarvoLinkCall(link, {data, static_cast<uint32_t>(size)}, CALL_TIMEOUT_MS, Done, calls[token].get());
    }

    // Sleeps for so many ms at most, until there is something to do. False: there is not.
    static bool DispatchOnce(int limitMs) {
        pollfd loop{TarvoLoopFd(TheLoop()), POLLIN, 0};
        return poll(&loop, 1, limitMs) > 0 && TarvoLoopDispatch(TheLoop(), CALLBACKS) >= 0;
    }

    static int64_t Now() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
    }

    static void Done(void *context, int result, TarvoBytes answer) {
        const Begun &call = *static_cast<Begun *>(context);
        LoopClient &client = *call.client;
        client.failed = client.failed || result != 0;
        if (result == 0) {
            client.into->push_back({call.token, FirstWord(answer.data, answer.size)});
            client.answered = true;
        }
    }

    TarvoLink *link = nullptr;
    int opened = 1;
    bool held = false;
    bool failed = false;
    bool answered = false; // since the last Await
    std::vector<Answered> *into = nullptr;
    std::vector<std::unique_ptr<Begun>> calls; // by token
};

} // namespace

Contestant TheContestant() {
    return {"tarvo-loop",
            "the library's loop: one thread a side",
            BENCH_VERSION,
            ONE_WAY | WINDOW | CONNECTS | MANY_CLIENTS | MANY_PIPES,
            "loop",
            false,
            [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<LoopServer>(place.endpoint); },
            [](const Place &place) -> std::unique_ptr<Client> { return std::make_unique<LoopClient>(place); }};
}

} // namespace bench
