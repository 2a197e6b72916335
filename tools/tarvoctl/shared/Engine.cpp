#include "shared/Engine.h"

#include "shared/Output.h"

namespace tarvoctl {

bool LoopHasPriority(const std::string &priority) {
    if (priority == "normal") {
        return true;
    }
    Diagnose(
        "--priority {} is for the engine 'threads'; a loop has the priority of its process: chrt -f 50 tarvoctl ...",
        priority);
    return false;
}

} // namespace tarvoctl
