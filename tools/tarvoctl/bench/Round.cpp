#include "bench/Round.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "shared/Output.h"
#include "shared/Subprocess.h"

namespace tarvoctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds PATIENCE(30);
constexpr int TICK_MS = 1000;
constexpr uint64_t WARM_UP_US = 200000;

// One child and what it writes.
class BenchProcess {
public:
    explicit BenchProcess(const ChildTask &task) : child(ArgumentsOf(task), {}) {}

    // The next line, while `tick` is called each second.
    template <typename Tick>
    std::string ReadLine(const Interrupt &interrupt, Clock::time_point deadline, Tick tick);
    void Go() const {
        if (write(child.Input(), "\n", 1) != 1) {
            throw std::runtime_error("a client of the benchmark has ended");
        }
    }
    // Ends it in the orderly way.
    void End() {
        child.CloseInput();
        child.Wait();
    }

private:
    bool ReadMore();

    Subprocess child;
    std::string unread;
};

bool BenchProcess::ReadMore() {
    std::array<char, 65536> chunk{};
    const ssize_t count = read(child.Output(), chunk.data(), chunk.size());
    if (count > 0) {
        unread.append(chunk.data(), static_cast<std::size_t>(count));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}

template <typename Tick>
std::string BenchProcess::ReadLine(const Interrupt &interrupt, Clock::time_point deadline, Tick tick) {
    for (;;) {
        const std::size_t end = unread.find('\n');
        if (end != std::string::npos) {
            std::string line = unread.substr(0, end);
            unread.erase(0, end + 1);
            return line;
        }
        std::array<pollfd, 2> entries = {{{child.Output(), POLLIN, 0}, {interrupt.Fd(), POLLIN, 0}}};
        if (poll(entries.data(), entries.size(), TICK_MS) == 0) {
            tick();
        }
        if (entries[1].revents != 0) {
            throw std::runtime_error("interrupted");
        }
        if (entries[0].revents != 0 && !ReadMore()) {
            throw std::runtime_error("a process of the benchmark has ended too early");
        }
        if (Clock::now() > deadline) {
            throw std::runtime_error("a process of the benchmark does not answer");
        }
    }
}

// The server ends in the orderly way whatever happens, since it has files.
class ServerProcess : public BenchProcess {
public:
    using BenchProcess::BenchProcess;
    ~ServerProcess() { End(); }
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;
};

ChildTask TaskOf(const BenchOptions &options, uint32_t size) {
    ChildTask task;
    task.server = "tarvoctl_bench_" + std::to_string(getpid());
    task.size = size;
    // With both engines, one has as many threads as the other has calls under way.
    task.threads = std::max(options.threads, options.engines.size() > 1 ? options.outstanding : 1);
    task.outstanding = options.outstanding;
    task.durationUs = static_cast<uint64_t>(options.duration.value.count());
    task.warmUpUs = std::min(WARM_UP_US, task.durationUs / 10);
    task.rate = options.rate / options.clients;
    task.urgent = options.priority == "urgent";
    return task;
}

void AddReport(Round &round, const std::string &line) {
    const nlohmann::json report = nlohmann::json::parse(line);
    round.failures += report.at("failures").get<uint64_t>();
    round.seconds = std::max(round.seconds, report.at("seconds").get<double>());
    round.times.Merge(Histogram::FromJson(report.at("times")));
}

Round MeasureClients(const BenchOptions &options, const ChildTask &task, const Interrupt &interrupt) {
    std::vector<std::unique_ptr<BenchProcess>> clients;
    for (uint32_t i = 0; i < options.clients; ++i) {
        clients.push_back(std::make_unique<BenchProcess>(task));
        clients.back()->ReadLine(interrupt, Clock::now() + PATIENCE, [] {});
    }
    const std::string what =
        fmt::format("{} bytes{}", task.size, options.engines.size() > 1 ? ", " + task.engine : std::string());
    Diagnose("{}: measuring for {}", what, DurationText(static_cast<double>(options.duration.value.count()) * 1e3));
    const auto start = Clock::now();
    for (const auto &client : clients) {
        client->Go();
    }
    const auto tick = [&] {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
        Diagnose("{}: {} s", what, seconds);
    };
    Round round;
    round.engine = task.engine;
    round.size = task.size;
    for (const auto &client : clients) {
        AddReport(round, client->ReadLine(interrupt, start + options.duration.value + PATIENCE, tick));
        client->End();
    }
    return round;
}

} // namespace

std::vector<Round> MeasureSize(const BenchOptions &options, uint32_t size, const Interrupt &interrupt) {
    ChildTask task = TaskOf(options, size);
    task.role = "server";
    task.engine = options.serverEngine;
    ServerProcess server(task);
    server.ReadLine(interrupt, Clock::now() + PATIENCE, [] {});
    task.role = "client";
    std::vector<Round> rounds;
    for (const std::string &engine : options.engines) {
        task.engine = engine;
        rounds.push_back(MeasureClients(options, task, interrupt));
    }
    return rounds;
}

} // namespace tarvoctl
