// What a send does before the kernel gets the frame: the library's own way, from the exported function to the write.
// The write itself is left out: this program defines the two functions that frames could be written with.
#include <benchmark/benchmark.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <string>

#include "AllocationCount.h"
#include "tarvo.h"

namespace {

// Frames of this thread go nowhere.
thread_local bool swallowing = false;
thread_local std::size_t swallowed = 0;

// The two ends of a pipe between two names of this process.
struct Ends {
    int client;
    int server;
};

Ends OpenBothEnds() {
    const std::string serverName = "bench_send_" + std::to_string(getpid());
    const std::string clientName = serverName + "_c";
    TarvoAttr server;
    server.mode = TARVO_MODE_SERVER;
    server.selfName = serverName.c_str();
    server.targetName = clientName.c_str();
    TarvoAttr client;
    client.selfName = clientName.c_str();
    client.targetName = serverName.c_str();
    client.timeout = 1000;
    const int serverEnd = TarvoOpen(&server);
    return {TarvoOpen(&client), serverEnd};
}

// The first message is sent for good, since it may open the write end.
void BuildFrame(benchmark::State &state) {
    static const Ends ends = OpenBothEnds();
    std::string payload(static_cast<std::size_t>(state.range(0)), '\xA5');
    TarvoRequest request{1, payload.data(), static_cast<uint32_t>(payload.size())};
    if (ends.client < 0 || ends.server < 0 || TarvoSendRequest(ends.client, &request) != 0) {
        state.SkipWithError("no pipe could be opened: is the FIFO directory there?");
        return;
    }
    swallowing = true;
    swallowed = 0;
    const uint64_t before = AllocationCount();
    bool failed = false;
    for (auto _ : state) {
        failed = TarvoSendRequest(ends.client, &request) != 0 || failed;
    }
    swallowing = false;
    if (failed || swallowed < static_cast<std::size_t>(state.iterations()) * payload.size()) {
        state.SkipWithError("the frames did not come out at the write");
    }
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(AllocationCount() - before), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BuildFrame)->Arg(64)->Arg(1000)->Arg(4000);

} // namespace

extern "C" ssize_t write(int fd, const void *data, size_t size) {
    if (swallowing) {
        swallowed += size;
        return static_cast<ssize_t>(size);
    }
    return syscall(SYS_write, fd, data, size);
}

extern "C" ssize_t writev(int fd, const iovec *parts, int count) {
    if (!swallowing) {
        return syscall(SYS_writev, fd, parts, count);
    }
    std::size_t size = 0;
    for (int i = 0; i < count; ++i) {
        size += parts[i].iov_len;
    }
    swallowed += size;
    return static_cast<ssize_t>(size);
}
