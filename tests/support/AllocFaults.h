// Allocations that fail on demand. A test program that lists AllocFaults.cpp among its sources has its operator new in
// front of everybody's, the library's included.
#ifndef TARVO_SUPPORT_ALLOCFAULTS_H
#define TARVO_SUPPORT_ALLOCFAULTS_H

#include <cstddef>

namespace tarvo_test {

// While it lives, one allocation of this thread fails: the `nth` of those counted from here, 1 being the next.
class AllocFault {
public:
    // Every allocation counts.
    explicit AllocFault(unsigned nth);
    // Those of `size` bytes count.
    AllocFault(unsigned nth, std::size_t size);
    ~AllocFault();
    AllocFault(const AllocFault &) = delete;
    AllocFault &operator=(const AllocFault &) = delete;

    // Whether the failure has happened.
    bool Hit() const;
};

// While one lives, no thread gets any memory, except inside an OwnMemory (Interpose.h).
class EmptyHeap {
public:
    EmptyHeap();
    ~EmptyHeap();
    EmptyHeap(const EmptyHeap &) = delete;
    EmptyHeap &operator=(const EmptyHeap &) = delete;
};

// How many allocations this thread has made so far.
std::size_t ThreadAllocations();

} // namespace tarvo_test

#endif // TARVO_SUPPORT_ALLOCFAULTS_H
