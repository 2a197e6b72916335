// For conditions that announce themselves by no event, such as the number of threads in /proc. Whatever has an event
// (a log line, a latch, a descriptor) is waited for by that.
#ifndef TARVO_SUPPORT_EVENTUALLY_H
#define TARVO_SUPPORT_EVENTUALLY_H

#include <poll.h>
#include <sched.h>

#include <chrono>

#include "support/Interpose.h"

namespace tarvo_test {

// Whether `condition` came true within `limit` of real time.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto now = [] {
        const RealTime real;
        return std::chrono::steady_clock::now();
    };
    const auto end = now() + limit;
    for (int round = 0; !condition(); ++round) {
        if (now() > end) {
            return condition();
        }
        if (round < 100) {
            sched_yield();
        } else {
            ::poll(nullptr, 0, 1); // leaves the processor to whom we wait for
        }
    }
    return true;
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_EVENTUALLY_H
