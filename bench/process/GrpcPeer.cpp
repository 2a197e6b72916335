// gRPC over a Unix socket: its synchronous server and one channel that all callers share.
#include <grpcpp/grpcpp.h>
#include <unistd.h>

#include <stdexcept>

#include "Contestant.h"
#include "echo.grpc.pb.h"

namespace bench {

namespace {

std::string Address(const std::string &endpoint) { return "unix:/dev/shm/" + endpoint + ".sock"; }

class EchoService final : public Echo::Service {
    grpc::Status Call(grpc::ServerContext *, const Payload *request, Payload *reply) override {
        uint64_t count = 0;
        const Answer answer = HandleMessage(request->data().data(), request->data().size(), count);
        reply->set_data(answer.data, answer.size);
        return grpc::Status::OK;
    }
};

class GrpcServer : public Server {
public:
    explicit GrpcServer(const std::string &endpoint) {
        grpc::ServerBuilder builder;
        builder.AddListeningPort(Address(endpoint), grpc::InsecureServerCredentials());
        builder.RegisterService(&service);
        server = builder.BuildAndStart();
        if (!server) {
            throw std::runtime_error("BuildAndStart");
        }
    }
    ~GrpcServer() override { server->Shutdown(); }

private:
    EchoService service;
    std::unique_ptr<grpc::Server> server;
};

class GrpcClient : public Client {
public:
    explicit GrpcClient(const std::string &endpoint) {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1); // a connection of its own
        stub =
            Echo::NewStub(grpc::CreateCustomChannel(Address(endpoint), grpc::InsecureChannelCredentials(), arguments));
    }

    bool Call(std::size_t, const char *data, std::size_t size, uint64_t &word) override {
        grpc::ClientContext context;
        Payload request;
        Payload reply;
        request.set_data(data, size);
        if (!stub->Call(&context, request, &reply).ok()) {
            return false;
        }
        word = FirstWord(reply.data().data(), reply.data().size());
        return true;
    }

    bool Send(const char *, std::size_t) override { return false; }

private:
    std::unique_ptr<Echo::Stub> stub;
};

} // namespace

Contestant GrpcContestant() {
    return {
        "grpc",
        "synchronous server and stubs over a Unix socket, one channel",
        [](const std::string &endpoint) -> std::unique_ptr<Server> { return std::make_unique<GrpcServer>(endpoint); },
        [](const std::string &endpoint, const std::string &, std::size_t) -> std::unique_ptr<Client> {
            return std::make_unique<GrpcClient>(endpoint);
        },
        true,
        false};
}

} // namespace bench
