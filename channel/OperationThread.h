// The worker that carries out one started operation: connect to the service, show the progress dialog,
// send the request, then read and interpret the service's messages until one of them or a failed pipe ends
// the exchange. One detached thread per operation; it owns its job from the start and destroys it on every
// way out.
#pragma once

#include "platform/Win32.h"

// Thread start routine; `parameter` is the OperationJob. Exit code 0 after an operation that reached its
// loop, E_FAIL when it could not start, or the failure that stopped it on the way.
//
// The starter takes the module's lock (ModuleLockAcquire) before it creates the thread and gives it back if
// the thread cannot be created; from then on the worker gives it back itself, as its last act.
DWORD WINAPI OperationThreadProc(LPVOID parameter);
