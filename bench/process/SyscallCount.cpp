#include "SyscallCount.h"

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace bench {

namespace {

// The number of the tracepoint, or negative.
int64_t TracepointId() {
    for (const char *path : {"/sys/kernel/tracing/events/raw_syscalls/sys_enter/id",
                             "/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id"}) {
        std::ifstream file(path);
        int64_t id = -1;
        if (file >> id) {
            return id;
        }
    }
    return -1;
}

int OpenCounter(int64_t tracepoint, pid_t thread) {
    perf_event_attr attr{};
    attr.type = PERF_TYPE_TRACEPOINT;
    attr.size = sizeof(attr);
    attr.config = static_cast<uint64_t>(tracepoint);
    attr.inherit = 1; // threads that the thread starts count with it
    return static_cast<int>(syscall(SYS_perf_event_open, &attr, thread, -1, -1, PERF_FLAG_FD_CLOEXEC));
}

} // namespace

SyscallCount::SyscallCount(const std::vector<pid_t> &processes) {
    const int64_t tracepoint = TracepointId();
    if (tracepoint < 0) {
        complete = false;
        return;
    }
    for (const pid_t process : processes) {
        for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
            const int fd = OpenCounter(tracepoint, std::atoi(entry.path().filename().c_str()));
            complete = complete && (fd >= 0 || errno == ESRCH); // a thread that has ended counts nothing
            if (fd >= 0) {
                counters.push_back(fd);
            }
        }
    }
}

SyscallCount::~SyscallCount() {
    for (const int fd : counters) {
        close(fd);
    }
}

int64_t SyscallCount::Read() const {
    int64_t sum = 0;
    for (const int fd : counters) {
        int64_t value = 0;
        if (read(fd, &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) {
            return -1;
        }
        sum += value;
    }
    return complete && !counters.empty() ? sum : -1;
}

} // namespace bench
