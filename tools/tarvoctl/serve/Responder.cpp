#include "serve/Responder.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "pipe/Message.h"
#include "shared/Output.h"
#include "shared/Subprocess.h"

namespace tarvoctl {
namespace {

class Echo : public Responder {
public:
    std::optional<std::string> Answer(const std::string &, const std::string &request) override { return request; }
};

class Sink : public Responder {
public:
    std::optional<std::string> Answer(const std::string &, const std::string &) override { return std::nullopt; }
};

class Exec : public Responder {
public:
    Exec(const std::string &shellCommand, Duration timeLimit, int fd)
        : command(shellCommand), limit(timeLimit), interruptFd(fd) {}

    std::optional<std::string> Answer(const std::string &client, const std::string &request) override;

private:
    std::optional<std::string> Run(const std::string &client, const std::string &request) const;
    // What the child prints until it closes its output; empty when it takes too long or prints too much.
    std::optional<std::string> ReadOutput(const Subprocess &child) const;

    const std::string command;
    const Duration limit;
    const int interruptFd;
};

std::optional<std::string> Exec::Answer(const std::string &client, const std::string &request) {
    try {
        return Run(client, request);
    } catch (const std::system_error &error) {
        Diagnose("no answer for '{}': {}", client, error.what());
        return std::nullopt;
    }
}

std::optional<std::string> Exec::Run(const std::string &client, const std::string &request) const {
    Subprocess child({"/bin/sh", "-c", command}, {"TARVO_CLIENT=" + client});
    // Fits into the smallest pipe there is. A command that does not read its input is fine.
    if (write(child.Input(), request.data(), request.size()) < 0 && errno != EPIPE) {
        Diagnose("the command for '{}' does not get its request", client);
    }
    child.CloseInput();
    std::optional<std::string> answer = ReadOutput(child);
    if (!answer) {
        Diagnose("no answer for '{}': the command printed more than {} bytes or took too long", client,
                 std::uint64_t{Message::MAX_PAYLOAD_LEN});
        return std::nullopt;
    }
    const int status = child.Wait();
    if (status != 0 || answer->empty()) {
        Diagnose("no answer for '{}': the command ended with {} and printed {} bytes", client, status, answer->size());
        return std::nullopt;
    }
    return answer;
}

std::optional<std::string> Exec::ReadOutput(const Subprocess &child) const {
    const auto end = std::chrono::steady_clock::now() + limit.value;
    std::string text;
    std::array<char, 4096> chunk{};
    while (text.size() <= Message::MAX_PAYLOAD_LEN) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        std::array<pollfd, 2> entries = {{{child.Output(), POLLIN, 0}, {interruptFd, POLLIN, 0}}};
        const int ready = poll(entries.data(), entries.size(), static_cast<int>(std::max<long>(left, 0)));
        if (ready == 0 || entries[1].revents != 0) {
            return std::nullopt;
        }
        const ssize_t count = ready < 0 ? -1 : read(child.Output(), chunk.data(), chunk.size());
        if (count == 0) {
            return text;
        }
        if (count > 0) {
            text.append(chunk.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace

std::unique_ptr<Responder> MakeEcho() { return std::make_unique<Echo>(); }

std::unique_ptr<Responder> MakeSink() { return std::make_unique<Sink>(); }

std::unique_ptr<Responder> MakeExec(const std::string &command, Duration limit, int interruptFd) {
    return std::make_unique<Exec>(command, limit, interruptFd);
}

} // namespace tarvoctl
