#include "bench/LoopChild.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <thread>
#include <unordered_map>

#include "shared/ExitCode.h"
#include "tarvo_loop.hpp"

namespace tarvoctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds OPEN_LIMIT(BENCH_OPEN_TIMEOUT_MS);
constexpr std::chrono::milliseconds CALL_LIMIT(BENCH_CALL_TIMEOUT_MS);
// Between two looks for calls that have waited too long for room.
constexpr std::chrono::milliseconds TICK(100);

bool IsFull(std::error_code error) { return error == std::errc::resource_unavailable_try_again; }

// Echoes requests. Answers for which there is no room wait for it.
class EchoServer {
public:
    explicit EchoServer(const std::string &name, std::error_code &error) : loop(tarvo::Loop::Create(error)) {
        if (error) {
            return;
        }
        service = tarvo::Service::Open(loop, name, {},
                                       tarvo::ServiceHandlers()
                                           .OnRequest([this](const tarvo::LinkRequest &request) { OnRequest(request); })
                                           .OnWritable([this](tarvo::LinkView link) { OnWritable(link); })
                                           .OnClosed([this](tarvo::LinkView link) { unsent.erase(link); }),
                                       error);
    }

    // Until the end of standard input.
    void Run() {
        std::thread watcher([this] {
            while (ReadLine()) {
            }
            loop.Stop();
        });
        loop.Run();
        watcher.join();
    }

private:
    struct Answer {
        tarvo::LinkTicket ticket;
        std::string bytes;
    };

    void OnRequest(const tarvo::LinkRequest &request) {
        const bool waits = !unsent.empty() && unsent.count(request.From()) != 0;
        if (waits || IsFull(request.Reply(request.Bytes()))) {
            unsent[request.From()].push_back({request.Keep(), request.Text()});
        }
    }
    void OnWritable(tarvo::LinkView link) {
        std::deque<Answer> &answers = unsent[link];
        while (!answers.empty()) {
            if (IsFull(answers.front().ticket.Reply(answers.front().bytes))) {
                return;
            }
            answers.pop_front();
        }
        unsent.erase(link);
    }

    tarvo::Loop loop;
    tarvo::Service service;
    std::unordered_map<tarvo::LinkView, std::deque<Answer>> unsent;
};

// What a client measures: a number of calls under way, all of this thread.
class LoopCaller {
public:
    explicit LoopCaller(const ChildTask &childTask) : task(childTask), request(childTask.size, 'b') {}

    std::error_code Open();
    ChildReport Run();

private:
    // Starts a call, which is timed from `begin`, or has it wait for room.
    void Begin(Clock::time_point begin);
    bool Send(Clock::time_point begin);
    void SendWaiting();
    void Record(Clock::time_point begin, bool answered);
    void Ended(Clock::time_point begin, std::error_code error, std::size_t size);
    void LoseOverdue();

    void RunFlatOut();
    void RunPaced(std::chrono::nanoseconds step);
    void AwaitUntil(Clock::time_point time);

    // Flat out, at least one call is measured: on a busy machine, the whole time may pass within one.
    bool Over() const { return gone || (Clock::now() >= end && (paced || measured)); }
    bool Idle() const { return outstanding == 0 && waiting.empty(); }

    const ChildTask &task;
    const std::string request;
    tarvo::Loop loop = tarvo::Loop::Create();
    tarvo::Link link;
    std::error_code openError;
    Clock::time_point counted;
    Clock::time_point end;
    bool paced = false;
    bool measured = false;
    bool gone = false; // the server
    bool full = false;
    uint32_t outstanding = 0;
    std::deque<Clock::time_point> waiting; // calls for which there was no room
    ChildReport report;
};

std::error_code LoopCaller::Open() {
    std::error_code error;
    link = tarvo::Link::Connect(loop, task.server, tarvo::LinkOptions().As("bench").Timeout(OPEN_LIMIT),
                                tarvo::LinkHandlers()
                                    .OnOpened([this](tarvo::LinkView, std::error_code failed) {
                                        openError = failed;
                                        loop.Stop();
                                    })
                                    .OnClosed([this](tarvo::LinkView) {
                                        gone = true;
                                        loop.Stop();
                                    })
                                    .OnWritable([this](tarvo::LinkView) {
                                        full = false;
                                        SendWaiting();
                                    }),
                                error);
    if (error) {
        return error;
    }
    error = loop.Run();
    return error ? error : openError;
}

void LoopCaller::Begin(Clock::time_point begin) {
    if (full || !Send(begin)) {
        waiting.push_back(begin);
    }
}

bool LoopCaller::Send(Clock::time_point begin) {
    const std::error_code error =
        link.Call(request, CALL_LIMIT, [this, begin](std::error_code failed, std::string_view answer) {
            --outstanding;
            Ended(begin, failed, answer.size());
        });
    full = IsFull(error);
    if (!error) {
        ++outstanding;
    } else if (!full) {
        gone = true;
        Record(begin, false);
    }
    return !full;
}

void LoopCaller::SendWaiting() {
    while (!full && !gone && !waiting.empty()) {
        const auto begin = waiting.front();
        waiting.pop_front();
        if (!Send(begin)) {
            waiting.push_front(begin);
        }
    }
}

void LoopCaller::Record(Clock::time_point begin, bool answered) {
    if (begin < counted) {
        return;
    }
    measured = true;
    if (answered) {
        report.times.Add(static_cast<uint64_t>(std::chrono::nanoseconds(Clock::now() - begin).count()));
    } else {
        ++report.failures;
    }
}

void LoopCaller::Ended(Clock::time_point begin, std::error_code error, std::size_t size) {
    gone = gone || error == std::errc::broken_pipe;
    Record(begin, !error && size == request.size());
    if (!paced && !Over()) {
        Begin(Clock::now());
    }
    if (Over() && Idle()) {
        loop.Stop();
    }
}

void LoopCaller::LoseOverdue() {
    const auto now = Clock::now();
    while (!waiting.empty() && (gone || waiting.front() + CALL_LIMIT <= now)) {
        const auto begin = waiting.front();
        waiting.pop_front();
        Ended(begin, std::make_error_code(std::errc::timed_out), 0);
    }
}

void LoopCaller::RunFlatOut() {
    for (uint32_t i = 0; i < task.outstanding; ++i) {
        Begin(Clock::now());
    }
    while (!Over() || !Idle()) {
        loop.Run(TICK);
        LoseOverdue();
    }
}

void LoopCaller::AwaitUntil(Clock::time_point time) {
    pollfd entry = {loop.Fd(), POLLIN, 0};
    const auto left = std::max<int64_t>(std::chrono::nanoseconds(time - Clock::now()).count(), 0);
    const timespec limit = {left / 1000000000, left % 1000000000};
    ppoll(&entry, 1, &limit, nullptr);
    loop.Dispatch();
}

// A paced call is timed from when it was due: one that had to wait for those before it has waited, too.
void LoopCaller::RunPaced(std::chrono::nanoseconds step) {
    auto due = end - std::chrono::microseconds(task.warmUpUs + task.durationUs);
    while (!gone && (due < end || !Idle())) {
        const auto now = Clock::now();
        while (due < end && due <= now && outstanding + waiting.size() < task.outstanding) {
            Begin(due);
            due += step;
        }
        const bool later = due < end && outstanding + waiting.size() < task.outstanding;
        AwaitUntil(later ? std::min(due, now + TICK) : now + TICK);
        LoseOverdue();
    }
    LoseOverdue();
}

ChildReport LoopCaller::Run() {
    const auto start = Clock::now();
    counted = start + std::chrono::microseconds(task.warmUpUs);
    end = counted + std::chrono::microseconds(task.durationUs);
    paced = task.rate > 0;
    if (paced) {
        RunPaced(std::chrono::nanoseconds(static_cast<int64_t>(1e9 / task.rate)));
    } else {
        RunFlatOut();
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - counted).count();
    return report;
}

} // namespace

int RunLoopBenchServer(const ChildTask &task) {
    std::error_code error;
    EchoServer server(task.server, error);
    if (error) {
        return ServerFailed(error.value());
    }
    SayReady();
    server.Run();
    return EXIT_DONE;
}

int RunLoopBenchClient(const ChildTask &task) {
    LoopCaller caller(task);
    const std::error_code error = caller.Open();
    if (error) {
        return ClientFailed(error.value());
    }
    SayReady();
    if (ReadLine()) {
        PutReport(caller.Run());
    }
    return EXIT_DONE;
}

} // namespace tarvoctl
