#include "tools/ToolProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "support/CountOf.h"

namespace tarvo_test {
namespace {

constexpr int LIMIT_MS = 60000;

// Appends what is there to `text`, and closes the descriptor at its end.
void ReadInto(int &fd, std::string &text) {
    std::array<char, 65536> chunk{};
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count > 0) {
        text.append(chunk.data(), static_cast<std::size_t>(count));
        return;
    }
    close(fd);
    fd = -1;
}

[[noreturn]] void BecomeTool(const std::vector<std::string> &arguments) {
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0UL, 0UL, 0UL);
    std::vector<std::string> words = Joined({TARVOCTL_PROGRAM}, arguments);
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

} // namespace

std::vector<std::string> Joined(std::vector<std::string> words, const std::vector<std::string> &more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::vector<nlohmann::json> ToolResult::Json() const {
    std::vector<nlohmann::json> values;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        values.push_back(nlohmann::json::parse(line));
    }
    return values;
}

ToolProcess::ToolProcess(const std::vector<std::string> &arguments, const std::string &input) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for the tool");
    }
    // Written before the tool runs, so it must fit into the pipe.
    fcntl(in[1], F_SETPIPE_SZ, static_cast<int>(input.size()));
    if (write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
        throw std::runtime_error("the input of the tool does not fit");
    }
    close(in[1]);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        BecomeTool(arguments);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
    if (pid_ < 0) {
        throw std::runtime_error("no process for the tool");
    }
}

ToolProcess::~ToolProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (const int fd : {out_, err_}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

bool ToolProcess::ReadMore() {
    if (out_ < 0 && err_ < 0) {
        return false;
    }
    std::array<pollfd, 2> entries = {{{out_, POLLIN, 0}, {err_, POLLIN, 0}}};
    if (poll(entries.data(), entries.size(), LIMIT_MS) == 0) {
        throw std::runtime_error("the tool is silent; so far: " + result_.out + result_.err);
    }
    if (entries[0].revents != 0) {
        ReadInto(out_, result_.out);
    }
    if (entries[1].revents != 0) {
        ReadInto(err_, result_.err);
    }
    return true;
}

void ToolProcess::Await(const std::string &stream, const std::string &text, std::size_t times) {
    while (CountOf(stream, text) < times) {
        if (!ReadMore()) {
            throw std::runtime_error("the tool ended without: " + text + "\n" + result_.out + result_.err);
        }
    }
}

void ToolProcess::AwaitOut(const std::string &text, std::size_t times) { Await(result_.out, text, times); }

void ToolProcess::AwaitErr(const std::string &text, std::size_t times) { Await(result_.err, text, times); }

void ToolProcess::Signal(int signo) const { kill(pid_, signo); }

void ToolProcess::Freeze() const {
    Signal(SIGSTOP);
    if (waitpid(pid_, nullptr, WUNTRACED) != pid_) {
        throw std::runtime_error("the tool does not stop");
    }
}

ToolResult ToolProcess::Wait() {
    while (ReadMore()) {
    }
    int status = 0;
    while (pid_ > 0 && waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    result_.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return result_;
}

ToolResult ToolProcess::Interrupt() {
    Signal(SIGINT);
    return Wait();
}

ToolResult RunTool(const std::vector<std::string> &arguments, const std::string &input) {
    ToolProcess tool(arguments, input);
    return tool.Wait();
}

std::string RunToolOnTerminal(const std::vector<std::string> &arguments, const std::string &typed,
                              const Window &window) {
    int master = -1;
    winsize size{};
    size.ws_row = window.rows;
    size.ws_col = window.columns;
    const pid_t pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid == 0) {
        setenv("TERM", "xterm", 1);
        unsetenv("NO_COLOR");
        BecomeTool(arguments);
    }
    if (pid < 0) {
        throw std::runtime_error("no terminal for the tool");
    }
    if (write(master, typed.data(), typed.size()) != static_cast<ssize_t>(typed.size())) {
        throw std::runtime_error("the terminal does not take what is typed");
    }
    std::string text;
    while (master >= 0) {
        ReadInto(master, text); // ends with EIO when the tool has closed its end
    }
    waitpid(pid, nullptr, 0);
    return text;
}

} // namespace tarvo_test
