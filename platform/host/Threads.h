// Threads, sleeping, the tick count and the loader hold a thread keeps on its library. Threads are real
// (pthreads) and their handles live in the shared handle table, so WaitForSingleObject and CloseHandle work
// on them; GetTickCount64 follows the monotonic clock unless a test sets it (ControlThreads.h).
#pragma once

#include "platform/host/Types.h"

typedef DWORD(WINAPI* LPTHREAD_START_ROUTINE)(LPVOID parameter);
typedef LPTHREAD_START_ROUTINE PTHREAD_START_ROUTINE;

#define STILL_ACTIVE 259
#define CREATE_SUSPENDED 0x00000004
#define STACK_SIZE_PARAM_IS_A_RESERVATION 0x00010000

WINBASEAPI HANDLE CreateThread(LPSECURITY_ATTRIBUTES threadAttributes, SIZE_T stackSize,
                               LPTHREAD_START_ROUTINE startAddress, LPVOID parameter, DWORD creationFlags,
                               LPDWORD threadId);
WINBASEAPI BOOL GetExitCodeThread(HANDLE thread, LPDWORD exitCode);
WINBASEAPI __attribute__((noreturn)) void ExitThread(DWORD exitCode);
WINBASEAPI void Sleep(DWORD milliseconds);
WINBASEAPI ULONGLONG GetTickCount64(void);
WINBASEAPI DWORD GetTickCount(void);

// The loader's reference count, as far as a thread needs it to keep its own code mapped.
#define GET_MODULE_HANDLE_EX_FLAG_PIN 0x00000001
#define GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT 0x00000002
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x00000004
WINBASEAPI BOOL GetModuleHandleExW(DWORD flags, LPCWSTR moduleName, HMODULE* module);
WINBASEAPI BOOL FreeLibrary(HMODULE module);
WINBASEAPI __attribute__((noreturn)) void FreeLibraryAndExitThread(HMODULE module, DWORD exitCode);
