// What the build decides elsewhere: the test program defines IsAuthEnabled and EnvManager::HostName in front of the
// library's.
#ifndef TARVO_UNIT_FIFO_SWITCHES_H
#define TARVO_UNIT_FIFO_SWITCHES_H

namespace tarvo_test {

struct Switches {
    int authEnabled = 1;
    int hostName = 1;
};

Switches &TheSwitches();

} // namespace tarvo_test

#endif // TARVO_UNIT_FIFO_SWITCHES_H
