#ifndef TARVO_TARVOCTL_MACHINE_H
#define TARVO_TARVOCTL_MACHINE_H

#include <string>

namespace tarvoctl {

// What a figure depends on besides the program.
struct Machine {
    std::string kernel; // name, release and architecture
    std::string processor;
    unsigned processors = 0; // that this process may use
    std::string governor;    // of the clock rate; empty when the kernel does not tell
    double load = 0;         // average of the last minute
};

Machine DescribeMachine();

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_MACHINE_H
