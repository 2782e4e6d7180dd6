// Where the test program finds the library under test: at a path relative to its own, given by the build.
#pragma once

#include "platform/Win32.h"

#include <string>

inline std::basic_string<WCHAR> TestLibraryPath()
{
    WCHAR program[MAX_PATH * 4];
    DWORD length = GetModuleFileNameW(nullptr, program, MAX_PATH * 4);
    std::basic_string<WCHAR> path(program, length);
    size_t slash = path.find_last_of(TEXT("\\/"));
    path.resize(slash + 1);
    for (const char* at = VELMOUNT_LIBRARY_FROM_TEST; *at; ++at)
        path.push_back(*at == '/' ? path[slash] : static_cast<WCHAR>(*at));
    return path;
}
