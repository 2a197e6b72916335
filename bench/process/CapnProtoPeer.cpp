// Cap'n Proto's RPC over a Unix socket: the server's event loop on one thread, a connection with its own event loop for
// each calling thread.
#include <capnp/ez-rpc.h>
#include <unistd.h>

#include <thread>

#include "Contestant.h"
#include "echo.capnp.h"

namespace bench {

namespace {

std::string Address(const std::string &endpoint) { return "unix:/dev/shm/" + endpoint + ".sock"; }

class EchoImpl final : public Echo::Server {
protected:
    kj::Promise<void> call(CallContext context) override {
        const capnp::Data::Reader data = context.getParams().getData();
        uint64_t count = 0;
        const Answer answer = HandleMessage(reinterpret_cast<const char *>(data.begin()), data.size(), count);
        context.getResults().setData(kj::arrayPtr(reinterpret_cast<const kj::byte *>(answer.data), answer.size));
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

// A connection of the calling thread, which its event loop belongs to.
struct Connection {
    explicit Connection(const std::string &address) : client(address.c_str()), echo(client.getMain<Echo>()) {}
    capnp::EzRpcClient client;
    Echo::Client echo;
};

class CapnProtoClient : public Client {
public:
    explicit CapnProtoClient(const std::string &endpoint) : address(Address(endpoint)) {}

    bool Call(std::size_t, const char *data, std::size_t size, uint64_t &word) override {
        Connection &connection = Mine();
        auto request = connection.echo.callRequest();
        request.setData(kj::arrayPtr(reinterpret_cast<const kj::byte *>(data), size));
        const auto response = request.send().wait(connection.client.getWaitScope());
        const capnp::Data::Reader answer = response.getData();
        word = FirstWord(reinterpret_cast<const char *>(answer.begin()), answer.size());
        return true;
    }

    bool Send(const char *, std::size_t) override { return false; }

private:
    Connection &Mine() {
        thread_local std::unique_ptr<Connection> connection;
        thread_local const CapnProtoClient *owner = nullptr;
        if (owner != this) {
            connection.reset(); // a thread has one event loop
            connection = std::make_unique<Connection>(address);
            owner = this;
        }
        return *connection;
    }

    const std::string address;
};

} // namespace

Contestant CapnProtoContestant() {
    return {"capnproto",
            "two-party RPC over a Unix socket, a connection and event loop for each calling thread",
            [](const std::string &endpoint) -> std::unique_ptr<Server> {
                return std::make_unique<CapnProtoServer>(endpoint);
            },
            [](const std::string &endpoint, const std::string &, std::size_t) -> std::unique_ptr<Client> {
                return std::make_unique<CapnProtoClient>(endpoint);
            },
            true,
            false};
}

} // namespace bench
