// What the processes of a storm have counted, held against itself and against what the storm knows.
#ifndef TARVO_STORM_STATSPROOF_H
#define TARVO_STORM_STATSPROOF_H

#include <cstdint>
#include <optional>

namespace storm {

// The exit status for CTest of a program that may not mount a directory for its processes.
constexpr int CANNOT_COUNT = 77;

// Before the first process: all count from now on. False, with a word on why, where that is not possible.
bool BeginStats();

// After the last one. `answers`: how many the processes have told of. Prints what does not agree.
bool JudgeStats(std::optional<uint64_t> answers = std::nullopt);

} // namespace storm

#endif // TARVO_STORM_STATSPROOF_H
