#include "shared/Command.h"

#include <memory>

#include "api/EnvManager.h"

namespace tarvoctl {

CommandLine AddSubcommand(CommandLine &app, Command &command, const std::string &name, const std::string &text,
                          const std::string &exits) {
    CommandLine sub = app.Subcommand(name, text, "Exit status: " + exits);
    sub.Flag("--json", command.common.json, "Answer in JSON, one value on each line");
    sub.Flag("--log", command.common.log, "Show what the library writes to the system log on standard error too");
    sub.Add("--color", command.common.colour, "Colours: auto (on a terminal only), always or never")
        .OneOf({"auto", "always", "never"})
        .Type("WHEN");
    return sub;
}

void AddHelp(CommandLine &app) {
    CommandLine sub = app.Subcommand("help", "Show the subcommands, or the options of one",
                                     "Exit status: 0 shown; "
                                     "2 there is no such subcommand.");
    auto verb = std::make_shared<std::string>();
    sub.Add("VERB", *verb, "The subcommand");
    sub.WhenNamed([verb] {}); // keeps it
}

void AddDirectoryOption(CommandLine &sub, std::string &directory) {
    directory = EnvManager::FifoPrefix();
    sub.Add("--directory", directory, "FIFO directory to look at instead of " + directory).Type("DIR");
}

} // namespace tarvoctl
