#include "Child.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace bench {

namespace {

constexpr int SILENCE_MS = 60000;
constexpr int END_MS = 3000;

void StayOnLastCore() {
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof(allowed), &allowed);
    for (int core = CPU_SETSIZE - 1; core >= 0; --core) {
        if (CPU_ISSET(core, &allowed)) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(core, &one);
            sched_setaffinity(0, sizeof(one), &one);
            return;
        }
    }
}

[[noreturn]] void BecomeChild(const std::vector<std::string> &arguments, int in, int out, bool oneCore) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    if (oneCore) {
        StayOnLastCore();
    }
    std::vector<char *> argv = {const_cast<char *>("bench_process")};
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    execv("/proc/self/exe", argv.data());
    _exit(127);
}

// Waits for the end of a child: with its process descriptor, since waitpid knows no time limit.
bool EndsWithin(pid_t pid, int milliseconds) {
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) {
        return false;
    }
    pollfd event{fd, POLLIN, 0};
    const bool ended = poll(&event, 1, milliseconds) == 1;
    close(fd);
    return ended;
}

} // namespace

Child::Child(const std::vector<std::string> &arguments, bool oneCore) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    pid = fork();
    if (pid == 0) {
        BecomeChild(arguments, in[0], out[1], oneCore);
    }
    close(in[0]);
    close(out[1]);
    input = in[1];
    output = out[0];
    if (pid < 0) {
        throw std::runtime_error("fork");
    }
}

Child::~Child() {
    close(input);
    close(output);
    if (pid <= 0) {
        return;
    }
    if (!EndsWithin(pid, END_MS)) {
        kill(pid, SIGKILL);
    }
    waitpid(pid, nullptr, 0);
}

std::string Child::ReadLine() {
    std::string line;
    for (;;) {
        pollfd event{output, POLLIN, 0};
        char letter = 0;
        if (poll(&event, 1, SILENCE_MS) != 1 || read(output, &letter, 1) != 1) {
            throw std::runtime_error("a child process failed");
        }
        if (letter == '\n') {
            return line;
        }
        line += letter;
    }
}

void Child::WriteLine() const {
    if (write(input, "\n", 1) != 1) {
        throw std::runtime_error("a child process has ended");
    }
}

BusyProcess::BusyProcess() : pid(fork()) {
    if (pid != 0) {
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (volatile unsigned i = 0;; i = i + 1) {
    }
}

BusyProcess::~BusyProcess() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

} // namespace bench
