#include "support/AllocHook.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<int> g_fail{0};
std::atomic<std::size_t> g_last{0};
std::atomic<std::size_t> g_count{0};
}  // namespace

namespace alloc_hook {
void FailNext(int count) { g_fail = count; }
std::size_t LastNothrowSize() { return g_last; }
void ResetLastNothrowSize() { g_last = 0; }
std::size_t Allocations() { return g_count; }
}  // namespace alloc_hook

// Replace the global operator new and delete for the whole test process (the
// shared library resolves to them too); the array forms forward to these.
// Every block comes from malloc, so any pairing of these new and delete forms
// matches.
void* operator new(std::size_t n) {
    ++g_count;
    if (void* p = std::malloc(n != 0 ? n : 1)) return p;
    throw std::bad_alloc();
}

void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    ++g_count;
    g_last = n;
    int pending = g_fail.load();
    while (pending > 0 && !g_fail.compare_exchange_weak(pending, pending - 1)) {
    }
    if (pending > 0) return nullptr;
    return std::malloc(n != 0 ? n : 1);
}

void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
