#ifndef TARVO_STORM_USAGE_H
#define TARVO_STORM_USAGE_H

#include <sys/types.h>

namespace storm {

// Entries of a folder of a process in /proc, such as "fd" and "task"; 0 for a process that has gone.
long CountEntries(pid_t pid, const char *what);

// The memory of a process that is in use; 0 for one that has gone.
long ResidentKiB(pid_t pid);

} // namespace storm

#endif // TARVO_STORM_USAGE_H
