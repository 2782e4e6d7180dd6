// Test control of the stand-in's global memory: the count of blocks handed out and not yet freed.
#pragma once

#include "platform/host/Types.h"

// Blocks made by GlobalAlloc (fixed and moveable) and not yet given back by GlobalFree or ReleaseStgMedium.
// The stand-in keeps each one in a table of its own, so a block nobody frees is still reachable at exit and
// LeakSanitizer never reports it: a test counts them instead.
WINBASEAPI DWORD VmHostLiveGlobalBlocks(void);
