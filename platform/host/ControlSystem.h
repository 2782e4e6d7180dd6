// Test control of the system's identity and a record of the shell's change notifications.
#pragma once

#include "platform/host/Types.h"

#include <string>
#include <vector>

// The version that VerifyVersionInfoW compares with (10.0, service pack 0 at start).
WINBASEAPI void VmHostSetSystemVersion(DWORD major, DWORD minor, WORD servicePackMajor);

// One recorded SHChangeNotify call.
typedef struct VmHostShellChange
{
    LONG eventId;
    UINT flags;
    BOOL item1Null;
    BOOL item2Null;
} VmHostShellChange;
// How many SHChangeNotify calls were made since the last reset; the last one into `last` when not null.
WINBASEAPI DWORD VmHostShellChangeCount(VmHostShellChange* last);
WINBASEAPI void VmHostResetShellChanges(void);

namespace VmHost
{
// Records the OutputDebugStringW texts from now on (dropping earlier ones), or stops; off at start, so that
// benchmarks pay nothing for traces. Independently, VELMOUNT_TRACE in the environment writes them to stderr.
void RecordDebugOutput(bool on);
// The recorded texts, in order.
std::vector<std::u16string> DebugOutput();
} // namespace VmHost
