// Test control of the stand-in's input state.
#pragma once

#include "platform/host/Types.h"

// Sets whether a key or mouse button is down for GetAsyncKeyState.
WINBASEAPI void VmHostSetAsyncKeyState(int vKey, BOOL down);
