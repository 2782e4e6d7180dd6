// Allocation failure on demand, for one thread at a time: the program's operator new and the allocation
// calls the library's code makes (wrapped at link time) count every allocation made from this program's own
// code while armed, and the k-th of them fails as the system fails it (operator new throws std::bad_alloc,
// the nothrow forms and the C and Win32 allocators return null). Allocations made inside the platform's
// shared library are neither counted nor failed: a Win32 call reports its own failure, it never throws.
#pragma once

#include <cstddef>
#include <set>

namespace FailingAllocator
{
// From now on this thread counts its allocations; the `failAt`-th fails (1 for the first), 0 fails none.
void Arm(long failAt);
// Stops counting on this thread; returns how many allocations were seen since Arm.
long Disarm();
// How many allocations the thread that armed last had seen when it last counted one (for a thread that never
// disarms, such as one that ends inside the code under test).
long SeenByLastArmed();
// Whether the armed failure happened.
bool Failed();
// Where each failed allocation was made from (the caller's return address), over the whole run.
const std::set<const void*>& FailedSites();
} // namespace FailingAllocator
