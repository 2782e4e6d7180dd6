// Test control of the system's identity and a record of the shell's change notifications.
#pragma once

#include "platform/host/Types.h"

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
