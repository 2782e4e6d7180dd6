// Test control of the stand-in's identity: the token's user and the process's session.
#pragma once

#include "platform/host/Types.h"

// The SID of the token's user, in string form ("S-1-5-21-..."); FALSE for text that isn't a SID. A null text
// makes OpenProcessToken fail with ERROR_ACCESS_DENIED, as for a process that may not read its own token.
WINBASEAPI BOOL VmHostSetUserSid(LPCWSTR sidText);
// The session that ProcessIdToSessionId reports for this process; `fails` makes the call fail with
// ERROR_ACCESS_DENIED instead.
WINBASEAPI void VmHostSetSession(DWORD sessionId, BOOL fails);
