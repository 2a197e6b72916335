// tarvoctl: looks into a running system of tarvo processes and talks to them, without writing code.
#include <fmt/format.h>
#include <syslog.h>

#include <csignal>
#include <exception>
#include <new>

#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "tarvo.h"

namespace {

using tarvoctl::Command;
using tarvoctl::CommandLine;
using tarvoctl::Parsed;

constexpr char FOOTER[] =
    "'tarvoctl help SUBCOMMAND' tells its options. In all of them the answer goes to standard output and "
    "everything else to standard error.\n"
    "Exit status: 0 done; 1 failed; 2 wrong usage; 3 no such server; 4 no answer in time; "
    "5 something wrong was found; 130 interrupted.";

void Declare(CommandLine &app, Command &command) {
    tarvoctl::AddServe(app, command);
    tarvoctl::AddCall(app, command);
    tarvoctl::AddSend(app, command);
    tarvoctl::AddPing(app, command);
    tarvoctl::AddWait(app, command);
    tarvoctl::AddList(app, command);
    tarvoctl::AddWatch(app, command);
    tarvoctl::AddStat(app, command);
    tarvoctl::AddTop(app, command);
    tarvoctl::AddBench(app, command);
    tarvoctl::AddDecode(app, command);
    tarvoctl::AddDoctor(app, command);
    tarvoctl::AddSandbox(app, command);
    tarvoctl::AddInit(app, command);
    tarvoctl::AddClean(app, command);
    tarvoctl::AddHelp(app);
}

int Run(const Command &command) {
    if (command.become) {
        return command.become();
    }
    // The library's sends to a process that is gone, and our own writes into a closed pipe, are then failures to
    // report.
    std::signal(SIGPIPE, SIG_IGN);
    tarvoctl::ChooseColours(command.common.colour);
    if (command.common.log) {
        openlog("tarvoctl", LOG_PERROR, LOG_USER);
    }
    tarvoctl::Interrupt interrupt;
    int result = command.run(interrupt);
    if (!tarvoctl::FlushAnswer() && result == tarvoctl::EXIT_DONE) {
        result = tarvoctl::EXIT_FAILED;
    }
    return result;
}

int Main(int argc, char **argv) {
    Command command;
    const tarvoctl::ProgramTexts texts{"tarvoctl", "Looks into a running system of tarvo processes and talks to them.",
                                       "tarvoctl " TARVO_VERSION, FOOTER};
    switch (ParseCommandLine(
        argc, argv, texts, [&](CommandLine &line) { Declare(line, command); }, command.rest)) {
    case Parsed::WRONG:
        return tarvoctl::EXIT_USAGE;
    case Parsed::DONE:
        return tarvoctl::EXIT_DONE;
    case Parsed::RUN:
        break;
    }
    return Run(command);
}

} // namespace

int main(int argc, char **argv) {
    try {
        return Main(argc, argv);
    } catch (const std::bad_alloc &) {
        std::fputs("tarvoctl: out of memory\n", stderr);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tarvoctl: %s\n", error.what());
    }
    return tarvoctl::EXIT_FAILED;
}
