#ifndef TARVO_STORM_USAGE_H
#define TARVO_STORM_USAGE_H

#include <sys/types.h>

namespace storm {

// Entries of a folder of a process in /proc, such as "fd" and "task"; 0 for a process that has gone.
long CountEntries(pid_t pid, const char *what);

// The memory of a process that is in use; nothing for one that has gone.
struct Resident {
    long Total() const { return ownKiB + fileKiB; }

    long ownKiB = 0;  // anonymous and shared memory: what a leak adds to
    long fileKiB = 0; // pages of programs and libraries, each of them at most once: the kernel takes them back
};
Resident ResidentOf(pid_t pid);

} // namespace storm

#endif // TARVO_STORM_USAGE_H
