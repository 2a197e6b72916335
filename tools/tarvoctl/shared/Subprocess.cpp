#include "shared/Subprocess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace tarvoctl {
namespace {

void Check(int error, const char *what) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), what);
    }
}

struct PipeEnds {
    UniqueFd read;
    UniqueFd write;
};

PipeEnds MakePipe() {
    std::array<int, 2> ends{};
    Check(pipe2(ends.data(), O_CLOEXEC) == 0 ? 0 : errno, "no pipe for a child process");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// How the child starts.
class SpawnSettings {
public:
    SpawnSettings(int childInput, int childOutput) {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_adddup2(&actions, childInput, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, childOutput, STDOUT_FILENO);
        sigset_t none;
        sigemptyset(&none);
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE); // ignored here, which a child would inherit
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &pipe);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnSettings() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSettings(const SpawnSettings &) = delete;
    SpawnSettings &operator=(const SpawnSettings &) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

std::vector<char *> Pointers(std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string &text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Subprocess::Subprocess(const std::vector<std::string> &arguments, const std::vector<std::string> &environment) {
    PipeEnds toChild = MakePipe();
    PipeEnds fromChild = MakePipe();
    const SpawnSettings settings(toChild.read.Get(), fromChild.write.Get());
    std::vector<std::string> words = arguments;
    std::vector<std::string> variables = environment;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        variables.emplace_back(*entry);
    }
    const std::vector<char *> argv = Pointers(words);
    const std::vector<char *> envp = Pointers(variables);
    Check(posix_spawn(&pid, argv[0], &settings.actions, &settings.attributes, argv.data(), envp.data()),
          "no child process");
    input = std::move(toChild.write);
    output = std::move(fromChild.read);
}

Subprocess::~Subprocess() {
    if (pid > 0) {
        kill(-pid, SIGKILL);
        Wait();
    }
}

// The C library of Debian 12 declares its function for this without saying that it is one of C.
UniqueFd Subprocess::ExitFd() const { return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))); }

int Subprocess::Wait() {
    int status = 0;
    while (pid > 0) {
        if (waitpid(pid, &status, 0) == pid) {
            pid = -1;
            result = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        } else if (errno != EINTR) {
            pid = -1;
            result = 128;
        }
    }
    return result;
}

} // namespace tarvoctl
