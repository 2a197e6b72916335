// A FIFO directory that only this process and its children see.
#ifndef TARVO_TARVOCTL_NAMESPACES_H
#define TARVO_TARVOCTL_NAMESPACES_H

#include <string>

namespace tarvoctl {

// Gives the process a shared memory of its own, with an empty FIFO directory in it that every user may use, as on a
// development machine. Who has no right to mount gets it in a user namespace, where his user and group stay what they
// are. Only while the process has one thread. Empty, or what has failed.
std::string EnterOwnDirectory(const std::string &directory);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_NAMESPACES_H
