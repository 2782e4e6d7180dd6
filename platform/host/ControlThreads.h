// Test control of the threads area: the clock that GetTickCount64 reads, thread creation failing, and a
// record of the pauses taken.
#pragma once

#include "platform/host/Types.h"

// From this call on GetTickCount64 returns `ticks` until changed again; real time no longer moves it.
WINBASEAPI void VmHostSetTickCount(ULONGLONG ticks);
WINBASEAPI void VmHostAdvanceTickCount(ULONGLONG milliseconds);
// Back to the monotonic clock.
WINBASEAPI void VmHostUseRealTickCount(void);
// The next `count` calls of CreateThread fail with ERROR_NOT_ENOUGH_MEMORY, as when no thread can be had.
WINBASEAPI void VmHostFailCreateThread(DWORD count);
// Threads made by CreateThread that have not yet ended (their handles may be closed or still open).
WINBASEAPI LONG VmHostLiveThreads(void);

#ifdef __cplusplus
#include <vector>
namespace VmHost
{
// Records the length of every Sleep from now on (dropping earlier ones), or stops; off at start.
void RecordSleeps(bool on);
std::vector<DWORD> Sleeps();
} // namespace VmHost
#endif
