// The module's lock count, for test programs built before the module library: a bare atomic counter with
// the module's signatures.
#include "module/ModuleLock.h"

#include <atomic>

namespace
{
std::atomic<LONG> g_lockCount{0};
}

LONG ModuleLockAcquire()
{
    return ++g_lockCount;
}
LONG ModuleLockRelease()
{
    return --g_lockCount;
}
