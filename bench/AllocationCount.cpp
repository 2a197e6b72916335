#include "AllocationCount.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<uint64_t> allocations{0};

} // namespace

uint64_t AllocationCount() { return allocations.load(std::memory_order_relaxed); }

// A unit of its own: inlined into its users, the compiler would see pairs of operator new and free.
void *operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void *memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }
