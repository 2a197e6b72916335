#ifndef TARVO_DIAG_RUN_TIME_RECORD_H
#define TARVO_DIAG_RUN_TIME_RECORD_H

#include <array>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace Tarvo {

// The monotonic clock of the library, in microseconds (CLOCK_MONOTONIC, see clock_gettime(2)). Any thread.
uint64_t GetCurrentTime();

// Times one operation against a budget and reports its stages when it took longer.
// Owns: the recorded points. Threads: the one that times its operation. Locks: none. Ends: any time.
//
// Use: RecordCurrentTime() at the start and after each stage, then WhetherTotalTimeHasTimeout(), and RunTimePrint()
// only when that says so.
class RunTimeRecord {
public:
    explicit RunTimeRecord(uint64_t budgetMs);

    void RecordCurrentTime();

    // The first recorded point as GetCurrentTime() would have given it; 0 without one.
    uint64_t StartTime() const;
    // The same as it is.
    const timespec &StartPoint() const { return firstPoints[0]; }

    // Microseconds from `earlier` to `later`; 0 when they are reversed.
    int64_t CalculationInterval(const timespec &later, const timespec &earlier) const;

    // Records a final point and tells whether the time since the first one reached the budget.
    bool WhetherTotalTimeHasTimeout();

    // Logs `head`, the time of each stage (latest first) and the total.
    void RunTimePrint(const std::string &head);

private:
    timespec &Point(uint64_t index) {
        return index < firstPoints.size() ? firstPoints[index] : furtherPoints[index - firstPoints.size()];
    }

    uint64_t timeoutMs;
    uint64_t pointNum = 0;
    // Start and end, which is what most records hold, take no memory from the heap.
    std::array<timespec, 2> firstPoints{};
    std::vector<timespec> furtherPoints;
};

} // namespace Tarvo

#endif // TARVO_DIAG_RUN_TIME_RECORD_H
