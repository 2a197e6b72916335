#include "support/LeakCheck.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

#include "stats/StatsFile.h"
#include "support/Eventually.h"
#include "support/Names.h"

namespace tarvo_test {

namespace {

namespace fs = std::filesystem;

// By thread id, with their names.
std::map<int, std::string> Threads() {
    std::map<int, std::string> threads;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc/self/task", error)) {
        std::string name;
        std::ifstream(entry.path() / "comm") >> name;
        threads[std::stoi(entry.path().filename())] = name;
    }
    return threads;
}

std::set<std::string> Files() {
    const std::vector<std::string> names = OwnFifoFiles();
    return {names.begin(), names.end()};
}

// A sanitizer's runtime starts a thread of its own with the first thread of the program: have it before counting, and
// not that first one, which the kernel may still list for a moment when it has been joined.
void SettleRuntime() {
    static const bool settled = [] {
        pid_t id = 0;
        std::thread([&id] { id = gettid(); }).join();
        return Eventually([&id] { return access(("/proc/self/task/" + std::to_string(id)).c_str(), F_OK) != 0; });
    }();
    static_cast<void>(settled);
    if (std::getenv("TARVO_TEST_STATS") != nullptr) {
        StatsFile::Get(); // open as long as the process lives; a forked one has another
    }
}

std::map<std::string, std::string> ByName(const std::set<std::string> &names) {
    std::map<std::string, std::string> map;
    for (const std::string &name : names) {
        map[name] = name;
    }
    return map;
}

template <typename Key>
void Compare(const std::map<Key, std::string> &before, const std::map<Key, std::string> &after, const std::string &what,
             std::vector<std::string> &differences) {
    const auto report = [&](const char *verb, const auto &item) {
        std::ostringstream text;
        text << verb << " " << what << " " << item.first << " " << item.second;
        differences.push_back(text.str());
    };
    for (const auto &item : after) {
        if (before.count(item.first) == 0) {
            report("left behind:", item);
        }
    }
    for (const auto &item : before) {
        if (after.count(item.first) == 0) {
            report("gone:", item);
        }
    }
}

} // namespace

std::size_t ThreadCount() { return Threads().size(); }

std::map<int, std::string> OpenDescriptors() {
    std::map<int, std::string> found;
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        ADD_FAILURE() << "/proc/self/fd cannot be read";
        return found;
    }
    while (const dirent *entry = readdir(directory)) {
        char *end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || fd == dirfd(directory)) {
            continue;
        }
        std::error_code error;
        found[static_cast<int>(fd)] = fs::read_symlink(std::string("/proc/self/fd/") + entry->d_name, error);
    }
    closedir(directory);
    return found;
}

ScopedLeakCheck::ScopedLeakCheck(std::chrono::milliseconds limit) : patience(limit) {
    SettleRuntime();
    descriptors = OpenDescriptors();
    threads = Threads();
    files = Files();
}

std::vector<std::string> ScopedLeakCheck::Differences() const {
    std::vector<std::string> differences;
    // A thread that was joined just before the beginning may have been listed then: the kernel wakes the joiner before
    // it takes the thread off the list. Threads that are gone are therefore none of ours.
    std::map<int, std::string> remaining = Threads();
    std::map<int, std::string> known;
    for (const auto &[id, name] : threads) {
        if (remaining.count(id) != 0) {
            known[id] = name;
        }
    }
    Compare(known, remaining, "thread", differences);
    Compare(descriptors, OpenDescriptors(), "descriptor", differences);
    Compare(ByName(files), ByName(Files()), "file", differences);
    return differences;
}

std::vector<std::string> ScopedLeakCheck::Leaks() const {
    Eventually([this] { return Differences().empty(); }, patience);
    return Differences();
}

ScopedLeakCheck::~ScopedLeakCheck() {
    if (dismissed) {
        return;
    }
    for (const std::string &leak : Leaks()) {
        ADD_FAILURE() << leak;
    }
}

} // namespace tarvo_test
