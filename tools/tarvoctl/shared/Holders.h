// Which processes hold which FIFOs, told from /proc alone.
#ifndef TARVO_TARVOCTL_HOLDERS_H
#define TARVO_TARVOCTL_HOLDERS_H

#include <sys/types.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "shared/FifoFiles.h"

namespace tarvoctl {

struct Process {
    pid_t pid = 0;
    std::string name;
    uid_t user = 0;
    std::string label;          // security context; empty when there is none
    bool ignoresSigpipe = true; // or handles it, or has it blocked in each thread
    bool stopped = false;       // by a signal or a debugger: it answers nothing
};

// Empty when there is no such process (any more).
std::optional<Process> DescribeProcess(pid_t pid);

// Whether there may be processes that this one does not see.
bool IsInPidNamespace();
// The process id that the process knows itself by: in a container another than here.
pid_t OwnPidOf(pid_t pid);

// Files under flock(2), and by whom, as far as this process sees that.
using Locks = std::map<FileId, pid_t>;
Locks FindLocks();

// One process that has a FIFO open.
struct Holder {
    pid_t pid = 0;
    bool reads = false;
    bool writes = false;
};

// A FIFO that is open, but has no name any more: nobody can reach its holder through it.
struct NamelessFifo {
    std::string path; // the name that it had
    FileId id;
    Holder holder;
};

struct Holders {
    std::map<FileId, std::vector<Holder>> fifos;
    std::vector<NamelessFifo> nameless;
    // The processes that hold any of them.
    std::map<pid_t, Process> processes;
    // FIFOs under flock(2), as a server holds its own, and by whom.
    Locks locked;
    // Processes whose descriptors this user may not see.
    std::size_t hidden = 0;
    // Processes outside of this process's pid namespace cannot be seen at all.
    bool ownNamespace = false;

    std::vector<Holder> Of(const FileId &id) const;
    bool IsStopped(pid_t pid) const;
    // Whether every process of the machine was looked at.
    bool Complete() const { return hidden == 0 && !ownNamespace; }
};

// Looks at every process for FIFOs of the file system that `directory` is on.
Holders FindHolders(const std::string &directory);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_HOLDERS_H
