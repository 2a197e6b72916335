// tarvoctl clean: removes the FIFO files that no process holds.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "shared/Command.h"
#include "shared/Duration.h"
#include "shared/ExitCode.h"
#include "shared/Inventory.h"
#include "shared/Output.h"
#include "stats/DeadFiles.h"
#include "stats/Readings.h"

namespace tarvoctl {
namespace {

struct CleanOptions {
    std::string directory;
    std::string statsDirectory;
    bool stats = false;
    bool remove = false;
    Duration minAge{std::chrono::seconds(10)};
    bool trustNamespace = false;
    bool json = false;
};

enum class Action { REMOVE, KEEP, FAIL };

// What is to happen, or has happened, to one file.
struct Verdict {
    FifoFile file;
    Action action = Action::KEEP;
    std::string reason;
    std::string aside; // its name while it is being removed
};

constexpr char HIDDEN_REASON[] = "this user may not see every process (run it as root)";
constexpr char NAMESPACE_REASON[] = "processes outside of this pid namespace cannot be seen (--this-namespace)";

Verdict Judge(const CleanOptions &options, const Inventory &inventory, const FifoFile &file, State state) {
    Verdict verdict;
    verdict.file = file;
    if (state == State::UNKNOWN) {
        verdict.reason = inventory.holders.hidden > 0 ? HIDDEN_REASON : NAMESPACE_REASON;
    } else if (state != State::STALE) {
        verdict.reason = "in use";
    } else if (std::time(nullptr) - file.changed < options.minAge.value.count() / 1000000) {
        // Between the making of a FIFO and its opening, nobody holds it.
        verdict.reason = "too young to be sure (--min-age)";
    } else {
        verdict.action = Action::REMOVE;
        verdict.reason = "no process holds it";
    }
    return verdict;
}

std::vector<Verdict> JudgeAll(const CleanOptions &options, const Inventory &inventory) {
    std::vector<Verdict> verdicts;
    for (const Server &server : inventory.servers) {
        verdicts.push_back(Judge(options, inventory, server.file, server.state));
    }
    // Both files of a pipe share its state: while a side waits for the other, nobody holds one of the two.
    for (const PipeEntry &pipe : inventory.pipes) {
        for (const auto &file : {pipe.fromFirst, pipe.fromSecond}) {
            if (file) {
                verdicts.push_back(Judge(options, inventory, *file, pipe.state));
            }
        }
    }
    return verdicts;
}

void Fail(Verdict &verdict, int error) {
    verdict.action = Action::FAIL;
    verdict.reason = std::strerror(error);
}

// When files were changed last by us, who set another name of theirs aside: a maker that was killed while it published
// a FIFO leaves two.
using OwnChanges = std::map<FileId, std::time_t>;

// Takes the file out of the way, so that nobody opens it any more while we look for holders for the last time.
void SetAside(const std::string &directory, Verdict &verdict, std::size_t number, OwnChanges &ownChanges) {
    const auto own = ownChanges.find(verdict.file.id);
    const std::time_t expected = own == ownChanges.end() ? verdict.file.changed : own->second;
    FifoFile now;
    if (!DescribeFile(directory, verdict.file.name, now) || !(now.id == verdict.file.id) || now.changed != expected) {
        verdict.action = Action::KEEP;
        verdict.reason = "changed meanwhile";
        return;
    }
    const std::string name = fmt::format(".clean_{}_{}", getpid(), number);
    if (rename((directory + verdict.file.name).c_str(), (directory + name).c_str()) != 0) {
        Fail(verdict, errno);
        return;
    }
    verdict.aside = directory + name;
    if (DescribeFile(directory, name, now)) {
        ownChanges[now.id] = now.changed;
    }
}

// Removes what was set aside, or puts it back when somebody holds it after all. A file that has appeared under the name
// meanwhile stays.
void Finish(const std::string &directory, const Holders &holders, Verdict &verdict) {
    const bool held = !holders.Of(verdict.file.id).empty() || holders.locked.count(verdict.file.id) != 0;
    const bool backInPlace = held && link(verdict.aside.c_str(), (directory + verdict.file.name).c_str()) == 0;
    if (held) {
        verdict.action = Action::KEEP;
        verdict.reason = backInPlace ? "in use" : "in use, but its name was taken meanwhile";
    }
    if (unlink(verdict.aside.c_str()) != 0) {
        Fail(verdict, errno);
    }
}

void Remove(const Inventory &inventory, std::vector<Verdict> &verdicts) {
    std::size_t number = 0;
    OwnChanges ownChanges;
    for (Verdict &verdict : verdicts) {
        if (verdict.action == Action::REMOVE) {
            SetAside(inventory.directory, verdict, ++number, ownChanges);
        }
    }
    const Holders holders = FindHolders(inventory.directory);
    for (Verdict &verdict : verdicts) {
        if (!verdict.aside.empty()) {
            Finish(inventory.directory, holders, verdict);
        }
    }
}

const char *ActionText(const CleanOptions &options, Action action) {
    if (action == Action::REMOVE) {
        return options.remove ? "removed" : "would remove";
    }
    return action == Action::KEEP ? "kept" : "failed";
}

// What is told of a file, whatever it was for.
struct Told {
    std::string path;
    Action action;
    std::string reason;
    bool inUse; // nothing to tell people about
};

Action ActionOf(const DeadFile &file) {
    switch (file.action) {
    case DeadFile::Action::REMOVE:
        return Action::REMOVE;
    case DeadFile::Action::KEEP:
        return Action::KEEP;
    default:
        return Action::FAIL;
    }
}

// Cleans the statistics when that is asked for, and adds what became of each file. False when they cannot be listed.
bool CleanStats(const CleanOptions &options, std::vector<Told> &told) {
    const std::string directory = StatsDirectoryBeside(options.directory, options.statsDirectory);
    if (!options.stats) {
        return true;
    }
    std::vector<DeadFile> files;
    const auto minAge = std::chrono::duration_cast<std::chrono::seconds>(options.minAge.value);
    const int error = CleanDeadFiles(directory, options.remove, minAge, files);
    for (const DeadFile &file : files) {
        told.push_back({file.path, ActionOf(file), file.reason, file.reason == "its process lives"});
    }
    if (error != 0 && error != -ENOENT) {
        Diagnose("{}: {}", directory, std::strerror(-error));
        return false;
    }
    return true;
}

void Print(const CleanOptions &options, const std::string &directory, const std::vector<Told> &files) {
    nlohmann::json list = nlohmann::json::array();
    for (const Told &file : files) {
        const char *action = ActionText(options, file.action);
        if (options.json) {
            list.push_back({{"path", file.path}, {"action", action}, {"reason", file.reason}});
        } else if (!file.inUse) {
            Put(fmt::format("{} {}: {}\n", action, file.path, file.reason));
        }
    }
    if (options.json) {
        PutJson({{"directory", directory}, {"dry_run", !options.remove}, {"files", list}});
    }
}

int RunClean(const CleanOptions &options) {
    if (options.stats && StatsDirectoryBeside(options.directory, options.statsDirectory).empty()) {
        Diagnose("--stats with a --directory of your own: --stats-directory names that of the statistics");
        return EXIT_USAGE;
    }
    const Inventory inventory = TakeInventory(options.directory, options.trustNamespace);
    if (inventory.files.error != 0) {
        DiagnoseInventory(inventory);
        return EXIT_FAILED;
    }
    std::vector<Verdict> verdicts = JudgeAll(options, inventory);
    if (options.remove) {
        Remove(inventory, verdicts);
    }
    std::vector<Told> files;
    for (const Verdict &verdict : verdicts) {
        files.push_back(
            {inventory.directory + verdict.file.name, verdict.action, verdict.reason, verdict.reason == "in use"});
    }
    bool failed = !CleanStats(options, files);
    Print(options, inventory.directory, files);
    bool toRemove = false;
    for (const Told &file : files) {
        toRemove = toRemove || file.action == Action::REMOVE;
        failed = failed || file.action == Action::FAIL;
    }
    if (toRemove && !options.remove && !options.json) {
        Diagnose("nothing was removed; --yes removes them");
    }
    return failed ? EXIT_FAILED : EXIT_DONE;
}

} // namespace

void AddClean(CommandLine &app, Command &command) {
    auto options = std::make_shared<CleanOptions>();
    CommandLine sub =
        AddSubcommand(app, command, "clean", "Show the FIFO files that no process holds, and remove them with --yes",
                      "0 done; 1 a file could not be removed, or no such directory; 2 wrong usage.");
    AddDirectoryOption(sub, options->directory);
    sub.Flag("--stats", options->stats, "Statistics files of processes that have ended, too");
    AddStatsDirectoryOption(sub, options->statsDirectory);
    sub.Flag("-y,--yes", options->remove, "Remove them; without it nothing is changed");
    sub.Add("--min-age", options->minAge, "Keep files that have changed within this time (10s)");
    sub.Flag("--this-namespace", options->trustNamespace,
             "All users of the directory are in this pid namespace (as in a container that shares it with nobody)");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &) { return RunClean(*options); };
    });
}

} // namespace tarvoctl
