#include "storm/Usage.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace storm {

long CountEntries(pid_t pid, const char *what) {
    std::error_code error;
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/" + what, error);
    return static_cast<long>(std::distance(begin(entries), end(entries)));
}

Resident ResidentOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    Resident found;
    std::string line;
    while (std::getline(status, line)) {
        std::istringstream words(line);
        std::string name;
        long kib = 0;
        words >> name >> kib;
        if (name == "RssAnon:" || name == "RssShmem:") {
            found.ownKiB += kib;
        } else if (name == "RssFile:") {
            found.fileKiB = kib;
        }
    }
    return found;
}

} // namespace storm
