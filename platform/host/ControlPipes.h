// Test control of the named pipes: writes that the system refuses, as Windows may refuse them (for example
// ERROR_IO_PENDING from a handle that has overlapped I/O under way), which a test cannot bring about through
// a real pipe.
#pragma once

#include "platform/host/Types.h"

// The next `count` calls of WriteFile on any pipe end fail with `error` and write nothing.
WINBASEAPI void VmHostFailPipeWrites(DWORD error, DWORD count);
