// What the subcommands have in common: how they are declared and which options each of them takes.
#ifndef TARVO_TARVOCTL_COMMAND_H
#define TARVO_TARVOCTL_COMMAND_H

#include <functional>
#include <string>
#include <vector>

#include "shared/CommandLine.h"
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
    // The words that the subcommand leaves for the command that it runs.
    std::vector<std::string> rest;
    // Set by the subcommand that was named; its result is the exit status.
    std::function<int(Interrupt &)> run;
    // Set instead by one that becomes another program: nothing of this process, such as threads or blocked signals,
    // must be there before it.
    std::function<int()> become;
};

// Declares a subcommand with --json, --log and --color. `exits` is the part of its help about the exit status.
CommandLine AddSubcommand(CommandLine &app, Command &command, const std::string &name, const std::string &text,
                          const std::string &exits);
// --directory, for the subcommands that look at files only. The default is where the library has them.
void AddDirectoryOption(CommandLine &sub, std::string &directory);

// Shows what --help shows; the command line is read so.
void AddHelp(CommandLine &app);
void AddServe(CommandLine &app, Command &command);
void AddCall(CommandLine &app, Command &command);
void AddSend(CommandLine &app, Command &command);
void AddPing(CommandLine &app, Command &command);
void AddSandbox(CommandLine &app, Command &command);
void AddWait(CommandLine &app, Command &command);
void AddList(CommandLine &app, Command &command);
void AddWatch(CommandLine &app, Command &command);
void AddStat(CommandLine &app, Command &command);
void AddTop(CommandLine &app, Command &command);
void AddBench(CommandLine &app, Command &command);
void AddDecode(CommandLine &app, Command &command);
void AddDoctor(CommandLine &app, Command &command);
void AddInit(CommandLine &app, Command &command);
void AddClean(CommandLine &app, Command &command);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_COMMAND_H
