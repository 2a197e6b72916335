#ifndef TARVO_BENCH_PROCESS_SYSCALLCOUNT_H
#define TARVO_BENCH_PROCESS_SYSCALLCOUNT_H

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace bench {

// Counts the system calls of some processes, of all their present threads and of those they start meanwhile, with the
// kernel's own counter of the raw_syscalls:sys_enter tracepoint: nothing is stopped or traced, so the counted program
// runs as it always does.
// Owns: the counters. Threads: one. Locks: none. Ends: any time.
class SyscallCount {
public:
    explicit SyscallCount(const std::vector<pid_t> &processes);
    ~SyscallCount();
    SyscallCount(const SyscallCount &) = delete;
    SyscallCount &operator=(const SyscallCount &) = delete;

    // Since construction; negative when the kernel does not let this user count (perf_event_paranoid, tracefs).
    int64_t Read() const;

private:
    std::vector<int> counters;
    bool complete = true;
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_SYSCALLCOUNT_H
