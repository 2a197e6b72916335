// tarvoctl doctor: looks for what keeps processes from talking, and tells what to do about it.
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "doctor/Checks.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "stats/Readings.h"

namespace tarvoctl {
namespace {

struct DoctorOptions {
    std::string directory;
    std::string statsDirectory;
    bool strict = false;
    bool json = false;
};

const char *LevelText(Level level) {
    switch (level) {
    case Level::OK:
        return "ok";
    case Level::NOTE:
        return "note";
    case Level::WARNING:
        return "warning";
    case Level::ERROR:
        break;
    }
    return "error";
}

Colour ColourOf(Level level) {
    switch (level) {
    case Level::OK:
        return Colour::GREEN;
    case Level::NOTE:
        return Colour::NONE;
    case Level::WARNING:
        return Colour::YELLOW;
    case Level::ERROR:
        break;
    }
    return Colour::RED;
}

void Print(const DoctorOptions &options, const Findings &findings, Level worst) {
    nlohmann::json list = nlohmann::json::array();
    for (const Finding &finding : findings) {
        if (options.json) {
            list.push_back({{"check", finding.check},
                            {"level", LevelText(finding.level)},
                            {"finding", finding.text},
                            {"remedy", finding.remedy.empty() ? nlohmann::json() : nlohmann::json(finding.remedy)}});
            continue;
        }
        const std::string level = LevelText(finding.level);
        Put(fmt::format("{}{} {:<12} {}\n", Painted(ColourOf(finding.level), level), std::string(8 - level.size(), ' '),
                        finding.check, finding.text));
        if (!finding.remedy.empty()) {
            Put(fmt::format("{:22}-> {}\n", "", finding.remedy));
        }
    }
    if (options.json) {
        PutJson({{"directory", options.directory}, {"worst", LevelText(worst)}, {"findings", list}});
    }
}

int RunDoctor(const DoctorOptions &options) {
    const Patient patient = {TakeInventory(options.directory)};
    Findings findings;
    CheckDirectory(patient, findings);
    CheckFiles(patient, findings);
    CheckPipes(patient, findings);
    CheckProcesses(patient, findings);
    CheckMemory(patient, findings);
    CheckPipeLimits(patient, findings);
    CheckProcessLimits(findings);
    CheckScheduling(findings);
    CheckLabels(findings);
    CheckLog(findings);
    CheckStats(StatsDirectoryBeside(options.directory, options.statsDirectory), findings);
    CheckBridges(findings);
    Level worst = Level::OK;
    for (const Finding &finding : findings) {
        worst = std::max(worst, finding.level);
    }
    Print(options, findings, worst);
    return worst >= (options.strict ? Level::WARNING : Level::ERROR) ? EXIT_FINDINGS : EXIT_DONE;
}

} // namespace

void AddDoctor(CommandLine &app, Command &command) {
    auto options = std::make_shared<DoctorOptions>();
    CommandLine sub = AddSubcommand(
        app, command, "doctor", "Look for what keeps processes from talking, and tell the remedy; opens no FIFO",
        "0 nothing that keeps them from talking; 2 wrong usage; 5 an error was found, or with "
        "--strict a warning. Limits are those of this user and session.");
    AddDirectoryOption(sub, options->directory);
    AddStatsDirectoryOption(sub, options->statsDirectory);
    sub.Flag("--strict", options->strict, "Warnings count as errors for the exit status");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &) { return RunDoctor(*options); };
    });
}

} // namespace tarvoctl
