// tarvoctl watch: the list again and again.
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "shared/Command.h"
#include "shared/Duration.h"
#include "shared/ExitCode.h"
#include "shared/Inventory.h"
#include "shared/Output.h"
#include "watch/Picture.h"

namespace tarvoctl {
namespace {

struct WatchOptions {
    std::string directory;
    Duration interval{std::chrono::seconds(2)};
    uint64_t count = 0; // 0: until interrupted
    bool json = false;
};

std::string TimeText() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return fmt::format("{:02}:{:02}:{:02}", local.tm_hour, local.tm_min, local.tm_sec);
}

void Show(const WatchOptions &options) {
    const Inventory inventory = TakeInventory(options.directory);
    if (options.json) {
        nlohmann::json json = InventoryJson(inventory);
        json["time"] = std::time(nullptr);
        PutJson(json);
        return;
    }
    const std::string state = inventory.files.error != 0 ? fmt::format("{}\n", std::strerror(inventory.files.error))
                                                         : InventoryText(inventory);
    const std::string text = fmt::format("{} {}\n\n{}", TimeText(), inventory.directory, state);
    // Looked at each time: windows change.
    Put(isatty(STDOUT_FILENO) == 1 ? Picture(text, WindowOf(STDOUT_FILENO)) : text + "\n");
}

int RunWatch(const WatchOptions &options, const Interrupt &interrupt) {
    for (uint64_t shown = 1;; ++shown) {
        Show(options);
        if (!FlushAnswer()) {
            return EXIT_FAILED;
        }
        if (shown == options.count || interrupt.WaitFor(options.interval.value)) {
            Put(isatty(STDOUT_FILENO) == 1 && !options.json ? "\n" : "");
            return EXIT_DONE;
        }
    }
}

} // namespace

void AddWatch(CommandLine &app, Command &command) {
    auto options = std::make_shared<WatchOptions>();
    CommandLine sub = AddSubcommand(app, command, "watch", "Show the list again and again until Ctrl-C; opens no FIFO",
                                    "0 ended by Ctrl-C or --count; 1 cannot be shown; 2 wrong usage.");
    AddDirectoryOption(sub, options->directory);
    sub.Add("-i,--interval", options->interval, "Time between two lists (2s)");
    sub.Add("-c,--count", options->count, "End after so many lists").AtLeastOne().Type("N");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunWatch(*options, interrupt); };
    });
}

} // namespace tarvoctl
