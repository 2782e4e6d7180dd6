#include "platform/host/Input.h"
#include "platform/host/ControlInput.h"
#include "platform/host/Kernel.h"

#include <cstring>
#include <mutex>

namespace
{
// Windows keeps the key state per thread (per input queue); so does this.
thread_local BYTE t_keys[256];
std::mutex g_asyncLock;
bool g_asyncDown[256];
} // namespace

SHORT GetKeyState(int nVirtKey)
{
    if (nVirtKey < 0 || nVirtKey > 255)
        return 0;
    BYTE state = t_keys[nVirtKey];
    // High bit: down. Low bit: toggled. Windows reports a down key as 0xFF80 (sign-extended).
    SHORT result = static_cast<SHORT>(state & 0x01);
    if (state & 0x80)
        result = static_cast<SHORT>(result | static_cast<SHORT>(0xFF80));
    return result;
}

SHORT GetAsyncKeyState(int vKey)
{
    if (vKey < 0 || vKey > 255)
        return 0;
    std::lock_guard<std::mutex> hold(g_asyncLock);
    return g_asyncDown[vKey] ? static_cast<SHORT>(0x8000) : static_cast<SHORT>(0);
}

BOOL GetKeyboardState(BYTE* lpKeyState)
{
    if (!lpKeyState)
    {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    std::memcpy(lpKeyState, t_keys, sizeof(t_keys));
    return TRUE;
}

BOOL SetKeyboardState(BYTE* lpKeyState)
{
    if (!lpKeyState)
    {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    std::memcpy(t_keys, lpKeyState, sizeof(t_keys));
    return TRUE;
}

void VmHostSetAsyncKeyState(int vKey, BOOL down)
{
    if (vKey < 0 || vKey > 255)
        return;
    std::lock_guard<std::mutex> hold(g_asyncLock);
    g_asyncDown[vKey] = down != FALSE;
}
