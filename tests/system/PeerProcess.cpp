#include "system/PeerProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace tarvo_test {
namespace {

constexpr int LIMIT_MS = 30000;

bool StartsWith(const std::string &text, const std::string &start) { return text.compare(0, start.size(), start) == 0; }

void CheckCall(int result, const char *what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

[[noreturn]] void BecomePeer(const char *program, int input, int output, const std::function<bool()> &inChild) {
    // The parent may ignore or handle what a fresh program does not.
    std::signal(SIGPIPE, SIG_DFL);
    unsetenv("PROC_NAME");
    unsetenv("KELDOR_RUN_MODE");
    if (dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 && (!inChild || inChild())) {
        execl(program, program, static_cast<char *>(nullptr));
    }
    _exit(127);
}

} // namespace

PeerProcess::PeerProcess(const std::function<bool()> &inChild, const char *program) {
    std::signal(SIGPIPE, SIG_IGN);
    int toChild[2];
    int fromChild[2];
    CheckCall(pipe2(toChild, O_CLOEXEC), "pipe2");
    CheckCall(pipe2(fromChild, O_CLOEXEC), "pipe2");
    pid_ = fork();
    CheckCall(pid_, "fork");
    if (pid_ == 0) {
        BecomePeer(program, toChild[0], fromChild[1], inChild);
    }
    close(toChild[0]);
    close(fromChild[1]);
    commands_ = toChild[1];
    answers_ = fromChild[0];
    try {
        Await("ready");
    } catch (...) {
        KillAndWait();
        close(commands_);
        close(answers_);
        throw;
    }
}

PeerProcess::~PeerProcess() {
    // A test that threw has left the child anywhere.
    if (pid_ > 0 && std::uncaught_exceptions() == 0) {
        EXPECT_NO_THROW(EXPECT_EQ(Quit(), 0));
    }
    KillAndWait();
    close(commands_);
    close(answers_);
}

void PeerProcess::Tell(const std::string &command) {
    const std::string line = command + "\n";
    if (write(commands_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("the peer takes no command: " + command);
    }
}

std::string PeerProcess::Reply() {
    std::string reply;
    AwaitLine("= ", &reply);
    return reply;
}

std::string PeerProcess::Ask(const std::string &command) {
    Tell(command);
    const std::string reply = Reply();
    if (reply == "usage") {
        throw std::runtime_error("the peer does not understand: " + command);
    }
    return reply;
}

int PeerProcess::AskInt(const std::string &command) { return std::stoi(Ask(command)); }

std::string PeerProcess::Await(const std::string &event) {
    std::string rest;
    AwaitLine("! " + event, &rest);
    return rest;
}

std::string PeerProcess::NextEvent() {
    std::string rest;
    AwaitLine("! ", &rest);
    return rest;
}

std::size_t PeerProcess::Pending(const std::string &event) const {
    return static_cast<std::size_t>(std::count_if(
        lines_.begin(), lines_.end(), [&](const std::string &line) { return StartsWith(line, "! " + event); }));
}

bool PeerProcess::TakeLine(const std::string &start, std::string *rest) {
    const auto line =
        std::find_if(lines_.begin(), lines_.end(), [&](const std::string &text) { return StartsWith(text, start); });
    if (line == lines_.end()) {
        return false;
    }
    *rest = line->substr(std::min(line->size(), start.size()));
    if (StartsWith(*rest, " ")) {
        rest->erase(0, 1);
    }
    lines_.erase(line);
    return true;
}

void PeerProcess::AwaitLine(const std::string &start, std::string *rest) {
    while (!TakeLine(start, rest)) {
        if (!ReadMore()) {
            throw std::runtime_error("the peer ended before it printed: " + start);
        }
    }
}

bool PeerProcess::ReadMore() {
    pollfd entry = {answers_, POLLIN, 0};
    if (poll(&entry, 1, LIMIT_MS) == 0) {
        std::string seen;
        for (const std::string &line : lines_) {
            seen += "\n  " + line;
        }
        throw std::runtime_error("waited 30 s in vain for the peer; unread lines:" + seen);
    }
    char bytes[4096];
    const ssize_t count = read(answers_, bytes, sizeof(bytes));
    if (count <= 0) {
        return false;
    }
    unread_.append(bytes, static_cast<std::size_t>(count));
    for (std::size_t end = unread_.find('\n'); end != std::string::npos; end = unread_.find('\n')) {
        lines_.push_back(unread_.substr(0, end));
        unread_.erase(0, end + 1);
    }
    return true;
}

void PeerProcess::Signal(int signo) const { CheckCall(kill(pid_, signo), "kill"); }

void PeerProcess::Freeze() const {
    Signal(SIGSTOP);
    int status = 0;
    CheckCall(waitpid(pid_, &status, WUNTRACED), "waitpid");
    if (!WIFSTOPPED(status)) {
        throw std::runtime_error("the peer ended instead of stopping");
    }
}

void PeerProcess::Thaw() const { Signal(SIGCONT); }

int PeerProcess::Wait() {
    // The end of its output comes with the end of the child; a child that hangs meets the limit here.
    while (ReadMore()) {
    }
    int status = 0;
    CheckCall(waitpid(pid_, &status, 0), "waitpid");
    pid_ = -1;
    return status;
}

int PeerProcess::Quit() {
    close(commands_);
    commands_ = -1;
    const int status = Wait();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void PeerProcess::KillAndWait() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

} // namespace tarvo_test
