// Keyboard and mouse state. GetKeyState reads the thread's key state, which SetKeyboardState sets (as on
// Windows); GetAsyncKeyState reads the "physical" state, which only VmHostSetAsyncKeyState (ControlInput.h)
// changes.
#pragma once

#include "platform/host/Types.h"

#define VK_LBUTTON 0x01
#define VK_RBUTTON 0x02
#define VK_MBUTTON 0x04
#define VK_BACK 0x08
#define VK_TAB 0x09
#define VK_RETURN 0x0D
#define VK_SHIFT 0x10
#define VK_CONTROL 0x11
#define VK_MENU 0x12
#define VK_ESCAPE 0x1B
#define VK_SPACE 0x20
#define VK_DELETE 0x2E

WINBASEAPI SHORT GetKeyState(int nVirtKey);
WINBASEAPI SHORT GetAsyncKeyState(int vKey);
WINBASEAPI BOOL GetKeyboardState(BYTE* lpKeyState);
WINBASEAPI BOOL SetKeyboardState(BYTE* lpKeyState);
