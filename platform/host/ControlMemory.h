// Test control of the stand-in's memory: counts of the blocks handed out and not yet given back, so that a
// test sees a block the code forgot (the stand-in keeps each in its own table or hands it to the C runtime,
// where LeakSanitizer would see it only at exit, or not at all).
#pragma once

#include "platform/host/Types.h"

// Blocks of GlobalAlloc (fixed and moveable) not yet given back by GlobalFree or ReleaseStgMedium, whoever
// made them.
WINBASEAPI DWORD VmHostLiveGlobalBlocks(void);
// Blocks of HeapAlloc and LocalAlloc not yet freed with HeapFree or LocalFree.
WINBASEAPI LONG VmHostLiveHeapBlocks(void);
