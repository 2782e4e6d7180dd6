// Resources of a module. The build embeds the same .res file that windres makes for Windows into the host
// module and registers it at load with VmHostRegisterModuleResources; FindResourceW and its companions read
// the .res records (RESOURCEHEADER, DWORD aligned). A module handle is the module's load address, as on
// Windows: GetModuleHandleW(NULL) is the main program's.
#pragma once

#include "platform/host/Types.h"

#define RT_CURSOR MAKEINTRESOURCEW(1)
#define RT_BITMAP MAKEINTRESOURCEW(2)
#define RT_ICON MAKEINTRESOURCEW(3)
#define RT_MENU MAKEINTRESOURCEW(4)
#define RT_DIALOG MAKEINTRESOURCEW(5)
#define RT_STRING MAKEINTRESOURCEW(6)
#define RT_RCDATA MAKEINTRESOURCEW(10)
#define RT_VERSION MAKEINTRESOURCEW(16)

WINBASEAPI HRSRC FindResourceW(HMODULE hModule, LPCWSTR lpName, LPCWSTR lpType);
WINBASEAPI HRSRC FindResourceExW(HMODULE hModule, LPCWSTR lpType, LPCWSTR lpName, WORD wLanguage);
WINBASEAPI HGLOBAL LoadResource(HMODULE hModule, HRSRC hResInfo);
WINBASEAPI LPVOID LockResource(HGLOBAL hResData);
WINBASEAPI DWORD SizeofResource(HMODULE hModule, HRSRC hResInfo);
WINBASEAPI BOOL FreeResource(HGLOBAL hResData);
WINBASEAPI HMODULE GetModuleHandleW(LPCWSTR lpModuleName);

// Called by the embedded resources of a module as it loads: `anchor` is any address inside the module.
WINBASEAPI void VmHostRegisterModuleResources(const void* anchor, const void* res, DWORD size);
