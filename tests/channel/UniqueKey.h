// Pipe keys that no other test process uses at the same time: ctest runs the tests side by side.
#pragma once

#include "platform/Win32.h"

#include <string>

inline std::basic_string<WCHAR> UniqueKey(const WCHAR* prefix)
{
    static int serial = 0;
    std::basic_string<WCHAR> key = prefix;
    for (DWORD number : {GetCurrentProcessId(), static_cast<DWORD>(++serial)})
    {
        std::basic_string<WCHAR> digits;
        do
            digits.insert(digits.begin(), static_cast<WCHAR>(TEXT('0') + number % 10));
        while (number /= 10);
        key += TEXT("-") + digits;
    }
    return key;
}
