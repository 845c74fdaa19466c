#include "support/AllocHook.h"

#include <atomic>
#include <new>

namespace {
std::atomic<int> g_fail{0};
std::atomic<std::size_t> g_last{0};
}  // namespace

namespace alloc_hook {
void FailNext(int count) { g_fail = count; }
std::size_t LastNothrowSize() { return g_last; }
void ResetLastNothrowSize() { g_last = 0; }
}  // namespace alloc_hook

// Replaces the global nothrow operator new for the whole test process (the
// shared library resolves to it too). It forwards to the ordinary operator
// new, so the blocks pair with the ordinary operator delete.
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    g_last = n;
    int pending = g_fail.load();
    while (pending > 0 && !g_fail.compare_exchange_weak(pending, pending - 1)) {
    }
    if (pending > 0) return nullptr;
    try {
        return ::operator new(n);
    } catch (...) {
        return nullptr;
    }
}
