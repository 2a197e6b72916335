#ifndef TARVO_BENCH_PROCESS_BUDGET_H
#define TARVO_BENCH_PROCESS_BUDGET_H

#include <algorithm>
#include <atomic>

#include "Task.h"
#include "Time.h"

namespace bench {

// When the callers of a run stop: all at the same time, once each of them has gone on for long and often enough.
// Owns: nothing. Threads: one for each part. Locks: none.
class Budget {
public:
    Budget(const Task &task, std::size_t numberOfParts, int64_t begin)
        : exact(task.count / numberOfParts), least(task.samples / numberOfParts), parts(numberOfParts),
          earliest(begin + static_cast<int64_t>(task.seconds * 1e9)),
          latest(begin + static_cast<int64_t>(task.limit * 1e9)) {}

    // Of one caller.
    class Part {
    public:
        explicit Part(Budget &all) : budget(all) {}

        bool GoesOn(std::size_t done, int64_t now) {
            if (budget.exact > 0) {
                return done < budget.exact;
            }
            if (now >= budget.latest) {
                return false;
            }
            if (!enough && now >= budget.earliest && done >= budget.least) {
                enough = true;
                budget.satisfied.fetch_add(1, std::memory_order_relaxed);
            }
            return budget.satisfied.load(std::memory_order_relaxed) < budget.parts;
        }

    private:
        Budget &budget;
        bool enough = false;
    };

    // Room for the samples of one part, so that their memory is there before the run begins.
    static std::size_t Room(const Task &task, std::size_t parts) {
        constexpr double most = 4000000;
        const auto expected = static_cast<std::size_t>(std::min(task.fastest * task.seconds, most));
        return task.count > 0 ? task.count : expected / parts + task.samples;
    }

private:
    const std::size_t exact;
    const std::size_t least;
    const std::size_t parts;
    const int64_t earliest;
    const int64_t latest;
    std::atomic<std::size_t> satisfied{0};
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_BUDGET_H
