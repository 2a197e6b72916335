#include "serve/CommandRun.h"

#include <unistd.h>

#include <array>
#include <cerrno>

#include "pipe/Message.h"
#include "shared/Output.h"

namespace tarvoctl {

CommandRun::CommandRun(const CommandTask &task)
    : client(task.client), end(Clock::now() + task.limit),
      child({"/bin/sh", "-c", task.command}, {"TARVO_SERVER=" + task.server, "TARVO_CLIENT=" + task.client}) {
    // Fits into the smallest pipe there is. A command that does not read its input is fine.
    if (write(child.Input(), task.request.data(), task.request.size()) < 0 && errno != EPIPE) {
        Diagnose("the command for '{}' does not get its request", client);
    }
    child.CloseInput();
}

bool CommandRun::Advance(bool readable) {
    if (readable && state == State::EXITS) {
        state = State::OVER;
    } else if (readable && state == State::PRINTS) {
        Read();
    } else if (Clock::now() >= end) {
        GiveUp();
    }
    return state == State::OVER || state == State::GIVEN_UP;
}

void CommandRun::Read() {
    std::array<char, 4096> chunk{};
    const ssize_t count = read(child.Output(), chunk.data(), chunk.size());
    if (count > 0) {
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    if (count == 0) {
        AwaitExit();
    } else if ((count < 0 && errno != EINTR) || text.size() > Message::MAX_PAYLOAD_LEN) {
        GiveUp();
    }
}

void CommandRun::AwaitExit() {
    exited = child.ExitFd();
    // Where the kernel has no such descriptor the exit is waited for: nearly all end with their output.
    state = exited.Get() >= 0 ? State::EXITS : State::OVER;
}

std::optional<std::string> CommandRun::Answer() {
    if (state != State::OVER) {
        Diagnose("no answer for '{}': the command printed more than {} bytes or took too long", client,
                 std::uint64_t{Message::MAX_PAYLOAD_LEN});
        return std::nullopt;
    }
    const int status = child.Wait();
    if (status != 0 || text.empty()) {
        Diagnose("no answer for '{}': the command ended with {} and printed {} bytes", client, status, text.size());
        return std::nullopt;
    }
    return std::move(text);
}

} // namespace tarvoctl
