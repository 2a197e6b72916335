// What the three clients have in common: how they reach the server, when they end, and how they report latencies.
#ifndef TELEMETRY_CLIENT_LOOP_H
#define TELEMETRY_CLIENT_LOOP_H

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tarvo.hpp"

using namespace std::chrono_literals;

inline volatile std::sig_atomic_t endSignal = 0;

inline bool EndRequested() { return endSignal != 0; }

// Call it first in main: SIGTERM and SIGINT end the loop, and a server that is gone is no reason to die.
inline void PrepareClient() {
    tarvo::IgnoreSigpipe();
    std::signal(SIGTERM, [](int signo) { endSignal = signo; });
    std::signal(SIGINT, [](int signo) { endSignal = signo; });
    setvbuf(stdout, nullptr, _IOLBF, 0);
}

// For a client that says when its server comes and goes. `who` must outlive it.
inline tarvo::ClientOptions Telling(const char *who) {
    return tarvo::ClientOptions()
        .OnUp([who, again = ""](tarvo::PipeView pipe) mutable {
            std::printf("%s: connected%s to %s as pipe %d\n", who, again, pipe.RemoteName().c_str(), pipe.Handle());
            again = " again";
        })
        .OnDown([who] { std::printf("%s: lost the server\n", who); });
}

// Waits for the server; false when none has come for 30 s, or when the program is to end.
inline bool AwaitServer(const tarvo::Client &client, const char *who) {
    for (int i = 0; i < 300 && !EndRequested(); ++i) {
        if (client.WaitUntilUp(100ms)) {
            return true;
        }
    }
    if (!EndRequested()) {
        std::fprintf(stderr, "%s: no server for 30 s\n", who);
    }
    return false;
}

// The server has gone, before or during the call.
inline bool IsGone(const std::error_code &error) {
    return error == std::errc::not_connected || error == std::errc::broken_pipe;
}

class Latencies {
public:
    using Clock = std::chrono::steady_clock;

    void Add(Clock::time_point start) {
        sorted_.push_back(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
    }

    void Print(const char *who) {
        std::sort(sorted_.begin(), sorted_.end());
        std::printf("%s: latency of %zu answers: p50 %lld us, p90 %lld us, p99 %lld us, max %lld us\n", who,
                    sorted_.size(), At(50), At(90), At(99), At(100));
    }

private:
    long long At(std::size_t percent) const {
        return sorted_.empty() ? 0 : sorted_[(sorted_.size() - 1) * percent / 100];
    }

    std::vector<long long> sorted_;
};

#endif // TELEMETRY_CLIENT_LOOP_H
