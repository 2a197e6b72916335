// The order of the system calls that create a FIFO.
#ifndef TARVO_UNIT_FIFO_CALLTRACE_H
#define TARVO_UNIT_FIFO_CALLTRACE_H

#include <deque>
#include <string>
#include <vector>

#include "support/Faults.h"

namespace tarvo_test {

// Records the calls of this thread on `name` ("NAME") and on temporary names for it ("TEMP"), such as
// "mkfifo TEMP 660" or "link TEMP NAME".
class CallTrace {
public:
    explicit CallTrace(std::string name);
    CallTrace(const CallTrace &) = delete;
    CallTrace &operator=(const CallTrace &) = delete;

    const std::vector<std::string> &Calls() const { return calls; }
    // The temporary names that were made, also those that were taken already.
    const std::vector<std::string> &TempNames() const { return tempNames; }
    std::string TempName() const { return tempNames.empty() ? std::string() : tempNames.back(); }

private:
    void Record(const CallInfo &call);
    std::string Short(const char *path) const;

    const std::string name;
    std::vector<std::string> calls;
    std::vector<std::string> tempNames;
    std::deque<ScopedHook> hooks;
};

} // namespace tarvo_test

#endif // TARVO_UNIT_FIFO_CALLTRACE_H
