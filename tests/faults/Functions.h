// The exported functions, each with what has to surround a call of it.
#ifndef TARVO_FAULTS_FUNCTIONS_H
#define TARVO_FAULTS_FUNCTIONS_H

#include <vector>

#include "faults/FaultCase.h"

namespace tarvo_test {

// Every function of the public header, those that open in each of their uses. Only the caller's thread and threads that
// wait for others take part, so that each makes the same calls in every run.
const std::vector<Function> &ExportedFunctions();

// Calls that need the library's threads for their result.
const std::vector<Function> &CallsThroughThreads();

} // namespace tarvo_test

#endif // TARVO_FAULTS_FUNCTIONS_H
