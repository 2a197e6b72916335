// What the tests of synchronous calls change under the library: the moment a request leaves the list, and the run mode
// of the process.
#ifndef TARVO_TESTS_PIPE_REQUESTHOOKS_H
#define TARVO_TESTS_PIPE_REQUESTHOOKS_H

#include <functional>
#include <string>

namespace tarvo_test {

// Runs `action` once, before the next request that is taken out of a pipe's list, without a lock of the pipe.
class BeforeRemoveRequest {
public:
    explicit BeforeRemoveRequest(std::function<void()> action);
    ~BeforeRemoveRequest();
    BeforeRemoveRequest(const BeforeRemoveRequest &) = delete;
    BeforeRemoveRequest &operator=(const BeforeRemoveRequest &) = delete;
};

// What the library takes for the run mode.
void SetRunMode(const std::string &mode);

} // namespace tarvo_test

#endif // TARVO_TESTS_PIPE_REQUESTHOOKS_H
