// Test hook on the global nothrow operator new, which the library uses for
// every restored buffer: records the size of the last request and can make
// the next requests fail.
#pragma once

#include <cstddef>

namespace alloc_hook {
void FailNext(int count);          // the next `count` nothrow allocations return null
std::size_t LastNothrowSize();     // size of the last nothrow allocation asked for
void ResetLastNothrowSize();
}  // namespace alloc_hook
