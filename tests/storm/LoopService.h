// The service under loop_calls.cpp: it answers in turn at once and after a while, as one does that has work behind it.
#ifndef TARVO_STORM_LOOPSERVICE_H
#define TARVO_STORM_LOOPSERVICE_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "support/Process.h"

namespace storm {

// The service's process, forked from one without a loop: it asks a forker for the next one.
// Owns: both processes. Threads: one. Locks: none. Ends: kills what still runs.
class Services {
public:
    explicit Services(std::string serviceName);

    // Kills the one that serves, if any, and starts another; its process id.
    pid_t Start();

private:
    int Fork(tarvo_test::Channel &channel) const;

    const std::string name;
    tarvo_test::ChildProcess forker;
};

} // namespace storm

#endif // TARVO_STORM_LOOPSERVICE_H
