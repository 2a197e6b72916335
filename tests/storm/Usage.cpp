#include "storm/Usage.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace storm {

long CountEntries(pid_t pid, const char *what) {
    std::error_code error;
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/" + what, error);
    return static_cast<long>(std::distance(begin(entries), end(entries)));
}

long ResidentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/statm");
    long size = 0;
    long resident = 0;
    status >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

} // namespace storm
