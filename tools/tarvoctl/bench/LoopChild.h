// The processes of a benchmark that use the loop.
#ifndef TARVO_TARVOCTL_BENCHLOOPCHILD_H
#define TARVO_TARVOCTL_BENCHLOOPCHILD_H

#include "bench/Child.h"

namespace tarvoctl {

// As RunBenchChild.
int RunLoopBenchServer(const ChildTask &task);
int RunLoopBenchClient(const ChildTask &task);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_BENCHLOOPCHILD_H
