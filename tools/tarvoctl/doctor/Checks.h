// The examinations of tarvoctl doctor. Each adds what it finds, also that all is well.
#ifndef TARVO_TARVOCTL_CHECKS_H
#define TARVO_TARVOCTL_CHECKS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shared/Inventory.h"

namespace tarvoctl {

enum class Level {
    OK,
    NOTE,    // good to know
    WARNING, // works now, and may not always
    ERROR,   // processes cannot talk
};

struct Finding {
    Level level;
    std::string check;
    std::string text;
    std::string remedy; // empty where there is nothing to do
};
using Findings = std::vector<Finding>;

struct Patient {
    Inventory inventory;
};

// Existence, access, group, mode, space.
void CheckDirectory(const Patient &patient, Findings &findings);
// Stale and foreign files, modes.
void CheckFiles(const Patient &patient, Findings &findings);
// Pipes that can never carry anything.
void CheckPipes(const Patient &patient, Findings &findings);
// The holders: servers that nobody reaches, processes that are stopped or that a lost peer would end.
void CheckProcesses(const Patient &patient, Findings &findings);
// Memory that the holders have locked for nothing.
void CheckMemory(const Patient &patient, Findings &findings);
// What the kernel allows FIFOs to hold.
void CheckPipeLimits(const Patient &patient, Findings &findings);
// Descriptors and threads.
void CheckProcessLimits(Findings &findings);
// Real-time right.
void CheckScheduling(Findings &findings);
void CheckLabels(Findings &findings);
void CheckLog(Findings &findings);
// What processes have counted; nothing where no directory is given.
void CheckStats(const std::string &directory, Findings &findings);
// What goes to and from other machines.
void CheckBridges(Findings &findings);

// The number in a file of the kernel; empty when there is none.
std::optional<uint64_t> KernelNumber(const std::string &path);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_CHECKS_H
