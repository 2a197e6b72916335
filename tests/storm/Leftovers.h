// What a storm leaves in the FIFO directory.
#ifndef TARVO_STORM_LEFTOVERS_H
#define TARVO_STORM_LEFTOVERS_H

#include <string>
#include <vector>

namespace storm {

struct Leftovers {
    std::vector<std::string> servers;   // FIFOs of servers: stay by design, and the next start replaces them
    std::vector<std::string> pipes;     // FIFOs of pipes, both of whose ends were killed
    std::vector<std::string> temporary; // under the name that a FIFO has before it is published
};

// The files that carry this process's tag; `servers` are the names that were served.
Leftovers FindLeftovers(const std::vector<std::string> &servers);

} // namespace storm

#endif // TARVO_STORM_LEFTOVERS_H
