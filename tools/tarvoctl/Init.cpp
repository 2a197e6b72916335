// tarvoctl init: makes the FIFO directory and that of the statistics.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "base/UniqueFd.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/FifoFiles.h"
#include "shared/Ids.h"
#include "shared/Output.h"
#include "stats/Readings.h"

namespace tarvoctl {
namespace {

constexpr mode_t PARENT_MODE = 0755;
// Until group and mode are right, nobody else gets in.
constexpr mode_t PRIVATE_MODE = 0700;

struct InitOptions {
    std::string directory;
    std::string statsDirectory;
    bool noStats = false;
    std::string group = "tarvo";
    std::string mode = "2770";
    bool dryRun = false;
    bool json = false;
};

// What was found and done.
struct Outcome {
    bool created = false;
    bool groupChanged = false;
    bool modeChanged = false;
};

bool ParseMode(const std::string &text, mode_t &mode) {
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, mode, 8);
    return parsed.ec == std::errc() && parsed.ptr == end && mode <= 07777;
}

int Complain(const std::string &path) {
    Diagnose("{}: {}", path, std::strerror(errno));
    return EXIT_FAILED;
}

// Makes the folders above `path` that are missing.
int MakeParents(const std::string &path, bool dryRun) {
    for (std::size_t at = path.find('/', 1); at != std::string::npos && !dryRun; at = path.find('/', at + 1)) {
        const std::string parent = path.substr(0, at);
        if (mkdir(parent.c_str(), PRIVATE_MODE) == 0) {
            // Whatever the umask: everybody must be able to pass.
            if (chmod(parent.c_str(), PARENT_MODE) != 0) {
                return Complain(parent);
            }
        } else if (errno != EEXIST) {
            return Complain(parent);
        }
    }
    return EXIT_DONE;
}

// Gives the directory behind `fd` what it lacks. Links were not followed, so it is the one that was looked at.
int Adjust(const InitOptions &options, const std::string &path, int fd, gid_t group, mode_t mode, Outcome &outcome) {
    struct stat state {};
    if (fstat(fd, &state) != 0) {
        return Complain(path);
    }
    outcome.groupChanged = state.st_gid != group;
    outcome.modeChanged = (state.st_mode & 07777U) != mode;
    if (options.dryRun) {
        return EXIT_DONE;
    }
    if (outcome.groupChanged && fchown(fd, static_cast<uid_t>(-1), group) != 0) {
        return Complain(path);
    }
    // After the group, whose change may clear the set-group-id bit.
    if ((outcome.groupChanged || outcome.modeChanged) && fchmod(fd, mode) != 0) {
        return Complain(path);
    }
    return EXIT_DONE;
}

void Print(const InitOptions &options, const std::string &path, mode_t mode, const Outcome &outcome) {
    const bool changed = outcome.groupChanged || outcome.modeChanged;
    if (options.json) {
        PutJson({{"directory", path},
                 {"group", options.group},
                 {"mode", fmt::format("{:04o}", mode)},
                 {"dry_run", options.dryRun},
                 {"created", outcome.created},
                 {"group_changed", !outcome.created && outcome.groupChanged},
                 {"mode_changed", !outcome.created && outcome.modeChanged}});
        return;
    }
    const char *done = outcome.created ? "created" : changed ? "changed" : "unchanged";
    Put(fmt::format("{}{} {}: group {}, mode {}\n", options.dryRun && (outcome.created || changed) ? "would be " : "",
                    done, path, options.group, fmt::format("{:04o}", mode)));
}

int Make(const InitOptions &options, const std::string &path, gid_t group, mode_t mode) {
    Outcome outcome;
    struct stat state {};
    outcome.created = lstat(path.c_str(), &state) != 0;
    int status = MakeParents(path, options.dryRun);
    if (status == EXIT_DONE && outcome.created && !options.dryRun && mkdir(path.c_str(), PRIVATE_MODE) != 0) {
        status = Complain(path);
    }
    if (status == EXIT_DONE && !(outcome.created && options.dryRun)) {
        const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        status = fd.Get() < 0 ? Complain(path) : Adjust(options, path, fd.Get(), group, mode, outcome);
    }
    if (status == EXIT_DONE) {
        Print(options, path, mode, outcome);
    }
    return status;
}

std::string WithoutSlash(const std::string &directory) {
    std::string path = WithSlash(directory);
    path.pop_back();
    return path;
}

int RunInit(const InitOptions &options) {
    mode_t mode = 0;
    if (!ParseMode(options.mode, mode)) {
        Diagnose("'{}' is no mode: up to four octal digits", options.mode);
        return EXIT_USAGE;
    }
    const std::optional<gid_t> group = GroupOf(options.group);
    if (!group) {
        Diagnose("there is no group '{0}': 'groupadd --system {0}' makes it, --group names another", options.group);
        return EXIT_USAGE;
    }
    const int status = Make(options, WithoutSlash(options.directory), *group, mode);
    const std::string stats = StatsDirectoryBeside(options.directory, options.statsDirectory);
    if (status != EXIT_DONE || options.noStats || stats.empty()) {
        return status;
    }
    // The sticky bit besides: nobody has a reason to remove another's file.
    return Make(options, WithoutSlash(stats), *group, mode | S_ISVTX);
}

} // namespace

void AddInit(CommandLine &app, Command &command) {
    auto options = std::make_shared<InitOptions>();
    CommandLine sub =
        AddSubcommand(app, command, "init", "Make the FIFO directory and that of the statistics, with group and mode",
                      "0 the directories are as asked for; 1 one could not be made so; 2 wrong usage.\n"
                      "Shared memory is empty after a restart: a tmpfiles.d entry makes them at every start.\n"
                      "Processes count from their start on where they find the directory of the statistics then.");
    AddDirectoryOption(sub, options->directory);
    sub.Add("--group", options->group, "Group whose members talk to each other").Type("GROUP").ShowDefault();
    sub.Add("--mode", options->mode, "Mode in octal digits; 1777 lets every user in, for development")
        .Type("MODE")
        .ShowDefault();
    AddStatsDirectoryOption(sub, options->statsDirectory);
    sub.Flag("--no-stats", options->noStats, "Make no directory of statistics, so that nothing is counted");
    sub.Flag("-n,--dry-run", options->dryRun, "Change nothing, and tell what would be done");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &) { return RunInit(*options); };
    });
}

} // namespace tarvoctl
