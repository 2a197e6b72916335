// What it costs to have a callback run by a worker: the time of one hand-over, from the submission to the first
// instruction of the callback, and the rate of many from several threads.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "AllocationCount.h"
#include "worker/CallbackPool.h"
#include "worker/WorkerPool.h"

namespace {

constexpr unsigned NORMAL_WORKERS = 1024;
constexpr unsigned URGENT_WORKERS = 20;
constexpr int64_t MAX_OUTSTANDING = 500; // half of what one worker's queue takes

using Clock = std::chrono::steady_clock;

class Pool {
public:
    Pool() : callbacks(std::make_shared<WorkerPool>(NORMAL_WORKERS, URGENT_WORKERS)) {}
    ~Pool() { callbacks.Destroy(); }
    Pool(const Pool &) = delete;
    Pool &operator=(const Pool &) = delete;

    CallbackPool callbacks;
};

// Lets a benchmark's thread wait for the callback that it has submitted.
struct Turn {
    std::atomic<bool> done{false};
    Clock::time_point started;

    void Reset() { done.store(false, std::memory_order_relaxed); }
    void Run() {
        started = Clock::now();
        done.store(true, std::memory_order_release);
    }
    void Wait() const {
        while (!done.load(std::memory_order_acquire)) {
            sched_yield();
        }
    }
};

void Report(benchmark::State &state, uint64_t allocationsBefore) {
    state.counters["allocs"] = benchmark::Counter(static_cast<double>(AllocationCount() - allocationsBefore),
                                                  benchmark::Counter::kAvgIterations);
}

template <typename Submit>
void MeasureHandOver(benchmark::State &state, Submit submit) {
    Turn turn;
    submit(turn); // the worker exists from here on
    turn.Wait();
    const uint64_t before = AllocationCount();
    for (auto _ : state) {
        turn.Reset();
        const Clock::time_point begin = Clock::now();
        submit(turn);
        turn.Wait();
        state.SetIterationTime(std::chrono::duration<double>(turn.started - begin).count());
    }
    Report(state, before);
}

// To the worker of a name, which sleeps or is just about to.
void HandOverSerial(benchmark::State &state) {
    Pool pool;
    const std::string name = "1";
    MeasureHandOver(state, [&](Turn &turn) {
        pool.callbacks.DropTo(
            name, [&turn] { turn.Run(); }, TARVO_PRIORITY_NORMAL);
    });
}
BENCHMARK(HandOverSerial)->UseManualTime();

// To any worker, allocated and given back each time.
void HandOverConcurrent(benchmark::State &state) {
    Pool pool;
    MeasureHandOver(state,
                    [&](Turn &turn) { pool.callbacks.DropAsyncTask([&turn] { turn.Run(); }, TARVO_PRIORITY_NORMAL); });
}
BENCHMARK(HandOverConcurrent)->UseManualTime();

// As the serial one on a pool that serves many names.
void HandOverSerialAmongMany(benchmark::State &state) {
    Pool pool;
    for (int64_t i = 0; i < state.range(0); ++i) {
        pool.callbacks.FindWorker("other" + std::to_string(i));
    }
    const std::string name = "1";
    MeasureHandOver(state, [&](Turn &turn) {
        pool.callbacks.DropTo(
            name, [&turn] { turn.Run(); }, TARVO_PRIORITY_NORMAL);
    });
}
BENCHMARK(HandOverSerialAmongMany)->Arg(200)->UseManualTime();

// The concurrent one on a pool that serves many names.
void HandOverConcurrentAmongMany(benchmark::State &state) {
    Pool pool;
    for (int64_t i = 0; i < state.range(0); ++i) {
        pool.callbacks.FindWorker("other" + std::to_string(i));
    }
    MeasureHandOver(state,
                    [&](Turn &turn) { pool.callbacks.DropAsyncTask([&turn] { turn.Run(); }, TARVO_PRIORITY_NORMAL); });
}
BENCHMARK(HandOverConcurrentAmongMany)->Arg(200)->Arg(1000)->UseManualTime();

// Keeps one submitter's callbacks below what a queue takes.
class Outstanding {
public:
    void Enter() {
        while (count.load(std::memory_order_acquire) >= MAX_OUTSTANDING) {
            sched_yield();
        }
        count.fetch_add(1, std::memory_order_relaxed);
    }
    void Leave() { count.fetch_sub(1, std::memory_order_release); }
    void WaitForAll() const {
        while (count.load(std::memory_order_acquire) != 0) {
            sched_yield();
        }
    }

private:
    std::atomic<int64_t> count{0};
};

std::unique_ptr<Pool> shared;

void MakeShared(const benchmark::State &) { shared = std::make_unique<Pool>(); }
void DestroyShared(const benchmark::State &) { shared.reset(); }

// Each submitter under a name of its own.
void ThroughputSerial(benchmark::State &state) {
    Outstanding outstanding;
    const std::string name = std::to_string(state.thread_index());
    for (auto _ : state) {
        outstanding.Enter();
        shared->callbacks.DropTo(
            name, [&outstanding] { outstanding.Leave(); }, TARVO_PRIORITY_NORMAL);
    }
    outstanding.WaitForAll();
    state.SetItemsProcessed(state.iterations());
}

// Each callback to any worker.
void ThroughputConcurrent(benchmark::State &state) {
    Outstanding outstanding;
    for (auto _ : state) {
        outstanding.Enter();
        shared->callbacks.DropAsyncTask([&outstanding] { outstanding.Leave(); }, TARVO_PRIORITY_NORMAL);
    }
    outstanding.WaitForAll();
    state.SetItemsProcessed(state.iterations());
}

void Submitters(benchmark::internal::Benchmark *bench) {
    bench->Setup(MakeShared)->Teardown(DestroyShared)->UseRealTime();
    for (const int threads : {1, 2, 8}) {
        bench->Threads(threads);
    }
}
BENCHMARK(ThroughputSerial)->Apply(Submitters);
BENCHMARK(ThroughputConcurrent)->Apply(Submitters);

} // namespace
