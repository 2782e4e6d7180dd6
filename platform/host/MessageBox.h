// Message boxes and showing a window. A message box is recorded and answered at once with the answer a test
// queued (ControlMessageBox.h), else with the button that dismisses it (OK, Cancel or No).
#pragma once

#include "platform/host/Types.h"

#ifndef MB_OK
#define MB_OK 0x00000000L
#endif
#ifndef MB_OKCANCEL
#define MB_OKCANCEL 0x00000001L
#endif
#ifndef MB_ABORTRETRYIGNORE
#define MB_ABORTRETRYIGNORE 0x00000002L
#endif
#ifndef MB_YESNOCANCEL
#define MB_YESNOCANCEL 0x00000003L
#endif
#ifndef MB_YESNO
#define MB_YESNO 0x00000004L
#endif
#ifndef MB_RETRYCANCEL
#define MB_RETRYCANCEL 0x00000005L
#endif
#ifndef MB_ICONHAND
#define MB_ICONHAND 0x00000010L
#endif
#ifndef MB_ICONERROR
#define MB_ICONERROR MB_ICONHAND
#endif
#ifndef MB_ICONSTOP
#define MB_ICONSTOP MB_ICONHAND
#endif
#ifndef MB_ICONQUESTION
#define MB_ICONQUESTION 0x00000020L
#endif
#ifndef MB_ICONEXCLAMATION
#define MB_ICONEXCLAMATION 0x00000030L
#endif
#ifndef MB_ICONWARNING
#define MB_ICONWARNING MB_ICONEXCLAMATION
#endif
#ifndef MB_ICONASTERISK
#define MB_ICONASTERISK 0x00000040L
#endif
#ifndef MB_ICONINFORMATION
#define MB_ICONINFORMATION MB_ICONASTERISK
#endif
#ifndef MB_TYPEMASK
#define MB_TYPEMASK 0x0000000FL
#endif
#ifndef IDOK
#define IDOK 1
#endif
#ifndef IDCANCEL
#define IDCANCEL 2
#endif
#ifndef IDABORT
#define IDABORT 3
#endif
#ifndef IDRETRY
#define IDRETRY 4
#endif
#ifndef IDIGNORE
#define IDIGNORE 5
#endif
#ifndef IDYES
#define IDYES 6
#endif
#ifndef IDNO
#define IDNO 7
#endif
#ifndef SW_HIDE
#define SW_HIDE 0
#endif
#ifndef SW_SHOWNORMAL
#define SW_SHOWNORMAL 1
#endif
#ifndef SW_SHOW
#define SW_SHOW 5
#endif

WINBASEAPI int MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type);
// The shell's message box: the same box, with the text taken as it stands (no inserts are expanded here, and
// a resource number instead of a text is refused with 0).
WINBASEAPI int ShellMessageBoxW(HINSTANCE instance, HWND owner, LPCWSTR text, LPCWSTR caption, UINT type,
                                ...);
WINBASEAPI BOOL ShowWindow(HWND window, int command);
