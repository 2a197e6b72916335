#include "bench/Child.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "bench/LoopChild.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "shared/ServerFile.h"
#include "tarvo.h"

namespace tarvoctl {
namespace {

using Clock = std::chrono::steady_clock;

TarvoPriority PriorityOf(const ChildTask &task) { return task.urgent ? TARVO_PRIORITY_URGENT : TARVO_PRIORITY_NORMAL; }

void Echo(int pipe, TarvoRequest *request) {
    if (request != nullptr) {
        TarvoResponse response = {request->id, request->data, request->size};
        TarvoSendResponse(pipe, &response);
    }
}

// What one thread of a client measures.
class Caller {
public:
    Caller(const ChildTask &childTask, int clientPipe)
        : task(childTask), pipe(clientPipe), request(childTask.size, 'b') {}

    void Run(Clock::time_point start);
    const Histogram &Times() const { return times; }
    uint64_t Failures() const { return failures; }

private:
    bool Call();

    const ChildTask &task;
    const int pipe;
    std::string request;
    Histogram times;
    uint64_t failures = 0;
};

bool Caller::Call() {
    TarvoRequest frame = {0, request.data(), static_cast<uint32_t>(request.size())};
    TarvoResponse response = {};
    const int result = TarvoTimedRPCSync(pipe, &frame, &response, BENCH_CALL_TIMEOUT_MS);
    const bool answered = result == 0 && response.size == request.size();
    DestroyResponse(&response);
    return answered;
}

void Caller::Run(Clock::time_point start) {
    const auto counted = start + std::chrono::microseconds(task.warmUpUs);
    const auto end = counted + std::chrono::microseconds(task.durationUs);
    const auto step =
        std::chrono::nanoseconds(task.rate > 0 ? static_cast<int64_t>(1e9 * task.threads / task.rate) : 0);
    auto due = start;
    bool measured = false;
    for (;;) {
        if (step.count() > 0) {
            std::this_thread::sleep_until(due);
        }
        // A paced call is timed from when it was due: one that had to wait for the call before it has waited, too.
        const auto begin = step.count() > 0 ? due : Clock::now();
        // On a busy machine, the whole time may pass within one call. Flat out, at least one is measured.
        if (begin >= end && (step.count() > 0 || measured)) {
            return;
        }
        const bool answered = Call();
        const auto duration = Clock::now() - begin;
        if (begin >= counted) {
            measured = true;
            failures += answered ? 0 : 1;
            if (answered) {
                times.Add(static_cast<uint64_t>(std::chrono::nanoseconds(duration).count()));
            }
        }
        due += step;
    }
}

void Measure(const ChildTask &task, int pipe) {
    std::vector<Caller> callers(task.threads, Caller(task, pipe));
    std::vector<std::thread> threads;
    threads.reserve(callers.size());
    const auto start = Clock::now();
    for (Caller &caller : callers) {
        threads.emplace_back([&caller, start] { caller.Run(start); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const auto measured = Clock::now() - start - std::chrono::microseconds(task.warmUpUs);
    ChildReport report;
    report.seconds = std::chrono::duration<double>(measured).count();
    for (const Caller &caller : callers) {
        report.times.Merge(caller.Times());
        report.failures += caller.Failures();
    }
    PutReport(report);
}

int RunServer(const ChildTask &task) {
    TarvoServerAttr attr;
    attr.callback = Echo;
    attr.priority = PriorityOf(task);
    attr.selfName = task.server.c_str();
    const int result = TarvoCreateServer(&attr);
    if (result != 0) {
        return ServerFailed(-result);
    }
    ServerFile file;
    file.Note(task.server);
    SayReady();
    while (ReadLine()) {
    }
    file.Remove();
    TarvoCfgFinishServer();
    return EXIT_DONE;
}

int RunClient(const ChildTask &task) {
    TarvoAttr attr;
    attr.targetName = task.server.c_str();
    attr.selfName = "bench";
    attr.priority = PriorityOf(task);
    attr.timeout = BENCH_OPEN_TIMEOUT_MS;
    const int pipe = TarvoCreateClient(&attr);
    if (pipe <= 0) {
        return ClientFailed(-pipe);
    }
    SayReady();
    if (ReadLine()) {
        Measure(task, pipe);
    }
    TarvoClosePipe(pipe);
    return EXIT_DONE;
}

} // namespace

std::vector<std::string> ArgumentsOf(const ChildTask &task) {
    std::vector<std::string> arguments = {"/proc/self/exe",
                                          "bench-child",
                                          task.role,
                                          task.server,
                                          "--size=" + std::to_string(task.size),
                                          "--engine=" + task.engine,
                                          "--outstanding=" + std::to_string(task.outstanding),
                                          "--threads=" + std::to_string(task.threads),
                                          "--warm-up=" + std::to_string(task.warmUpUs),
                                          "--duration=" + std::to_string(task.durationUs),
                                          "--rate=" + fmt::format("{}", task.rate)};
    if (task.urgent) {
        arguments.emplace_back("--urgent");
    }
    return arguments;
}

void SayReady() {
    Put("ready\n");
    FlushAnswer();
}

bool ReadLine() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) == 1) {
        if (byte == '\n') {
            return true;
        }
    }
    return false;
}

void PutReport(const ChildReport &report) {
    PutJson({{"failures", report.failures}, {"seconds", report.seconds}, {"times", report.times.ToJson()}});
    FlushAnswer();
}

int ServerFailed(int error) {
    Diagnose("the server of the benchmark does not start: {}", std::strerror(error));
    return EXIT_FAILED;
}

int ClientFailed(int error) {
    Diagnose("a client of the benchmark gets no pipe: {}", std::strerror(error));
    return EXIT_FAILED;
}

int RunBenchChild(const ChildTask &task) {
    if (task.engine == ENGINE_LOOP) {
        return task.role == "server" ? RunLoopBenchServer(task) : RunLoopBenchClient(task);
    }
    return task.role == "server" ? RunServer(task) : RunClient(task);
}

} // namespace tarvoctl
