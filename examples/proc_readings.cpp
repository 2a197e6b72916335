#include "proc_readings.h"

#include <fstream>

namespace {

// The value behind "key:" in a file of such lines, without the blanks around it; empty when it is not there.
std::string Field(const std::string &file, const std::string &key) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, key.size() + 1, key + ":") == 0) {
            const std::size_t start = line.find_first_not_of(" \t", key.size() + 1);
            return start == std::string::npos ? "" : line.substr(start);
        }
    }
    return "";
}

} // namespace

std::string ReadLoad() {
    std::string one;
    std::string five;
    std::string fifteen;
    std::string running;
    std::ifstream("/proc/loadavg") >> one >> five >> fifteen >> running;
    return "load " + one + " " + five + " " + fifteen + ", " + running + " threads run";
}

std::string ReadMemory() {
    return "memory " + Field("/proc/meminfo", "MemAvailable") + " of " + Field("/proc/meminfo", "MemTotal") + " free";
}

std::string ReadProcess(int pid) {
    const std::string directory = "/proc/" + std::to_string(pid);
    const std::string name = Field(directory + "/status", "Name");
    if (name.empty()) {
        return "error no process " + std::to_string(pid);
    }
    return "process " + std::to_string(pid) + " " + name + ": " + Field(directory + "/status", "VmRSS") +
           " resident, " + Field(directory + "/status", "Threads") + " threads, " +
           Field(directory + "/status", "voluntary_ctxt_switches") + " waits";
}
