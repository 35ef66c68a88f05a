// Replaces the global operator new of the test program that links it, to
// count allocations. Kept apart so no caller sees the replacement inline.
#include "tests/support/AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> g_allocations{0};
}

long allocation_count() {
    return g_allocations.load(std::memory_order_relaxed);
}

void* operator new(size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
    free(p);
}
void operator delete(void* p, size_t) noexcept {
    free(p);
}
