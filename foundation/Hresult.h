// Turning Windows error numbers into result codes, and the one place where raised failures stop.
#pragma once

#include "platform/Win32.h"

// 0 and negative values are already result codes (or success) and pass unchanged.
inline HRESULT HresultFromWin32(LONG error)
{
    return error <= 0 ? static_cast<HRESULT>(error)
                      : static_cast<HRESULT>((static_cast<DWORD>(error) & 0xFFFFu) | 0x80070000u);
}

inline HRESULT HresultFromLastError()
{
    return HresultFromWin32(static_cast<LONG>(GetLastError()));
}
