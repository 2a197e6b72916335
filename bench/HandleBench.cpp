// What the C++ handles cost over the functions of tarvo.h: the same work written in both ways, one after the other.
// Compare the pairs with --benchmark_repetitions=9 --benchmark_enable_random_interleaving.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "AllocationCount.h"
#include "tarvo.hpp"

namespace {

using namespace std::chrono_literals;

constexpr std::size_t HEAD_SIZE = 32;

std::string NameOf(const char *role) { return "bench" + std::to_string(getpid()) + role; }

// Allocations of the whole process for one round, the library's included.
class Allocations {
public:
    explicit Allocations(benchmark::State &state) : state_(state), before_(AllocationCount()) {}
    ~Allocations() {
        state_.counters["allocs"] =
            benchmark::Counter(static_cast<double>(AllocationCount() - before_), benchmark::Counter::kAvgIterations);
    }
    Allocations(const Allocations &) = delete;
    Allocations &operator=(const Allocations &) = delete;

private:
    benchmark::State &state_;
    uint64_t before_;
};

// A pipe whose other end is the bare FIFO, so that a round holds one send and one read and no thread of anybody's.
class SilentPeer {
public:
    SilentPeer()
        : pipe_(tarvo::Pipe::Open(NameOf("b"), tarvo::Options().As(NameOf("a")).Mode(TARVO_MODE_SERVER))),
          fifo_(open(("/dev/shm/velm/tarvo/" + NameOf("a") + "__to__" + NameOf("b")).c_str(), O_RDONLY | O_NONBLOCK)) {}
    ~SilentPeer() { close(fifo_); }
    SilentPeer(const SilentPeer &) = delete;
    SilentPeer &operator=(const SilentPeer &) = delete;

    tarvo::PipeView Pipe() const { return pipe_; }
    // Takes one frame out of the FIFO.
    void Drain(std::size_t payload) {
        if (read(fifo_, frame_, HEAD_SIZE + payload) != static_cast<ssize_t>(HEAD_SIZE + payload)) {
            std::abort();
        }
    }

private:
    tarvo::Pipe pipe_;
    int fifo_;
    char frame_[HEAD_SIZE + tarvo::MAX_PAYLOAD];
};

void SendByFunction(benchmark::State &state) {
    SilentPeer peer;
    std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    const int fd = peer.Pipe().Handle();
    const Allocations allocations(state);
    for (auto _ : state) {
        TarvoRequest request{1, data.data(), static_cast<uint32_t>(data.size())};
        if (TarvoSendRequest(fd, &request) != 0) {
            std::abort();
        }
        peer.Drain(data.size());
    }
}

void SendByHandle(benchmark::State &state) {
    SilentPeer peer;
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    const tarvo::PipeView pipe = peer.Pipe();
    const Allocations allocations(state);
    for (auto _ : state) {
        pipe.Send(data, 1);
        peer.Drain(data.size());
    }
}

void EchoByFunction(int fd, TarvoRequest *request) {
    if (request != nullptr) {
        TarvoResponse response{request->id, request->data, request->size};
        TarvoSendResponse(fd, &response);
    }
}

TarvoAttr Attr(const std::string &self, const std::string &target, TarvoMode mode) {
    TarvoAttr attr;
    attr.selfName = self.c_str();
    attr.targetName = target.c_str();
    attr.mode = mode;
    attr.timeout = 10000;
    return attr;
}

void CallByFunction(benchmark::State &state) {
    const std::string nearName = NameOf("near");
    const std::string farName = NameOf("far");
    TarvoAttr attr = Attr(nearName, farName, TARVO_MODE_SERVER);
    attr.callback = EchoByFunction;
    const int near = TarvoOpen(&attr);
    attr = Attr(farName, nearName, TARVO_MODE_CLIENT);
    const int far = TarvoOpen(&attr);
    std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    {
        const Allocations allocations(state);
        for (auto _ : state) {
            TarvoRequest request{0, data.data(), static_cast<uint32_t>(data.size())};
            TarvoResponse response{};
            if (TarvoTimedRPCSync(far, &request, &response, 10000) != 0) {
                std::abort();
            }
            benchmark::DoNotOptimize(response.data);
            DestroyResponse(&response);
        }
    }
    TarvoClosePipe(far);
    TarvoClosePipe(near);
}

void CallByHandle(benchmark::State &state) {
    const tarvo::Pipe near = tarvo::Pipe::Open(
        NameOf("far"), tarvo::Options()
                           .As(NameOf("near"))
                           .Mode(TARVO_MODE_SERVER)
                           .Timeout(10s)
                           .OnRequest([](const tarvo::Request &request) { request.Reply(request.Bytes()); }));
    const tarvo::Pipe far = tarvo::Pipe::Open(NameOf("near"), tarvo::Options().As(NameOf("far")).Timeout(10s));
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    const Allocations allocations(state);
    for (auto _ : state) {
        const tarvo::Response response = far.Call(data, 10s);
        benchmark::DoNotOptimize(response.Bytes().data());
    }
}

BENCHMARK(SendByFunction)->Arg(8)->Arg(4000);
BENCHMARK(SendByHandle)->Arg(8)->Arg(4000);
BENCHMARK(CallByFunction)->Arg(8)->Arg(4000)->UseRealTime();
BENCHMARK(CallByHandle)->Arg(8)->Arg(4000)->UseRealTime();

} // namespace
