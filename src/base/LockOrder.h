// The order in which locks of different classes may be taken while another one is held. docs/ARCHITECTURE.md tells who
// holds what where; within one class the locks name each other. A lock comes after the level that it names in
// ACQUIRED_AFTER, and before the one in ACQUIRED_BEFORE; clang's build fails where one function takes them otherwise
// (-Wthread-safety-beta). Nothing is of a level's type, and nothing defines one: they exist for the analysis only.
#ifndef TARVO_BASE_LOCKORDER_H
#define TARVO_BASE_LOCKORDER_H

#include "base/Mutex.h"

// Owns: nothing. Threads: none. Locks: a place between those of two classes. Ends: never begins.
class CAPABILITY("lock level") LockLevel {};

namespace lock_order {

// From the last to the first. What a log line takes, one after another, whoever writes it with whatever held.
extern LockLevel logging;
// Under a leaf nothing else is taken, but log lines are written.
extern LockLevel leaves ACQUIRED_BEFORE(logging);
// One worker's.
extern LockLevel worker ACQUIRED_BEFORE(leaves);
// The pool's slots, names and workers.
extern LockLevel slots ACQUIRED_BEFORE(worker);
// The search for the worker of a name.
extern LockLevel submission ACQUIRED_BEFORE(slots);
// A pipe's list of outstanding requests.
extern LockLevel calls ACQUIRED_BEFORE(submission);
// One receive monitor's table.
extern LockLevel monitor ACQUIRED_BEFORE(calls);
// The set of receive monitors.
extern LockLevel monitors ACQUIRED_BEFORE(monitor);
// A pipe's descriptors: their change, and then their use.
extern LockLevel descriptors ACQUIRED_BEFORE(monitors);
// The table of pipes.
extern LockLevel table ACQUIRED_BEFORE(descriptors);
// What a pipe is doing: it opens, it ends, it hands out what it has kept.
extern LockLevel pipe ACQUIRED_BEFORE(table);

} // namespace lock_order

#endif // TARVO_BASE_LOCKORDER_H
