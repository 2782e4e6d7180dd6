// The clock GetTickCount64 reads. The host stand-in lets a test set it; Windows does not, so tests that need
// exact milliseconds skip there (CanSetClock).
#pragma once

#include "platform/Win32.h"

namespace TestSupport
{
bool CanSetClock();
void SetClock(ULONGLONG ticks);
void AdvanceClock(ULONGLONG milliseconds);
void UseRealClock();

// Restores the real clock when it goes.
struct ClockOverride
{
    ~ClockOverride() { UseRealClock(); }
};
} // namespace TestSupport
