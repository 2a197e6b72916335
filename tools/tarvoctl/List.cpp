// tarvoctl list: servers and pipes, and who holds them.
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "shared/Bridges.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Inventory.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

struct ListOptions {
    std::string directory;
    bool json = false;
};

int RunList(const ListOptions &options) {
    const Inventory inventory = TakeInventory(options.directory);
    if (inventory.files.error != 0) {
        DiagnoseInventory(inventory);
        return EXIT_FAILED;
    }
    const Bridges bridges = FindBridges();
    if (options.json) {
        nlohmann::json all = InventoryJson(inventory);
        AddBridges(bridges, all);
        PutJson(all);
    } else {
        Put(InventoryText(inventory) + BridgesText(bridges));
    }
    DiagnoseInventory(inventory);
    return EXIT_DONE;
}

} // namespace

void AddList(CommandLine &app, Command &command) {
    auto options = std::make_shared<ListOptions>();
    CommandLine sub =
        AddSubcommand(app, command, "list", "Show servers and pipes, and the processes that hold them; opens no FIFO",
                      "0 listed, also when there is nothing; 1 no such directory; 2 wrong usage.\n"
                      "States: live; stopped, a server that a signal or a debugger holds up; half, a pipe of "
                      "which one side is missing; crossed, a pipe that both sides opened in server mode; stale, held "
                      "by nobody; unknown, when this user may not see every process.");
    AddDirectoryOption(sub, options->directory);
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &) { return RunList(*options); };
    });
}

} // namespace tarvoctl
