#include "bench/Machine.h"

#include <sched.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <fstream>

namespace tarvoctl {
namespace {

std::string FirstLine(const std::string &path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// The line of the architecture at hand: x86 names a model, Arm the numbers of its maker and part.
std::string ProcessorText() {
    std::ifstream file("/proc/cpuinfo");
    std::string text;
    for (std::string line; std::getline(file, line) && !line.empty();) {
        for (const char *key : {"model name", "CPU implementer", "CPU part"}) {
            const std::size_t colon = line.find(": ");
            if (line.rfind(key, 0) == 0 && colon != std::string::npos) {
                text += (text.empty() ? "" : " ") + line.substr(colon + 2);
            }
        }
    }
    return text;
}

} // namespace

Machine DescribeMachine() {
    Machine machine;
    utsname names{};
    if (uname(&names) == 0) {
        machine.kernel = std::string(names.sysname) + " " + names.release + " " + names.machine;
    }
    machine.processor = ProcessorText();
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof(allowed), &allowed) == 0) {
        machine.processors = static_cast<unsigned>(CPU_COUNT(&allowed));
    }
    machine.governor = FirstLine("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor");
    if (getloadavg(&machine.load, 1) != 1) {
        machine.load = 0;
    }
    return machine;
}

} // namespace tarvoctl
