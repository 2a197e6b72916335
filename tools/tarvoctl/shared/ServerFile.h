#ifndef TARVO_TARVOCTL_SERVERFILE_H
#define TARVO_TARVOCTL_SERVERFILE_H

#include <string>

#include "shared/FifoFiles.h"

namespace tarvoctl {

// The FIFO of a server of ours, which the library leaves where it is when the server closes.
// Owns: the file, from Note on. Threads: one. Locks: none. Ends: with Remove.
class ServerFile {
public:
    // To be called once the server of that name runs; false when its file is gone already.
    bool Note(const std::string &name);
    // Removes the file, unless a later server has replaced it.
    void Remove();

private:
    FifoFile file;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_SERVERFILE_H
