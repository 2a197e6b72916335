#ifndef TARVO_LOOP_SERVICEFILE_H
#define TARVO_LOOP_SERVICEFILE_H

#include <cstdint>
#include <string>

#include "base/UniqueFd.h"

// The FIFO on which a server hears of its clients. Holds both its ends: without a writer of its own it would report a
// hang-up whenever the last client closes.
// Owns: both ends, the file. Threads: one. Locks: none. Ends: Close(), and then the file is gone; else it stays.
class ServiceFile {
public:
    // Makes the file `path`. 0, -EADDRINUSE (a living server has it, unless it may be replaced), or a negated errno.
    int Open(const std::string &path, uint32_t gid, bool replace);

    // Closes both ends: clients find that nobody serves any more.
    void CloseEnds();
    // Removes the file, unless it is another server's by now, and closes both ends.
    void Close();

    int ReadFd() const { return readEnd.Get(); }

private:
    bool IsServed() const;
    int Publish(uint32_t gid);
    bool HoldsBothEnds() const;

    std::string name;
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

#endif // TARVO_LOOP_SERVICEFILE_H
