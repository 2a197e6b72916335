// What the subcommands have in common: how they are declared and which options each of them takes.
#ifndef TARVO_TARVOCTL_COMMAND_H
#define TARVO_TARVOCTL_COMMAND_H

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

#include "shared/Interrupt.h"

namespace tarvoctl {

struct CommonOptions {
    bool json = false;
    bool log = false;
    std::string colour = "auto";
};

// What the command line asks for.
struct Command {
    CommonOptions common;
    // Set by the subcommand that was named; its result is the exit status.
    std::function<int(Interrupt &)> run;
};

// Declares a subcommand with --json, --log and --color. `exits` is the part of its help about the exit status.
CLI::App *AddSubcommand(CLI::App &app, Command &command, const std::string &name, const std::string &text,
                        const std::string &exits);
// --directory, for the subcommands that look at files only. The default is where the library has them.
void AddDirectoryOption(CLI::App &sub, std::string &directory);

void AddServe(CLI::App &app, Command &command);
void AddCall(CLI::App &app, Command &command);
void AddSend(CLI::App &app, Command &command);
void AddPing(CLI::App &app, Command &command);
void AddList(CLI::App &app, Command &command);
void AddWatch(CLI::App &app, Command &command);
void AddBench(CLI::App &app, Command &command);
void AddDecode(CLI::App &app, Command &command);
void AddDoctor(CLI::App &app, Command &command);
void AddInit(CLI::App &app, Command &command);
void AddClean(CLI::App &app, Command &command);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_COMMAND_H
