// What reaches the log function: this program defines it in front of the library's.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "diag/velm_syslog.h"
#include "support/Names.h"
#include "tarvo.h"

namespace {

using Line = std::pair<int, std::string>;

// Never destroyed: the library may still log while statics end.
struct Seen {
    std::mutex mutex;
    std::vector<Line> lines;
};

Seen &State() {
    static auto *const seen = new Seen;
    return *seen;
}

bool HasSeen(int level, const std::string &format) {
    const std::lock_guard<std::mutex> lock(State().mutex);
    return std::count(State().lines.begin(), State().lines.end(), Line(level, format)) != 0;
}

} // namespace

extern "C" void VelmSyslog(VELMLogType, int level, int, const char *, const char *format, ...) {
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().lines.emplace_back(level, format);
}

namespace {

// Which lines are written is decided in the log function alone, so that a program which puts its own in front of it
// gets all of them. These come out of the sources that every message runs through.
TEST(LogCallSites, HandEveryLineToTheLogFunctionWhateverItsLevel) {
    const std::string remote = tarvo_test::NameTag() + "log_remote";
    const std::string own = tarvo_test::NameTag() + "log_own";
    TarvoAttr attr{};
    attr.targetName = remote.c_str();
    attr.selfName = own.c_str();
    attr.mode = TARVO_MODE_SERVER;
    attr.priority = TARVO_PRIORITY_NORMAL;
    attr.gid = 0xFFFFFFFF;
    attr.targetPid = -1;
    const int fd = TarvoOpen(&attr);
    ASSERT_GT(fd, 0);
    char byte = 'x';
    TarvoRequest request{1, &byte, 1};
    TarvoResponse response{};
    EXPECT_LT(TarvoSendRequest(fd, &request), 0) << "nobody reads";
    EXPECT_LT(TarvoTimedRPCSync(fd, &request, &response, 0), 0);
    EXPECT_LT(TarvoSendRequest(fd + 1, &request), 0);
    TarvoClosePipe(fd);

    EXPECT_TRUE(HasSeen(LOG_INFO, "SendRequest id=%u, size=%u bytes"));
    EXPECT_TRUE(HasSeen(LOG_INFO, "TarvoPipeImpl Send, writeFd = %d. %s  %s"));
    EXPECT_TRUE(HasSeen(LOG_INFO, "write msg type=%u open write failed, err=%d, fd=%d, target=%s"));
    EXPECT_TRUE(HasSeen(LOG_INFO, "RUN_MODE=%s"));
    EXPECT_TRUE(HasSeen(LOG_INFO, "GetPipe failed, input fd = %d"));
    EXPECT_TRUE(HasSeen(LOG_INFO, "DataMonitorImpl Add. pipeIdx = %d, readFd = %d."));
    EXPECT_TRUE(HasSeen(LOG_DEBUG, "Pipe table size: %d, alloc fd = %d"));
}

} // namespace
