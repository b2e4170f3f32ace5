#include "tests/support/alloc_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<uint64_t> g_allocations{0};

void* counted_alloc(std::size_t n) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    void* p = std::malloc(n == 0 ? 1 : n);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
}  // namespace

namespace testsupport {
uint64_t allocation_count() {
    return g_allocations.load(std::memory_order_relaxed);
}
}  // namespace testsupport

void* operator new(std::size_t n) {
    return counted_alloc(n);
}
void* operator new[](std::size_t n) {
    return counted_alloc(n);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
