#ifndef TARVO_BENCH_PROCESS_CHILD_H
#define TARVO_BENCH_PROCESS_CHILD_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// A child process that runs this program with other arguments, its standard input and output being pipes.
// Owns: the process and both pipes. Threads: one. Locks: none. Ends: the child's standard input is closed, and the
// child killed when it has not ended soon after.
class Child {
public:
    // Throws std::runtime_error.
    Child(const std::vector<std::string> &arguments, bool oneCore);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // The next line the child writes; throws when it ends or is silent for too long.
    std::string ReadLine();
    void WriteLine() const;

private:
    pid_t pid = -1;
    int input = -1;
    int output = -1;
};

// A process that does nothing but use its processor, until destroyed.
class BusyProcess {
public:
    BusyProcess();
    ~BusyProcess();
    BusyProcess(const BusyProcess &) = delete;
    BusyProcess &operator=(const BusyProcess &) = delete;

private:
    pid_t pid;
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_CHILD_H
