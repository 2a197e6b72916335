#include "support/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "support/Coverage.h"
#include "support/Watchdog.h"

namespace tarvo_test {

namespace {

constexpr int ASSERTION_FAILED = 99;
constexpr int SIGNAL_BASE = 128;

// Repeats read or write until all the bytes have passed; false when it fails or ends before.
template <typename Pass, typename Byte>
bool PassAll(Pass pass, int fd, Byte *data, std::size_t size) {
    while (size > 0) {
        const ssize_t count = pass(fd, data, size);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

[[noreturn]] void RunChild(const std::function<int(Channel &)> &body, int readFd, int writeFd) {
    // Does not outlive the test.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0UL, 0UL, 0UL);
    ArmAlarm(TestLimit());
    int code = 0;
    try {
        Channel channel(readFd, writeFd);
        code = body(channel);
    } catch (const std::exception &error) {
        // It must not reach the test framework, which would go on with the next test in this process.
        ADD_FAILURE() << "exception in a child process: " << error.what();
    }
    if (testing::Test::HasFailure()) {
        code = ASSERTION_FAILED;
    }
    std::fflush(nullptr);
    DumpCoverage();
    _exit(code);
}

} // namespace

Channel::~Channel() {
    ::close(in);
    ::close(out);
}

bool Channel::Send(const std::string &text) {
    const auto size = static_cast<uint32_t>(text.size());
    return PassAll(::write, out, reinterpret_cast<const char *>(&size), sizeof(size)) &&
           PassAll(::write, out, text.data(), size);
}

std::optional<std::string> Channel::Receive() {
    uint32_t size = 0;
    if (!PassAll(::read, in, reinterpret_cast<char *>(&size), sizeof(size))) {
        return std::nullopt;
    }
    std::string text(size, '\0');
    if (!PassAll(::read, in, text.data(), size)) {
        return std::nullopt;
    }
    return text;
}

ChildProcess::ChildProcess(const std::function<int(Channel &)> &body) {
    int toChild[2];
    int toParent[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(toParent, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for a child process");
    }
    std::fflush(nullptr);
    pid = fork();
    if (pid == 0) {
        ::close(toChild[1]);
        ::close(toParent[0]);
        RunChild(body, toChild[0], toParent[1]);
    }
    ::close(toChild[0]);
    ::close(toParent[1]);
    if (pid < 0) {
        throw std::runtime_error("no child process");
    }
    channel = std::make_unique<Channel>(toParent[0], toChild[1]);
    // Not waitpid, which knows no time limit. Closed at exec, like every descriptor of this call.
    endFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

ChildProcess::~ChildProcess() {
    if (!result) {
        Kill();
        Wait();
    }
    ::close(endFd);
}

bool ChildProcess::EndsWithin(int milliseconds) const {
    pollfd event{endFd, POLLIN, 0};
    return ::poll(&event, 1, milliseconds) == 1;
}

void ChildProcess::Kill(int signal) {
    if (!result) {
        ::kill(pid, signal);
    }
}

int ChildProcess::Wait() {
    int status = 0;
    while (!result) {
        if (waitpid(pid, &status, 0) == pid) {
            result = WIFSIGNALED(status) ? SIGNAL_BASE + WTERMSIG(status) : WEXITSTATUS(status);
        } else if (errno != EINTR) {
            ADD_FAILURE() << "child " << pid << " cannot be waited for, errno " << errno;
            result = -1;
        }
    }
    return *result;
}

} // namespace tarvo_test
