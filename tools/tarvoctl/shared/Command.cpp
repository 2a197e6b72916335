#include "shared/Command.h"

#include "api/EnvManager.h"

namespace tarvoctl {

CLI::App *AddSubcommand(CLI::App &app, Command &command, const std::string &name, const std::string &text,
                        const std::string &exits) {
    CLI::App *sub = app.add_subcommand(name, text);
    sub->add_flag("--json", command.common.json, "Answer in JSON, one value on each line");
    sub->add_flag("--log", command.common.log, "Show what the library writes to the system log on standard error too");
    sub->add_option("--color", command.common.colour, "Colours: auto (on a terminal only), always or never")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->type_name("WHEN");
    sub->footer("Exit status: " + exits);
    return sub;
}

void AddDirectoryOption(CLI::App &sub, std::string &directory) {
    directory = EnvManager::FifoPrefix();
    sub.add_option("--directory", directory, "FIFO directory to look at instead of " + directory)->type_name("DIR");
}

} // namespace tarvoctl
