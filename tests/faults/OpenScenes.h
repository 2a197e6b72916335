#ifndef TARVO_FAULTS_OPENSCENES_H
#define TARVO_FAULTS_OPENSCENES_H

#include <vector>

#include "faults/FaultCase.h"

namespace tarvo_test {

std::vector<Function> OpeningFunctions();

} // namespace tarvo_test

#endif // TARVO_FAULTS_OPENSCENES_H
