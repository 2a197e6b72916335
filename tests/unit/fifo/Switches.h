// What the build or the machine decides elsewhere: the test program defines IsAuthEnabled, EnvManager::HostName and
// GetSelinuxConByVornCon in front of the library's.
#ifndef TARVO_UNIT_FIFO_SWITCHES_H
#define TARVO_UNIT_FIFO_SWITCHES_H

#include <optional>

namespace tarvo_test {

struct Switches {
    int authEnabled = 1;
    int hostName = 1;
    // What the conversion yields, without a context, when it is not made.
    std::optional<int> conversion;
};

Switches &TheSwitches();

} // namespace tarvo_test

#endif // TARVO_UNIT_FIFO_SWITCHES_H
