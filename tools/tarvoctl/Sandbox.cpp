// tarvoctl sandbox: runs a command with a FIFO directory of its own.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "api/EnvManager.h"
#include "sandbox/Namespaces.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

// As env(1), timeout(1) and others have it, so that it is told apart from what the command itself returns.
constexpr int EXIT_NO_SANDBOX = 125;
constexpr int EXIT_NOT_EXECUTABLE = 126;
constexpr int EXIT_NOT_FOUND = 127;

// Becomes the command: its exit status, signals and terminal are then nobody's business but its own.
int BecomeCommand(std::vector<std::string> words) {
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    const int error = errno;
    Diagnose("cannot run '{}': {}", words.front(), std::strerror(error));
    return error == ENOENT ? EXIT_NOT_FOUND : EXIT_NOT_EXECUTABLE;
}

int RunSandbox(const std::vector<std::string> &words) {
    if (words.empty()) {
        Diagnose("there is no command to run; see 'tarvoctl help sandbox'");
        return EXIT_USAGE;
    }
    const std::string failure = EnterOwnDirectory(EnvManager::FifoPrefix());
    if (!failure.empty()) {
        Diagnose("{}", failure);
        return EXIT_NO_SANDBOX;
    }
    return BecomeCommand(words);
}

} // namespace

void AddSandbox(CommandLine &app, Command &command) {
    CommandLine sub =
        app.Subcommand("sandbox",
                       "Run a command with shared memory and a FIFO directory of its own, so that it meets "
                       "no process outside",
                       "Exit status: that of the command; 2 wrong usage; 125 the kernel allows no sandbox; "
                       "126 the command cannot be run; 127 there is no such command.");
    sub.Note("[--] COMMAND [ARGUMENT]...", "The command; what follows belongs to it");
    sub.LeaveRest();
    sub.WhenNamed([&command] { command.become = [&command] { return RunSandbox(command.rest); }; });
}

} // namespace tarvoctl
