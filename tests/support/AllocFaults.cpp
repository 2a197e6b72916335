#include "support/AllocFaults.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "support/Interpose.h"

namespace tarvo_test {

namespace {

struct Plan {
    bool armed = false;
    unsigned left = 0;
    std::size_t size = 0; // 0: any
    bool hit = false;
};

thread_local Plan plan;
thread_local std::size_t allocations = 0;
std::atomic<int> emptyHeaps{0};

bool FailsNow(std::size_t size) {
    if (OwnMemory::Wanted()) {
        return false;
    }
    ++allocations;
    if (emptyHeaps.load(std::memory_order_relaxed) > 0) {
        return true;
    }
    if (!plan.armed || (plan.size != 0 && plan.size != size)) {
        return false;
    }
    if (--plan.left > 0) {
        return false;
    }
    plan.armed = false;
    plan.hit = true;
    return true;
}

void *Allocate(std::size_t size) { return FailsNow(size) ? nullptr : std::malloc(size == 0 ? 1 : size); }

void *AllocateOrThrow(std::size_t size) {
    void *const memory = Allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

AllocFault::AllocFault(unsigned nth) : AllocFault(nth, 0) {}

AllocFault::AllocFault(unsigned nth, std::size_t size) { plan = Plan{true, nth, size, false}; }

AllocFault::~AllocFault() { plan = Plan(); }

bool AllocFault::Hit() const { return plan.hit; }

EmptyHeap::EmptyHeap() { ++emptyHeaps; }

EmptyHeap::~EmptyHeap() { --emptyHeaps; }

std::size_t ThreadAllocations() { return allocations; }

} // namespace tarvo_test

// All forms that are in use, so that none of a sanitizer's own meets memory of ours.
void *operator new(std::size_t size) { return tarvo_test::AllocateOrThrow(size); }
void *operator new[](std::size_t size) { return tarvo_test::AllocateOrThrow(size); }
void *operator new(std::size_t size, const std::nothrow_t &) noexcept { return tarvo_test::Allocate(size); }
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept { return tarvo_test::Allocate(size); }
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete[](void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void *memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void *memory, const std::nothrow_t &) noexcept { std::free(memory); }
void operator delete[](void *memory, const std::nothrow_t &) noexcept { std::free(memory); }
