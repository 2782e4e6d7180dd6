// The system's identity and the thread's locale as installers meet them: the version test, the thread locale,
// and the shell's change notification (recorded for tests, see ControlSystem.h).
#pragma once

#include "platform/host/Types.h"

typedef struct _OSVERSIONINFOEXW
{
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    WCHAR szCSDVersion[128];
    WORD wServicePackMajor;
    WORD wServicePackMinor;
    WORD wSuiteMask;
    BYTE wProductType;
    BYTE wReserved;
} OSVERSIONINFOEXW, *POSVERSIONINFOEXW, *LPOSVERSIONINFOEXW;
static_assert(sizeof(OSVERSIONINFOEXW) == 284, "OSVERSIONINFOEXW layout");

#define VER_MINORVERSION 0x0000001
#define VER_MAJORVERSION 0x0000002
#define VER_BUILDNUMBER 0x0000004
#define VER_PLATFORMID 0x0000008
#define VER_SERVICEPACKMINOR 0x0000010
#define VER_SERVICEPACKMAJOR 0x0000020
#define VER_SUITENAME 0x0000040
#define VER_PRODUCT_TYPE 0x0000080
#define VER_EQUAL 1
#define VER_GREATER 2
#define VER_GREATER_EQUAL 3
#define VER_LESS 4
#define VER_LESS_EQUAL 5
#define VER_AND 6
#define VER_OR 7
#define ERROR_OLD_WIN_VERSION 1150L

// Compares the running system (10.0, build 19045, no service pack, unless ControlSystem.h sets another) with
// the fields named in the type mask; FALSE with ERROR_OLD_WIN_VERSION when it doesn't match.
WINBASEAPI BOOL VerifyVersionInfoW(LPOSVERSIONINFOEXW lpVersionInformation, DWORD dwTypeMask,
                                   ULONGLONG dwlConditionMask);
WINBASEAPI ULONGLONG VerSetConditionMask(ULONGLONG ConditionMask, DWORD TypeMask, BYTE Condition);

#define LOCALE_SYSTEM_DEFAULT 0x0800
#define LOCALE_USER_DEFAULT 0x0400
// Per thread; a new thread starts at the user's default locale, 0x0409.
WINBASEAPI LCID GetThreadLocale(void);
WINBASEAPI BOOL SetThreadLocale(LCID Locale);

#define SHCNE_ASSOCCHANGED 0x08000000L
#define SHCNF_IDLIST 0x0000
WINBASEAPI void SHChangeNotify(LONG wEventId, UINT uFlags, LPCVOID dwItem1, LPCVOID dwItem2);
