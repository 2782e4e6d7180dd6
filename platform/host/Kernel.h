// Kernel32/user32 text, error, synchronisation and tracing calls of the stand-in.
#pragma once

#include "platform/host/Types.h"

typedef int errno_t;

WINBASEAPI DWORD GetLastError(void);
WINBASEAPI void SetLastError(DWORD error);

WINBASEAPI LONG InterlockedIncrement(LONG volatile* value);
WINBASEAPI LONG InterlockedDecrement(LONG volatile* value);
WINBASEAPI LONG InterlockedExchange(LONG volatile* target, LONG value);
WINBASEAPI LONG InterlockedCompareExchange(LONG volatile* target, LONG exchange, LONG comparand);
WINBASEAPI LONG InterlockedExchangeAdd(LONG volatile* target, LONG value);
WINBASEAPI PVOID InterlockedCompareExchangePointer(PVOID volatile* target, PVOID exchange, PVOID comparand);
WINBASEAPI PVOID InterlockedExchangePointer(PVOID volatile* target, PVOID value);

// Opaque to callers, as on Windows; large enough for a recursive pthread mutex.
typedef struct _RTL_CRITICAL_SECTION
{
    PVOID DebugInfo;
    LONG LockCount;
    LONG RecursionCount;
    HANDLE OwningThread;
    HANDLE LockSemaphore;
    ULONG_PTR SpinCount;
    alignas(16) unsigned char impl[64];
} CRITICAL_SECTION, *LPCRITICAL_SECTION;

WINBASEAPI void InitializeCriticalSection(LPCRITICAL_SECTION section);
WINBASEAPI BOOL InitializeCriticalSectionEx(LPCRITICAL_SECTION section, DWORD spinCount, DWORD flags);
WINBASEAPI BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spinCount);
WINBASEAPI void EnterCriticalSection(LPCRITICAL_SECTION section);
WINBASEAPI BOOL TryEnterCriticalSection(LPCRITICAL_SECTION section);
WINBASEAPI void LeaveCriticalSection(LPCRITICAL_SECTION section);
WINBASEAPI void DeleteCriticalSection(LPCRITICAL_SECTION section);

WINBASEAPI PVOID EncodePointer(PVOID pointer);
WINBASEAPI PVOID DecodePointer(PVOID pointer);

WINBASEAPI DWORD GetCurrentProcessId(void);
WINBASEAPI DWORD GetCurrentThreadId(void);
WINBASEAPI HANDLE GetCurrentProcess(void);

// Process heap.
#define HEAP_ZERO_MEMORY 0x00000008
WINBASEAPI HANDLE GetProcessHeap(void);
WINBASEAPI LPVOID HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
WINBASEAPI LPVOID HeapReAlloc(HANDLE heap, DWORD flags, LPVOID memory, SIZE_T bytes);
WINBASEAPI BOOL HeapFree(HANDLE heap, DWORD flags, LPVOID memory);
WINBASEAPI SIZE_T HeapSize(HANDLE heap, DWORD flags, LPCVOID memory);
WINBASEAPI HLOCAL LocalFree(HLOCAL memory);
WINBASEAPI HLOCAL LocalAlloc(UINT flags, SIZE_T bytes);
#define LMEM_FIXED 0x0000
#define LMEM_ZEROINIT 0x0040
#define LPTR (LMEM_FIXED | LMEM_ZEROINIT)

// Text. Case mapping is the default locale's for A-Z only, as _wcslwr_s is in the "C" locale.
#define EINVAL 22
#define ERANGE 34
WINBASEAPI errno_t _wcslwr_s(WCHAR* text, size_t elements);
WINBASEAPI int _wtoi(const WCHAR* text);
WINBASEAPI int _wcsnicmp(const WCHAR* a, const WCHAR* b, size_t count);
WINBASEAPI int lstrcmpiW(LPCWSTR a, LPCWSTR b);
WINBASEAPI int lstrcmpW(LPCWSTR a, LPCWSTR b);
WINBASEAPI int lstrlenW(LPCWSTR text);
WINBASEAPI LPWSTR CharNextW(LPCWSTR text);
WINBASEAPI void OutputDebugStringW(LPCWSTR text);

#define CP_ACP 0
#define CP_THREAD_ACP 3
#define CP_UTF8 65001
#define MB_ERR_INVALID_CHARS 0x00000008
#define WC_ERR_INVALID_CHARS 0x00000080
WINBASEAPI int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideCount, LPSTR bytes,
                                   int byteCount, LPCSTR defaultChar, LPBOOL usedDefault);
WINBASEAPI int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR bytes, int byteCount, LPWSTR wide,
                                   int wideCount);
