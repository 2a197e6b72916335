#include "serve/Responder.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <system_error>

#include "serve/CommandRun.h"
#include "shared/Output.h"

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
    Exec(const std::string &serverName, const std::string &shellCommand, Duration timeLimit, int fd)
        : server(serverName), command(shellCommand), limit(timeLimit), interruptFd(fd) {}

    std::optional<std::string> Answer(const std::string &client, const std::string &request) override;

private:
    // Polls until it is over.
    void Await(CommandRun &run) const;

    const std::string server;
    const std::string command;
    const Duration limit;
    const int interruptFd;
};

std::optional<std::string> Exec::Answer(const std::string &client, const std::string &request) {
    try {
        CommandRun run({command, server, client, request, limit.value});
        Await(run);
        return run.Answer();
    } catch (const std::system_error &error) {
        Diagnose("no answer for '{}': {}", client, error.what());
        return std::nullopt;
    }
}

void Exec::Await(CommandRun &run) const {
    bool over = false;
    while (!over) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(run.End() - CommandRun::Clock::now()).count();
        std::array<pollfd, 2> entries = {{{run.Fd(), POLLIN, 0}, {interruptFd, POLLIN, 0}}};
        const int ready = poll(entries.data(), entries.size(), static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0 && entries[1].revents != 0) {
            run.GiveUp();
            return;
        }
        over = run.Advance(ready > 0);
    }
}

} // namespace

std::unique_ptr<Responder> MakeEcho() { return std::make_unique<Echo>(); }

std::unique_ptr<Responder> MakeSink() { return std::make_unique<Sink>(); }

std::unique_ptr<Responder> MakeExec(const std::string &server, const std::string &command, Duration limit,
                                    int interruptFd) {
    return std::make_unique<Exec>(server, command, limit, interruptFd);
}

} // namespace tarvoctl
