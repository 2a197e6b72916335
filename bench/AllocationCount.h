// How much a benchmark's program allocates: the library's calls of operator new and its own.
#ifndef TARVO_BENCH_ALLOCATIONCOUNT_H
#define TARVO_BENCH_ALLOCATIONCOUNT_H

#include <cstdint>

// Calls of operator new since the program began, all threads.
uint64_t AllocationCount();

#endif // TARVO_BENCH_ALLOCATIONCOUNT_H
