// The module's lock count as seen by work that outlives the COM object which started it (the operation
// worker).
//
// While such work runs, the library must stay loaded: the host unloads an in-process server once
// DllCanUnloadNow answers S_OK, and frees it at any time after that. So a worker counts in the module's lock
// for as long as it runs, exactly as a living extension object does.
//
// The starter calls ModuleLockAcquire before CreateThread, and ModuleLockRelease itself if the thread can't
// be created. The worker calls ModuleLockRelease as its last act and then leaves without returning into this
// library's code: FreeLibraryAndExitThread on a loader reference it took at its start with
// GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, ...).
//
// Taking the lock before the thread exists closes the gap in which the object that started the work has been
// released, the thread hasn't run yet, and DllCanUnloadNow would already say S_OK. The loader reference
// covers the other end: the few instructions between the last ModuleLockRelease and the thread's end.
//
// Both are safe from any thread; they return the new count (for tracing only: never decide on it).
#pragma once

#include "platform/Win32.h"

LONG ModuleLockAcquire();
LONG ModuleLockRelease();
