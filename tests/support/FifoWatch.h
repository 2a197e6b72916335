#ifndef TARVO_SUPPORT_FIFOWATCH_H
#define TARVO_SUPPORT_FIFOWATCH_H

#include <functional>
#include <string>

namespace tarvo_test {

// Calls `done` whenever a file of the FIFO directory is created, opened, closed or removed, until it returns true.
// Throws std::runtime_error with `what` when that has not happened within 30 s.
void AwaitFifoDirectory(const std::string &what, const std::function<bool()> &done);

} // namespace tarvo_test

#endif // TARVO_SUPPORT_FIFOWATCH_H
