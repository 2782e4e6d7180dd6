#ifndef _WIN32
#include "tests/support/TestClock.h"

#include "platform/host/ControlThreads.h"

namespace TestSupport
{
bool CanSetClock()
{
    return true;
}
void SetClock(ULONGLONG ticks)
{
    VmHostSetTickCount(ticks);
}
void AdvanceClock(ULONGLONG milliseconds)
{
    VmHostAdvanceTickCount(milliseconds);
}
void UseRealClock()
{
    VmHostUseRealTickCount();
}
} // namespace TestSupport
#endif
