// Memory that the processes have locked.
#include <fmt/format.h>

#include <fstream>
#include <sstream>
#include <string>

#include "doctor/Checks.h"

namespace tarvoctl {
namespace {

// What threads get where the limit of stacks is "unlimited", on the architectures that the library runs on.
constexpr uint64_t UNLIMITED_STACK_KB = 2048;
constexpr uint64_t FEWEST_STACKS = 2;

// The stack that each new thread of a process gets, in kB; empty when the process is gone or not ours to look at.
std::optional<uint64_t> StackOf(pid_t pid) {
    std::ifstream limits(fmt::format("/proc/{}/limits", pid));
    const std::string name = "Max stack size";
    for (std::string line; std::getline(limits, line);) {
        if (line.rfind(name, 0) == 0) {
            std::istringstream rest(line.substr(name.size()));
            uint64_t bytes = 0;
            return rest >> bytes ? bytes / 1024 : UNLIMITED_STACK_KB;
        }
    }
    return std::nullopt;
}

// How many mappings of the size of a stack are locked and there in full, as mlockall without MCL_ONFAULT makes them.
uint64_t WholeStacks(pid_t pid, uint64_t stackKb) {
    std::ifstream mappings(fmt::format("/proc/{}/smaps", pid));
    uint64_t number = 0;
    uint64_t size = 0;
    for (std::string line; std::getline(mappings, line);) {
        std::istringstream words(line);
        std::string name;
        uint64_t kb = 0;
        if (!(words >> name >> kb)) {
            continue;
        }
        size = name == "Size:" ? kb : size;
        number += name == "Locked:" && size == stackKb && kb == size ? 1 : 0;
    }
    return number;
}

} // namespace

void CheckMemory(const Patient &patient, Findings &findings) {
    for (const Process &process : UsersOf(patient.inventory)) {
        const uint64_t stackKb = StackOf(process.pid).value_or(0);
        const uint64_t stacks = stackKb == 0 ? 0 : WholeStacks(process.pid, stackKb);
        if (stacks >= FEWEST_STACKS) {
            findings.push_back(
                {Level::WARNING, "memory",
                 fmt::format("process {} ({}) has locked the stacks of {} threads whole: {} MB, and {} kB more "
                             "with each pipe whose callbacks run",
                             process.pid, process.name, stacks, stacks * stackKb / 1024, stackKb),
                 "mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT), or smaller stacks: ulimit -s 256; LimitSTACK=256K "
                 "in "
                 "a systemd unit"});
        }
    }
}

} // namespace tarvoctl
