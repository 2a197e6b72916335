#ifndef TARVO_LOOP_LOOPSCENES_H
#define TARVO_LOOP_LOOPSCENES_H

#include <vector>

#include "faults/FaultCase.h"

namespace tarvo_test {

// What a program does with a loop: each is one use of its functions, with the rounds that it takes.
std::vector<Function> LoopFunctions();

// What the test injects, for scenes in which it may leave its mark.
Fault &CurrentFault();

} // namespace tarvo_test

#endif // TARVO_LOOP_LOOPSCENES_H
