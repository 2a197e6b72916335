#include "ping/LoopPinger.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "shared/Engine.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"

namespace tarvoctl {

LoopPinger::LoopPinger(const PingOptions &pingOptions, const Interrupt &pingInterrupt)
    : options(pingOptions), interrupt(pingInterrupt), request(pingOptions.size, 'p'), loop(tarvo::Loop::Create()),
      report(pingOptions), due(pingOptions.outstanding, Clock::now()) {}

void LoopPinger::Open() {
    state = State::OPENING;
    full = false;
    link.Close(); // the one before has the same names
    std::error_code error;
    const auto timeout = std::chrono::milliseconds(options.client.openTimeout.Milliseconds());
    link =
        tarvo::Link::Connect(loop, options.client.server, tarvo::LinkOptions().As(options.client.self).Timeout(timeout),
                             tarvo::LinkHandlers()
                                 .OnOpened([this](tarvo::LinkView, std::error_code failed) { OnOpened(failed); })
                                 .OnClosed([this](tarvo::LinkView) { OnClosed(); })
                                 .OnWritable([this](tarvo::LinkView) {
                                     full = false;
                                     SendWaiting();
                                 }),
                             error);
    if (error) {
        OnOpened(error);
    }
}

void LoopPinger::OnOpened(std::error_code error) {
    state = error ? State::CLOSED : State::OPEN;
    openError = error.value();
    if (error) {
        LoseWaiting(openError);
    } else {
        for (Call &call : waiting) {
            call.start = Clock::now(); // the time of an open is not that of a call
        }
        SendWaiting();
    }
}

// After the ends of all calls that were sent.
void LoopPinger::OnClosed() {
    state = State::CLOSED;
    LoseWaiting(EPIPE);
}

int LoopPinger::Connect() {
    // The first connection decides whether there is a server at all.
    Open();
    while (state == State::OPENING && !interrupt.Requested()) {
        Await();
    }
    if (state == State::OPEN) {
        return EXIT_DONE;
    }
    if (interrupt.Requested()) {
        return EXIT_INTERRUPTED;
    }
    const Failure failure = Explain(-openError, options.client.server);
    Diagnose("{}", failure.text);
    return failure.exitStatus;
}

void LoopPinger::BeginDue() {
    const auto now = Clock::now();
    while (!due.empty() && due.front() <= now && (options.count == 0 || begun < options.count)) {
        due.pop_front();
        waiting.push_back({++begun, now});
    }
    if (waiting.empty()) {
        return;
    }
    if (state == State::CLOSED) {
        Open();
    } else if (state == State::OPEN) {
        SendWaiting();
    }
}

void LoopPinger::SendWaiting() {
    while (!full && !waiting.empty() && Send(waiting.front())) {
        waiting.pop_front();
    }
}

bool LoopPinger::Send(const Call &call) {
    // Waiting for room counts.
    const auto left = call.start + options.timeout.value - Clock::now();
    const auto limit = std::max(std::chrono::ceil<std::chrono::milliseconds>(left), std::chrono::milliseconds(1));
    const std::error_code error =
        link.Call(request, limit, [this, call](std::error_code failed, std::string_view) { Ended(call, failed); });
    full = error == std::errc::resource_unavailable_try_again;
    if (error && !full) {
        Ended(call, error);
    }
    return !full;
}

void LoopPinger::Ended(const Call &call, std::error_code error) {
    if (error == std::errc::operation_canceled) {
        return; // with the link, by us
    }
    if (error) {
        report.Loss(call.sequence, -error.value());
    } else {
        report.Answer(call.sequence, Clock::now() - call.start);
    }
    due.push_back(Clock::now() + options.interval.value);
}

void LoopPinger::LoseWaiting(int error) {
    const std::deque<Call> lost = std::exchange(waiting, {});
    for (const Call &call : lost) {
        Ended(call, std::error_code(error, std::generic_category()));
    }
}

void LoopPinger::LoseOverdue() {
    while (state == State::OPEN && !waiting.empty() && waiting.front().start + options.timeout.value <= Clock::now()) {
        const Call call = waiting.front();
        waiting.pop_front();
        Ended(call, std::make_error_code(std::errc::resource_unavailable_try_again));
    }
}

LoopPinger::Clock::time_point LoopPinger::NextTime() const {
    auto next = Clock::time_point::max();
    if (!due.empty() && (options.count == 0 || begun < options.count)) {
        next = due.front();
    }
    if (state == State::OPEN && !waiting.empty()) {
        next = std::min(next, waiting.front().start + options.timeout.value);
    }
    return next;
}

void LoopPinger::Await() {
    std::array<pollfd, 2> entries = {{{interrupt.Fd(), POLLIN, 0}, {loop.Fd(), POLLIN, 0}}};
    timespec limit{};
    const auto next = state == State::OPENING ? Clock::time_point::max() : NextTime();
    if (next != Clock::time_point::max()) {
        const auto left = std::max<int64_t>(std::chrono::nanoseconds(next - Clock::now()).count(), 0);
        limit = {left / 1000000000, left % 1000000000};
    }
    ppoll(entries.data(), entries.size(), next == Clock::time_point::max() ? nullptr : &limit, nullptr);
    loop.Dispatch(CALLBACKS_PER_ROUND);
}

int LoopPinger::Run() {
    const int status = Connect();
    if (status != EXIT_DONE) {
        return status;
    }
    report.Start();
    while (!Over() && !interrupt.Requested()) {
        BeginDue();
        Await();
        LoseOverdue();
        if (!FlushAnswer()) {
            break;
        }
    }
    return report.Finish();
}

} // namespace tarvoctl
