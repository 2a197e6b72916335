#ifndef TARVO_TARVOCTL_KEYS_H
#define TARVO_TARVOCTL_KEYS_H

#include <termios.h>

#include <chrono>
#include <string>

#include "shared/Interrupt.h"

namespace tarvoctl {

// The keys of a terminal, each as it is pressed.
// Owns: the terminal's mode, if standard input and output are one; there are no keys otherwise. Threads: one. Locks:
// none. Ends: gives the terminal its former mode back.
class Keys {
public:
    Keys();
    ~Keys();
    Keys(const Keys &) = delete;
    Keys &operator=(const Keys &) = delete;

    bool Available() const { return available; }
    // What was pressed within that time; empty when it is over or an interrupt came.
    std::string Await(std::chrono::microseconds time, const Interrupt &interrupt);

private:
    bool available = false;
    termios former{};
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_KEYS_H
