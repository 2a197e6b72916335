#include "diag/run_time_record.h"

#include "diag/velm_syslog.h"

namespace Tarvo {

namespace {

constexpr char LOG_TAG[] = "run_time_record";
constexpr int64_t MICROSECONDS_PER_SECOND = 1000000;
constexpr int64_t NANOSECONDS_PER_MICROSECOND = 1000;
constexpr uint64_t MICROSECONDS_PER_MILLISECOND = 1000;

uint64_t ToMicroseconds(const timespec &time) {
    return static_cast<uint64_t>(time.tv_sec * MICROSECONDS_PER_SECOND + time.tv_nsec / NANOSECONDS_PER_MICROSECOND);
}

} // namespace

uint64_t GetCurrentTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return ToMicroseconds(now);
}

uint64_t RunTimeRecord::StartTime() const { return pointNum == 0 ? 0 : ToMicroseconds(firstPoints[0]); }

RunTimeRecord::RunTimeRecord(uint64_t budgetMs) : timeoutMs(budgetMs) {}

void RunTimeRecord::RecordCurrentTime() {
    if (pointNum >= firstPoints.size()) {
        furtherPoints.emplace_back();
    }
    clock_gettime(CLOCK_MONOTONIC, &Point(pointNum));
    ++pointNum;
}

int64_t RunTimeRecord::CalculationInterval(const timespec &later, const timespec &earlier) const {
    if (later.tv_sec < earlier.tv_sec || (later.tv_sec == earlier.tv_sec && earlier.tv_nsec > later.tv_nsec)) {
        return 0;
    }
    return (later.tv_nsec - earlier.tv_nsec) / NANOSECONDS_PER_MICROSECOND +
           (later.tv_sec - earlier.tv_sec) * MICROSECONDS_PER_SECOND;
}

bool RunTimeRecord::WhetherTotalTimeHasTimeout() {
    if (pointNum == 0) {
        TARVO_LOG(LOG_NOTICE, "print point time log failed, point num is = %lu", pointNum);
        return false;
    }
    RecordCurrentTime();
    const int64_t total = CalculationInterval(Point(pointNum - 1), Point(0));
    return static_cast<uint64_t>(total) >= timeoutMs * MICROSECONDS_PER_MILLISECOND;
}

void RunTimeRecord::RunTimePrint(const std::string &head) {
    if (pointNum == 0) {
        TARVO_LOG(LOG_NOTICE, "print point time log failed, point num is = %lu", pointNum);
        return;
    }
    std::string text = head;
    for (uint64_t i = pointNum - 1; i > 0; --i) {
        text += " t" + std::to_string(i) + std::to_string(i - 1) + " = " +
                std::to_string(CalculationInterval(Point(i), Point(i - 1))) + "us,";
    }
    text += "totalTime=" + std::to_string(CalculationInterval(Point(pointNum - 1), Point(0))) + "us";
    TARVO_LOG(LOG_NOTICE, "%s", text.c_str());
}

} // namespace Tarvo
