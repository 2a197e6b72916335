// Cap'n Proto's RPC over a Unix socket: the server's event loop on one thread, a connection for each calling thread, on
// that thread's event loop.
#include <capnp/ez-rpc.h>
#include <kj/async-io.h>
#include <kj/timer.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <thread>

#include "Contestant.h"
#include "Time.h"
#include "echo.capnp.h"

namespace bench {

namespace {

std::string Address(const std::string &endpoint) { return "unix:/dev/shm/" + endpoint + ".sock"; }

class EchoImpl final : public Echo::Server {
protected:
    kj::Promise<void> call(CallContext context) override {
        context.getResults().setData(context.getParams().getData());
        return kj::READY_NOW;
    }
    kj::Promise<void> push(PushContext context) override {
        const capnp::Data::Reader data = context.getParams().getData();
        HandleMessage(reinterpret_cast<const char *>(data.begin()), data.size());
        return kj::READY_NOW;
    }
};

class CapnProtoServer : public Server {
public:
    explicit CapnProtoServer(const std::string &endpoint) : path("/dev/shm/" + endpoint + ".sock") {
        std::thread([address = Address(endpoint)] {
            capnp::EzRpcServer server(kj::heap<EchoImpl>(), address.c_str());
            server.getPort().wait(server.getWaitScope());
            kj::NEVER_DONE.wait(server.getWaitScope());
        }).detach();
        while (access(path.c_str(), F_OK) != 0) {
            std::this_thread::yield();
        }
    }
    ~CapnProtoServer() override {
        unlink(path.c_str());
        _exit(0);
    }

private:
    const std::string path;
};

kj::ArrayPtr<const kj::byte> Bytes(const char *data, std::size_t size) {
    return kj::arrayPtr(reinterpret_cast<const kj::byte *>(data), size);
}

template <typename Response>
uint64_t WordOf(const Response &response) {
    const capnp::Data::Reader answer = response.getData();
    return FirstWord(reinterpret_cast<const char *>(answer.begin()), answer.size());
}

// A connection of the calling thread, whose event loop it shares with others of that thread.
struct Connection {
    explicit Connection(const std::string &address) : client(address.c_str()), echo(client.getMain<Echo>()) {}
    capnp::EzRpcClient client;
    Echo::Client echo;
};

// A client of the thread that makes it, and with several callers of theirs.
class CapnProtoClient : public Client {
public:
    explicit CapnProtoClient(const Place &place) : address(Address(place.endpoint)) {
        if (place.lanes == 1) {
            own = std::make_unique<Connection>(address);
        }
    }

    ~CapnProtoClient() noexcept override {}

    bool Call(std::size_t, const char *data, std::size_t size, uint64_t &word) override {
        Connection &connection = Mine();
        auto request = connection.echo.callRequest();
        request.setData(Bytes(data, size));
        word = WordOf(request.send().wait(connection.client.getWaitScope()));
        return true;
    }

    // The promise is kept when the stream has room, which is the flow control of this system.
    bool Send(const char *data, std::size_t size) override {
        auto request = own->echo.pushRequest();
        request.setData(Bytes(data, size));
        request.send().wait(own->client.getWaitScope());
        return true;
    }

    bool Start(uint64_t token, const char *data, std::size_t size) override {
        auto request = own->echo.callRequest();
        request.setData(Bytes(data, size));
        auto handled = request.send().then(
            [this, token](capnp::Response<Echo::CallResults> &&response) {
                answered.push_back({token, WordOf(response)});
                wake->fulfill();
            },
            [this](kj::Exception &&) {
                failed = true;
                wake->fulfill();
            });
        outstanding.emplace(token, handled.eagerlyEvaluate(nullptr));
        return true;
    }

    bool Await(std::vector<Answered> &answers, int64_t until) override {
        if (answered.empty() && !failed) {
            auto waiting = kj::newPromiseAndFulfiller<void>();
            wake = kj::mv(waiting.fulfiller);
            auto any = kj::mv(waiting.promise);
            if (until != NO_LIMIT) {
                kj::Timer &timer = own->client.getIoProvider().getTimer();
                any = any.exclusiveJoin(timer.afterDelay(std::max<int64_t>(0, until - Now()) * kj::NANOSECONDS));
            }
            any.wait(own->client.getWaitScope());
        }
        for (const Answered &answer : answered) {
            answers.push_back(answer);
            outstanding.erase(answer.token);
        }
        answered.clear();
        return !failed;
    }

private:
    Connection &Mine() {
        if (own) {
            return *own;
        }
        thread_local std::unique_ptr<Connection> connection;
        if (!connection) {
            connection = std::make_unique<Connection>(address);
        }
        return *connection;
    }

    const std::string address;
    std::unique_ptr<Connection> own;
    kj::Own<kj::PromiseFulfiller<void>> wake = kj::newPromiseAndFulfiller<void>().fulfiller;
    std::map<uint64_t, kj::Promise<void>> outstanding;
    std::vector<Answered> answered;
    bool failed = false;
};

} // namespace

Contestant TheContestant() {
    return {
        "capnproto",
        "two-party RPC over a Unix socket, an event loop for each calling thread; one-way calls of a stream",
        BENCH_VERSION,
        LANES | ONE_WAY | WINDOW | CONNECTS | MANY_CLIENTS,
        "threads",
        false,
        [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<CapnProtoServer>(place.endpoint); },
        [](const Place &place) -> std::unique_ptr<Client> { return std::make_unique<CapnProtoClient>(place); }};
}

} // namespace bench
