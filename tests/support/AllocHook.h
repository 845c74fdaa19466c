// Test hook on the global operator new, which the library uses for every
// restored buffer: counts every allocation of the process, records the size
// of the last nothrow request and can make the next nothrow requests fail.
#pragma once

#include <cstddef>

namespace alloc_hook {
void FailNext(int count);          // the next `count` nothrow allocations return null
std::size_t LastNothrowSize();     // size of the last nothrow allocation asked for
void ResetLastNothrowSize();
std::size_t Allocations();         // allocations of any form so far (operator new, new[], nothrow or not)
}  // namespace alloc_hook
