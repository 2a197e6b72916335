// What the three clients have in common besides their connection: when they end, and how they report latencies.
#ifndef TELEMETRY_CLIENT_LOOP_H
#define TELEMETRY_CLIENT_LOOP_H

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tarvo.h"

inline volatile std::sig_atomic_t endSignal = 0;

inline bool EndRequested() { return endSignal != 0; }

// Call it first in main: SIGTERM and SIGINT end the loop, and a server that is gone is no reason to die.
inline void PrepareClient() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGTERM, [](int signo) { endSignal = signo; });
    std::signal(SIGINT, [](int signo) { endSignal = signo; });
    setvbuf(stdout, nullptr, _IOLBF, 0);
}

// One call: result, answer and duration.
struct Answer {
    int result; // 0, or a negated errno
    std::string text;
    std::chrono::microseconds duration;
};

inline Answer Ask(int fd, std::string question, int timeoutMs) {
    TarvoRequest request = {0, question.data(), static_cast<uint32_t>(question.size())};
    TarvoResponse response = {};
    const auto start = std::chrono::steady_clock::now();
    const int result = TarvoTimedRPCSync(fd, &request, &response, timeoutMs);
    const auto end = std::chrono::steady_clock::now();
    Answer answer = {result, "", std::chrono::duration_cast<std::chrono::microseconds>(end - start)};
    if (response.data != nullptr) {
        answer.text.assign(response.data, response.size);
    } else if (result == 0) {
        answer.result = -EPIPE; // the pipe was closed between the sending and the waiting
    }
    DestroyResponse(&response); // the answer's bytes belong to the caller
    return answer;
}

class Latencies {
public:
    void Add(std::chrono::microseconds latency) { sorted_.push_back(latency.count()); }

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
