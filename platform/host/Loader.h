// The loader: a library is a shared object, loaded with dlopen, whose handle is its load address (as
// Resources.h and GetModuleHandleW have it). LoadLibraryW calls the library's exported DllMain with
// DLL_PROCESS_ATTACH after its static records are set up, and a FALSE answer fails the load after a
// DLL_PROCESS_DETACH; the last FreeLibrary calls DllMain with DLL_PROCESS_DETACH before the static records
// go. Loads as a data file or image resource (LoadLibraryExW) map the object without calling its entry point.
// Paths are Windows paths on a mapped drive (ControlFiles.h) or host paths.
#pragma once

#include "platform/host/Types.h"

#define DLL_PROCESS_DETACH 0
#define DLL_PROCESS_ATTACH 1
#define DLL_THREAD_ATTACH 2
#define DLL_THREAD_DETACH 3

#define DONT_RESOLVE_DLL_REFERENCES 0x00000001
#define LOAD_LIBRARY_AS_DATAFILE 0x00000002
#define LOAD_WITH_ALTERED_SEARCH_PATH 0x00000008
#define LOAD_LIBRARY_AS_IMAGE_RESOURCE 0x00000020
#define LOAD_LIBRARY_AS_DATAFILE_EXCLUSIVE 0x00000040

#ifndef ERROR_BAD_EXE_FORMAT
#define ERROR_BAD_EXE_FORMAT 193L
#endif
#ifndef ERROR_DLL_INIT_FAILED
#define ERROR_DLL_INIT_FAILED 1114L
#endif

typedef INT_PTR(WINAPI* FARPROC)(void);

WINBASEAPI HMODULE LoadLibraryW(LPCWSTR lpLibFileName);
WINBASEAPI HMODULE LoadLibraryExW(LPCWSTR lpLibFileName, HANDLE hFile, DWORD dwFlags);
WINBASEAPI FARPROC GetProcAddress(HMODULE hModule, LPCSTR lpProcName);
WINBASEAPI DWORD GetModuleFileNameW(HMODULE hModule, LPWSTR lpFilename, DWORD nSize);
// FreeLibrary, GetModuleHandleExW and FreeLibraryAndExitThread are declared in Threads.h.
WINBASEAPI BOOL FreeLibrary(HMODULE module);
WINBASEAPI BOOL GetModuleHandleExW(DWORD flags, LPCWSTR moduleName, HMODULE* module);
WINBASEAPI BOOL IsDebuggerPresent(void);
