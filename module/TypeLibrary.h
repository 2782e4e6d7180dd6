// The library's type library: found as resource 1 of type "TYPELIB" in the library's own file, or as a .tlb
// file beside it, and registered per machine or, after DllInstall("user"), per user where the system can.
#pragma once

#include "platform/Win32.h"

// On success the caller owns both the path that worked (SysFreeString) and the library (Release).
HRESULT LoadModuleTypeLibrary(HINSTANCE module, LPCOLESTR index, BSTR* path, ITypeLib** library);
HRESULT RegisterModuleTypeLibrary(HINSTANCE module, LPCOLESTR index);
HRESULT UnregisterModuleTypeLibrary(HINSTANCE module);
