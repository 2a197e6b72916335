// What single steps of a message cost: its checksum, a log line that is not written, a look at the table.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "api/TableFactory.h"
#include "diag/velm_syslog.h"
#include "pipe/MagicReceiver.h"
#include "pipe/Message.h"
#include "table/TarvoTable.h"

namespace {

constexpr char LOG_TAG[] = "LibraryBench";

TarvoRequest Request(std::string &payload) { return {1, payload.data(), static_cast<uint32_t>(payload.size())}; }

void Sizes(benchmark::internal::Benchmark *bench) {
    for (const int size : {1, 7, 8, 15, 16, 31, 64, 65, 255, 1000, 1024, 3999, 4000}) {
        bench->Arg(size);
    }
}

void Checksum(benchmark::State &state) {
    std::string payload(static_cast<std::size_t>(state.range(0)), '\xA5');
    OutMessage message(1, Request(payload), 100);
    for (auto _ : state) {
        benchmark::DoNotOptimize(payload.data());
        benchmark::DoNotOptimize(message.Checksum());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(Checksum)->Apply(Sizes);

// The plain loop over the bytes, as this program's optimisation level compiles it: what the other is to beat.
void ChecksumByteByByte(benchmark::State &state) {
    std::string payload(static_cast<std::size_t>(state.range(0)), '\xA5');
    for (auto _ : state) {
        benchmark::DoNotOptimize(payload.data());
        uint32_t sum = MagicReceiver::MAGIC;
        for (const char byte : payload) {
            sum += static_cast<uint8_t>(byte);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(ChecksumByteByByte)->Apply(Sizes);

void DiscardedLogLine(benchmark::State &state) {
    for (auto _ : state) {
        TARVO_LOG(LOG_INFO, "SendRequest id=%u, size=%u bytes", 1U, 64U);
    }
}
BENCHMARK(DiscardedLogLine);

void ReachTable(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(TableFactory::GetInstance());
    }
}
BENCHMARK(ReachTable)->Threads(1)->Threads(2)->UseRealTime();

// As every exported function does it, for a pipe whose remote never comes.
void LookUpPipe(benchmark::State &state) {
    static const std::string remote = "bench_remote_" + std::to_string(getpid());
    static const int fd = TarvoOpen(remote.c_str(), nullptr, 0, TARVO_MODE_SERVER);
    const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
    if (fd < 0 || !table->GetPipe(fd)) {
        state.SkipWithError("no pipe could be opened: is the FIFO directory there?");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(table->GetPipe(fd));
    }
}
BENCHMARK(LookUpPipe)->Threads(1)->Threads(2)->UseRealTime();

} // namespace
