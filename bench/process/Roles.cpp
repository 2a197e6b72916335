#include "Roles.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <thread>

#include "Contestant.h"
#include "SyscallCount.h"

namespace bench {

namespace {

constexpr std::size_t WARM_UP_CALLS = 200;
constexpr std::size_t UNANSWERED_MESSAGES = 500;
// One operation in so many is done once more, for its system calls; at least these.
constexpr std::size_t COUNTED_PART = 10;
constexpr std::size_t LEAST_COUNTED = 10;

const Contestant &Find(const std::string &name) {
    for (const Contestant &contestant : Contestants()) {
        if (name == contestant.name) {
            return contestant;
        }
    }
    throw std::runtime_error("no such contestant: " + name);
}

int64_t Nanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

// User and system time of some processes, all threads.
int64_t ProcessorTime(const std::vector<pid_t> &processes) {
    int64_t sum = 0;
    for (const pid_t process : processes) {
        clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
        sum += clock_getcpuclockid(process, &clock) == 0 ? Nanoseconds(clock) : 0;
    }
    return sum;
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void SayReady(const std::vector<pid_t> &processes = {}) {
    std::printf("ready");
    for (const pid_t process : processes) {
        std::printf(" %d", process);
    }
    std::printf("\n");
    std::fflush(stdout);
}

// Blocks until the parent says go; false when it is gone.
bool AwaitLine() {
    char letter = 0;
    while (read(STDIN_FILENO, &letter, 1) == 1) {
        if (letter == '\n') {
            return true;
        }
    }
    return false;
}

struct Outcome {
    std::vector<int64_t> latencies; // ns
    int64_t begin = 0;
    int64_t end = 0;
    std::size_t operations = 0;
};

class Session {
public:
    Session(const Contestant &owner, const ChildOptions &childOptions)
        : contestant(owner), options(childOptions), payload(MAX_PAYLOAD, '\x5A') {}

    void Connect() {
        for (std::size_t i = 0; i < options.task.pipes; ++i) {
            clients.push_back(
                contestant.connect(options.endpoint, options.self + "p" + std::to_string(i), options.task.lanes));
        }
    }

    Outcome Run(std::size_t count) {
        const std::string &kind = options.task.kind;
        return kind == "oneway" ? OneWay(count) : kind == "connect" ? Connects(count) : Calls(count);
    }

    Outcome Calls(std::size_t count) {
        Outcome outcome;
        std::vector<std::vector<int64_t>> perLane(options.task.lanes);
        outcome.begin = Nanoseconds(CLOCK_MONOTONIC);
        if (options.task.lanes == 1) {
            CallFrom(0, count, perLane[0]);
        } else {
            outcome.begin = CallFromThreads(count, perLane);
        }
        outcome.end = Nanoseconds(CLOCK_MONOTONIC);
        for (const std::vector<int64_t> &lane : perLane) {
            outcome.latencies.insert(outcome.latencies.end(), lane.begin(), lane.end());
        }
        outcome.operations = outcome.latencies.size();
        return outcome;
    }

    // Ends when the server has counted every message.
    Outcome OneWay(std::size_t count) {
        Outcome outcome;
        const uint64_t expected = Count() + count;
        payload[0] = OP_ONE_WAY;
        outcome.begin = Nanoseconds(CLOCK_MONOTONIC);
        for (std::size_t i = 0; i < count; ++i) {
            Require(clients.back()->Send(payload.data(), options.task.size));
            if (i % UNANSWERED_MESSAGES == UNANSWERED_MESSAGES - 1) {
                Count(); // as senders have to: a worker's queue takes 1000, and what comes on top is dropped
            }
        }
        while (Count() < expected) {
            std::this_thread::yield();
        }
        outcome.end = Nanoseconds(CLOCK_MONOTONIC);
        outcome.operations = count;
        return outcome;
    }

    Outcome Connects(std::size_t count) {
        Outcome outcome;
        outcome.begin = Nanoseconds(CLOCK_MONOTONIC);
        for (std::size_t i = 0; i < count; ++i) {
            const int64_t start = Nanoseconds(CLOCK_MONOTONIC);
            clients.push_back(
                contestant.connect(options.endpoint, options.self + "c" + std::to_string(clients.size()), 1));
            CallOnce(0);
            outcome.latencies.push_back(Nanoseconds(CLOCK_MONOTONIC) - start);
        }
        outcome.end = Nanoseconds(CLOCK_MONOTONIC);
        outcome.operations = count;
        return outcome;
    }

private:
    static void Require(bool succeeded) {
        if (!succeeded) {
            throw std::runtime_error("a call failed");
        }
    }

    uint64_t CallOnce(std::size_t lane) {
        uint64_t word = 0;
        Require(clients.back()->Call(lane, payload.data(), options.task.size, word));
        return word;
    }

    uint64_t Count() {
        uint64_t word = 0;
        const char question[8] = {OP_COUNT};
        Require(clients.back()->Call(0, question, sizeof(question), word));
        return word;
    }

    // When the calls began, which is when every thread had made one: contestants may set a thread up then.
    int64_t CallFromThreads(std::size_t count, std::vector<std::vector<int64_t>> &perLane) {
        std::atomic<std::size_t> prepared{0};
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (std::size_t lane = 0; lane < options.task.lanes; ++lane) {
            threads.emplace_back([this, lane, count, &perLane, &prepared, &go] {
                CallOnce(lane);
                ++prepared;
                while (!go) {
                    std::this_thread::yield();
                }
                CallFrom(lane, count, perLane[lane]);
            });
        }
        while (prepared < options.task.lanes) {
            std::this_thread::yield();
        }
        const int64_t begin = Nanoseconds(CLOCK_MONOTONIC);
        go = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
        return begin;
    }

    void CallFrom(std::size_t lane, std::size_t count, std::vector<int64_t> &latencies) {
        latencies.resize(count); // the memory is touched before the measurement
        const uint64_t expected = FirstWord(payload.data(), options.task.size);
        for (std::size_t i = 0; i < count; ++i) {
            const int64_t start = Nanoseconds(CLOCK_MONOTONIC);
            const uint64_t word = CallOnce(lane);
            latencies[i] = Nanoseconds(CLOCK_MONOTONIC) - start;
            Require(word == expected);
        }
    }

    const Contestant &contestant;
    const ChildOptions &options;
    std::vector<char> payload;
    std::vector<std::unique_ptr<Client>> clients;

public:
    void UseEcho() { payload[0] = OP_ECHO; }
};

int64_t Percentile(const std::vector<int64_t> &sorted, double part) {
    if (sorted.empty()) {
        return 0;
    }
    const auto index = static_cast<std::size_t>(std::ceil(part * static_cast<double>(sorted.size()))) - 1;
    return sorted[std::min(index, sorted.size() - 1)];
}

void Print(Outcome &outcome, int64_t processorTime) {
    std::sort(outcome.latencies.begin(), outcome.latencies.end());
    std::printf("operations=%zu begin=%" PRId64 " end=%" PRId64 " p50=%" PRId64 " p99=%" PRId64 " p999=%" PRId64
                " cpu=%" PRId64 "\n",
                outcome.operations, outcome.begin, outcome.end, Percentile(outcome.latencies, 0.5),
                Percentile(outcome.latencies, 0.99), Percentile(outcome.latencies, 0.999), processorTime);
    std::fflush(stdout);
}

// In a run of its own: a counter slows every system call of the machine down.
void CountSyscalls(Session &session, std::size_t count, const std::vector<pid_t> &processes) {
    const SyscallCount syscalls(processes);
    const Outcome outcome = session.Run(count);
    std::printf("operations=%zu syscalls=%" PRId64 "\n", outcome.operations, syscalls.Read());
    std::fflush(stdout);
}

} // namespace

int RunServer(const ChildOptions &options) {
    RaiseDescriptorLimit();
    const std::unique_ptr<Server> server = Find(options.contestant).serve(options.endpoint);
    std::vector<pid_t> processes = server->Helpers();
    processes.push_back(getpid());
    SayReady(processes);
    AwaitLine();
    return 0;
}

int RunClient(const ChildOptions &options) {
    RaiseDescriptorLimit();
    const Contestant &contestant = Find(options.contestant);
    Session session(contestant, options);
    session.UseEcho();
    const std::string &kind = options.task.kind;
    if (kind != "connect") {
        session.Connect();
        session.Calls(WARM_UP_CALLS);
    }
    SayReady();
    if (!AwaitLine()) {
        return 1;
    }
    std::vector<pid_t> processes = options.serverPids;
    processes.push_back(getpid());
    const int64_t before = ProcessorTime(processes);
    Outcome outcome = session.Run(options.task.count);
    const int64_t after = ProcessorTime(processes);
    Print(outcome, after - before);
    // The connections stay until all have measured.
    if (AwaitLine()) {
        CountSyscalls(session, std::max(options.task.count / COUNTED_PART, LEAST_COUNTED), processes);
        AwaitLine();
    }
    // Not through the destructors: receive threads of the contestants may still be at work on the connections.
    _exit(0);
}

} // namespace bench
