#include "stats/Readings.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "api/EnvManager.h"
#include "shared/FifoFiles.h"

namespace tarvoctl {

ProcessReading::ProcessReading(std::string fileName, TarvoStatsFile *statsFile)
    : name(std::move(fileName)), file(statsFile) {}

ProcessReading::~ProcessReading() {
    for (TarvoStatsReading &reading : readings) {
        TarvoStatsFree(&reading);
    }
    TarvoStatsClose(file);
}

int ProcessReading::Read() {
    const int result = TarvoStatsRead(file, &readings[1 - current]);
    if (result == 0) {
        current = 1 - current;
        count = count < 2 ? count + 1 : 2;
    }
    return result;
}

const TarvoStatsSlot *ProcessReading::Before(uint32_t index) const {
    const TarvoStatsReading &before = readings[1 - current];
    if (count < 2 || index >= before.slots || !TarvoStatsSame(&Now().slot[index], &before.slot[index])) {
        return nullptr;
    }
    return &before.slot[index];
}

uint32_t ProcessReading::LeftOpen() const {
    uint32_t open = 0;
    for (uint32_t index = 0; Now().alive == 0 && index < Now().slots; ++index) {
        const TarvoStatsSlot &slot = Now().slot[index];
        open += slot.kind == TARVO_STATS_PIPE && slot.state != TARVO_STATS_CLOSED ? 1U : 0U;
    }
    return open;
}

const char *ProcessReading::StateText() const { return Now().alive != 0 ? "alive" : LeftOpen() > 0 ? "died" : "ended"; }

double ProcessReading::Seconds() const {
    return count < 2 ? 0 : static_cast<double>(Now().readAt - readings[1 - current].readAt) / 1e9;
}

Readings::Readings(const std::string &statsDirectory) : directory(statsDirectory) {
    // A descriptor for each process: more than the 1024 that most users begin with.
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int Readings::Read() {
    problems.clear();
    for (auto &[name, entry] : entries) {
        entry.seen = false;
    }
    const int result = TarvoStatsEach(directory.c_str(), Each, this);
    for (auto entry = entries.begin(); entry != entries.end();) {
        entry = entry->second.seen ? std::next(entry) : entries.erase(entry);
    }
    return result;
}

int Readings::Each(void *context, int descriptor, const char *name) {
    static_cast<Readings *>(context)->ReadOne(descriptor, name);
    return 0;
}

void Readings::ReadOne(int descriptor, const char *name) {
    struct stat state {};
    if (fstatat(descriptor, name, &state, AT_SYMLINK_NOFOLLOW) != 0) {
        return; // gone meanwhile
    }
    Entry &entry = entries[name];
    int result = 0;
    if (!entry.reading || entry.device != state.st_dev || entry.inode != state.st_ino) {
        TarvoStatsFile *file = nullptr;
        result = TarvoStatsOpenAt(descriptor, name, &file);
        entry.reading.reset(result == 0 ? new ProcessReading(name, file) : nullptr);
        entry.device = state.st_dev;
        entry.inode = state.st_ino;
    }
    result = result == 0 ? entry.reading->Read() : result;
    entry.seen = result == 0;
    if (result != 0) {
        problems.push_back({name, result});
    }
}

std::vector<const ProcessReading *> Readings::Processes() const {
    std::vector<const ProcessReading *> processes;
    processes.reserve(entries.size());
    for (const auto &[name, entry] : entries) {
        processes.push_back(entry.reading.get());
    }
    return processes;
}

std::string ProblemText(int error) {
    switch (error) {
    case -EBADMSG:
        return "no statistics file, or a damaged one";
    case -EPROTONOSUPPORT:
        return "of another version than this program";
    case -ELOOP:
        return "a symbolic link";
    default:
        return std::strerror(-error);
    }
}

void AddStatsDirectoryOption(CommandLine &sub, std::string &statsDirectory) {
    sub.Add("--stats-directory", statsDirectory,
            std::string("Directory of statistics files to look at instead of ") + TARVO_STATS_DIRECTORY)
        .Type("DIR");
}

std::string StatsDirectoryBeside(const std::string &fifoDirectory, const std::string &named) {
    if (!named.empty()) {
        return named;
    }
    return WithSlash(fifoDirectory) == EnvManager::FifoPrefix() ? TARVO_STATS_DIRECTORY : "";
}

namespace {

// Bytes of the character that begins here; 0 when none does, or one that a terminal would act on.
std::size_t CharacterAt(const unsigned char *text) {
    if (*text < 0x80) {
        return *text >= 0x20 && *text < 0x7F ? 1 : 0;
    }
    const std::size_t size = *text >= 0xF0 && *text < 0xF5 ? 4 : *text >= 0xE0 ? 3 : 2;
    if (*text < 0xC3 || *text >= 0xF5) {
        return 0; // a continuation, an overlong form, or control codes of 8 bits
    }
    for (std::size_t i = 1; i < size; ++i) {
        if ((text[i] & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    // Overlong forms, surrogates, and what is beyond the last character.
    const bool wrong = (*text == 0xE0 && text[1] < 0xA0) || (*text == 0xED && text[1] > 0x9F) ||
                       (*text == 0xF0 && text[1] < 0x90) || (*text == 0xF4 && text[1] > 0x8F);
    return wrong ? 0 : size;
}

} // namespace

std::string Printable(const char *text) {
    std::string printable;
    const auto *at = reinterpret_cast<const unsigned char *>(text);
    while (*at != 0) {
        const std::size_t size = CharacterAt(at);
        if (size == 0) {
            printable += fmt::format("\\x{:02x}", *at++);
            continue;
        }
        printable.append(reinterpret_cast<const char *>(at), size);
        at += size;
    }
    return printable;
}

} // namespace tarvoctl
