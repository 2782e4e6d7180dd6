// A library loaded as the file manager loads it: its exports by name, and whether its code is still mapped.
#pragma once

#include "platform/Win32.h"

namespace TestSupport
{
typedef HRESULT(STDMETHODCALLTYPE* CanUnloadNowEntry)();
typedef HRESULT(STDMETHODCALLTYPE* GetClassObjectEntry)(REFCLSID, REFIID, LPVOID*);

template <class Entry> Entry Export(HMODULE library, const char* name)
{
    return reinterpret_cast<Entry>(reinterpret_cast<void (*)()>(GetProcAddress(library, name)));
}

// Whether any module still holds this address (the library is mapped).
inline bool Mapped(const void* address)
{
    HMODULE module = nullptr;
    return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                  GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              static_cast<LPCWSTR>(address), &module) &&
           module;
}
} // namespace TestSupport
