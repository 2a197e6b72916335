#ifndef TARVO_TARVOCTL_SUBPROCESS_H
#define TARVO_TARVOCTL_SUBPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace tarvoctl {

// A child process whose standard input and output are pipes of ours. It starts with no signal blocked, in a process
// group of its own, so that a Ctrl-C on the terminal reaches only this process, which then ends its children in order.
// Owns: the child and both pipes. Threads: one. Locks: none. Ends: kills the child's group and waits for it.
class Subprocess {
public:
    // `environment` adds "NAME=value" entries. Throws std::system_error.
    Subprocess(const std::vector<std::string> &arguments, const std::vector<std::string> &environment);
    ~Subprocess();
    Subprocess(const Subprocess &) = delete;
    Subprocess &operator=(const Subprocess &) = delete;

    int Input() const { return input.Get(); }
    int Output() const { return output.Get(); }
    void CloseInput() { input.Reset(); }
    // Readable once the child has ended. Empty where the kernel has no such descriptors.
    UniqueFd ExitFd() const;
    // The exit code, or 128 plus the signal. Blocks.
    int Wait();

private:
    pid_t pid = -1;
    int result = 0;
    UniqueFd input;
    UniqueFd output;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_SUBPROCESS_H
