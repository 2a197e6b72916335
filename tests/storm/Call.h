// The calls that the peers of the storms and of the soak make, and how an answer is known to be right.
#ifndef TARVO_STORM_CALL_H
#define TARVO_STORM_CALL_H

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "tarvo.h"

namespace storm {

// What stands at the start of each request; bytes that depend on `number` follow.
struct Question {
    uint32_t number = 0;
    uint32_t serverGeneration = 0; // filled in by the answer
    pid_t caller = 0;
    bool killCaller = false; // to be killed while it waits
};

struct Reply {
    int result = 0;     // of the call
    bool right = false; // whether the answer is the request's own bytes
    uint32_t serverGeneration = 0;
};

constexpr uint32_t LARGEST = 4000;

// One call of `size` bytes, at least sizeof(Question).
Reply Ask(int fd, const Question &question, uint32_t size, int timeout);
// The same bytes without an answer; the result of the send.
int Send(int fd, const Question &question, uint32_t size);

// In the callback: empty for a request that is none of ours.
std::optional<Question> QuestionOf(const TarvoRequest &request);
int Answer(int fd, const TarvoRequest &request, uint32_t serverGeneration);
// A short one-way request.
int Notify(int fd);

} // namespace storm

#endif // TARVO_STORM_CALL_H
