// gRPC over a Unix socket, or TCP, with its callback API: unary calls, and a client stream for one-way messages. One
// channel for all callers.
#include <grpcpp/grpcpp.h>
#include <unistd.h>

#include <stdexcept>

#include "AnswerQueue.h"
#include "Contestant.h"
#include "echo.grpc.pb.h"

namespace bench {

namespace {

// HOST:PORT is reached over TCP.
std::string Address(const std::string &endpoint) {
    return endpoint.find(':') == std::string::npos ? "unix:/dev/shm/" + endpoint + ".sock" : endpoint;
}

// Counts what comes over one stream. Owns: itself, until the stream is done.
class StreamCounter : public grpc::ServerReadReactor<Payload> {
public:
    StreamCounter() { StartRead(&payload); }
    void OnReadDone(bool ok) override {
        if (!ok) {
            Finish(grpc::Status::OK);
            return;
        }
        HandleMessage(payload.data().data(), payload.data().size());
        StartRead(&payload);
    }
    void OnDone() override { delete this; }

private:
    Payload payload;
};

class EchoService final : public Echo::CallbackService {
    grpc::ServerUnaryReactor *Call(grpc::CallbackServerContext *context, const Payload *request,
                                   Payload *reply) override {
        reply->set_data(request->data());
        grpc::ServerUnaryReactor *reactor = context->DefaultReactor();
        reactor->Finish(grpc::Status::OK);
        return reactor;
    }
    grpc::ServerReadReactor<Payload> *Stream(grpc::CallbackServerContext *, Nothing *) override {
        return new StreamCounter;
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
    ~GrpcServer() override { _exit(0); } // clients may still be there

private:
    EchoService service;
    std::unique_ptr<grpc::Server> server;
};

// The stream of one-way messages: one write at a time, as the interface wants it.
class OneWayStream : public grpc::ClientWriteReactor<Payload> {
public:
    explicit OneWayStream(Echo::Stub &stub) {
        stub.async()->Stream(&context, &nothing, this);
        AddHold(); // writes come from outside of its reactions
        StartCall();
    }

    bool Write(const char *data, std::size_t size) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return !writing; });
        if (failed) {
            return false;
        }
        writing = true;
        lock.unlock();
        payload.set_data(data, size);
        StartWrite(&payload);
        return true;
    }

    void OnWriteDone(bool ok) override {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            writing = false;
            failed = failed || !ok;
        }
        changed.notify_one();
    }

private:
    grpc::ClientContext context;
    Nothing nothing;
    Payload payload;
    std::mutex mutex;
    std::condition_variable changed;
    bool writing = false;
    bool failed = false;
};

// A started call with what belongs to it.
struct Started {
    uint64_t token;
    grpc::ClientContext context;
    Payload request;
    Payload reply;
};

class GrpcClient : public Client {
public:
    explicit GrpcClient(const Place &place) {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1); // a connection of its own
        arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
        stub = Echo::NewStub(
            grpc::CreateCustomChannel(Address(place.endpoint), grpc::InsecureChannelCredentials(), arguments));
    }

    // From a thread that waits, the blocking stub is the shorter way.
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

    bool Send(const char *data, std::size_t size) override {
        if (stream == nullptr) {
            stream = new OneWayStream(*stub); // until the end of the process, which ends the call
        }
        return stream->Write(data, size);
    }

    bool Start(uint64_t token, const char *data, std::size_t size) override {
        auto *started = new Started{token, {}, {}, {}};
        started->request.set_data(data, size);
        stub->async()->Call(
            &started->context, &started->request, &started->reply, [this, started](grpc::Status status) {
                const std::unique_ptr<Started> done(started);
                status.ok() ? queue.Put({done->token, FirstWord(done->reply.data().data(), done->reply.data().size())})
                            : queue.Fail();
            });
        return true;
    }
    bool Await(std::vector<Answered> &answers, int64_t until) override { return queue.Take(answers, until); }

private:
    AnswerQueue queue;
    std::unique_ptr<Echo::Stub> stub;
    OneWayStream *stream = nullptr;
};

} // namespace

Contestant TheContestant() {
    return {"grpc",
            "callback API over a Unix socket, one channel; one-way over a client stream",
            BENCH_VERSION,
            LANES | ONE_WAY | WINDOW | CONNECTS | MANY_CLIENTS,
            "threads",
            false,
            [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<GrpcServer>(place.endpoint); },
            [](const Place &place) -> std::unique_ptr<Client> { return std::make_unique<GrpcClient>(place); }};
}

} // namespace bench
