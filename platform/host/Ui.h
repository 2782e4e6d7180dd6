// User32 menus, windows and modal dialogs of the stand-in. Menus are in memory; a dialog is built from the
// template in the resources, gets WM_INITDIALOG, and is then answered as ControlUi.h scripted.
#pragma once

#include <cstdarg>

#include "platform/host/Types.h"

// Menus.
#define MF_BYCOMMAND 0x00000000L
#define MF_BYPOSITION 0x00000400L
#define MF_STRING 0x00000000L
#define MF_GRAYED 0x00000001L
#define MF_DISABLED 0x00000002L
#define MF_CHECKED 0x00000008L
#define MF_POPUP 0x00000010L
#define MF_SEPARATOR 0x00000800L
#define MF_DEFAULT 0x00001000L
#define MFT_STRING MF_STRING
#define MFT_SEPARATOR MF_SEPARATOR
#define MFS_GRAYED 0x00000003L
#define MFS_DISABLED MFS_GRAYED
#define MFS_CHECKED MF_CHECKED
#define MFS_DEFAULT MF_DEFAULT
#define MIIM_STATE 0x00000001
#define MIIM_ID 0x00000002
#define MIIM_SUBMENU 0x00000004
#define MIIM_CHECKMARKS 0x00000008
#define MIIM_TYPE 0x00000010
#define MIIM_DATA 0x00000020
#define MIIM_STRING 0x00000040
#define MIIM_BITMAP 0x00000080
#define MIIM_FTYPE 0x00000100
#define GMDI_USEDISABLED 0x0001L
#define GMDI_GOINTOPOPUPS 0x0002L
#define ERROR_INVALID_WINDOW_HANDLE 1400L
#define ERROR_INVALID_MENU_HANDLE 1401L
#define ERROR_MENU_ITEM_NOT_FOUND 1456L
#define ERROR_CONTROL_ID_NOT_FOUND 1421L

typedef struct tagMENUITEMINFOW
{
    UINT cbSize;
    UINT fMask;
    UINT fType;
    UINT fState;
    UINT wID;
    HMENU hSubMenu;
    HBITMAP hbmpChecked;
    HBITMAP hbmpUnchecked;
    ULONG_PTR dwItemData;
    LPWSTR dwTypeData;
    UINT cch;
    HBITMAP hbmpItem;
} MENUITEMINFOW, *LPMENUITEMINFOW;
typedef const MENUITEMINFOW* LPCMENUITEMINFOW;

WINBASEAPI HMENU CreatePopupMenu(void);
WINBASEAPI HMENU CreateMenu(void);
WINBASEAPI BOOL DestroyMenu(HMENU menu);
WINBASEAPI BOOL IsMenu(HMENU menu);
WINBASEAPI BOOL InsertMenuW(HMENU menu, UINT position, UINT flags, UINT_PTR idNewItem, LPCWSTR newItem);
WINBASEAPI BOOL AppendMenuW(HMENU menu, UINT flags, UINT_PTR idNewItem, LPCWSTR newItem);
WINBASEAPI int GetMenuItemCount(HMENU menu);
WINBASEAPI UINT GetMenuItemID(HMENU menu, int position);
WINBASEAPI BOOL GetMenuItemInfoW(HMENU menu, UINT item, BOOL byPosition, LPMENUITEMINFOW info);
WINBASEAPI int GetMenuStringW(HMENU menu, UINT item, LPWSTR text, int capacity, UINT flags);
WINBASEAPI BOOL SetMenuItemBitmaps(HMENU menu, UINT position, UINT flags, HBITMAP unchecked, HBITMAP checked);
WINBASEAPI BOOL SetMenuDefaultItem(HMENU menu, UINT item, UINT byPosition);
WINBASEAPI UINT GetMenuDefaultItem(HMENU menu, UINT byPosition, UINT flags);

// Windows and messages.
#define WS_OVERLAPPED 0x00000000L
#define WS_POPUP 0x80000000L
#define WS_CHILD 0x40000000L
#define WS_MINIMIZE 0x20000000L
#define WS_VISIBLE 0x10000000L
#define WS_DISABLED 0x08000000L
#define WS_CAPTION 0x00C00000L
#define WS_SYSMENU 0x00080000L
#define WS_THICKFRAME 0x00040000L
#define WS_TABSTOP 0x00010000L
#define WS_OVERLAPPEDWINDOW 0x00CF0000L
#define DS_FIXEDSYS 0x0008L
#define DS_SETFONT 0x40L
#define DS_MODALFRAME 0x80L
#define DS_SHELLFONT (DS_SETFONT | DS_FIXEDSYS)
#define BS_PUSHBUTTON 0x00000000L
#define BS_DEFPUSHBUTTON 0x00000001L
#define GWL_STYLE (-16)
#define GWL_EXSTYLE (-20)
#define GWL_ID (-12)
#define GWLP_USERDATA (-21)
#define GWLP_ID (-12)
#define GW_HWNDNEXT 2
#define GW_OWNER 4
#define GW_CHILD 5
#define SWP_NOSIZE 0x0001
#define SWP_NOMOVE 0x0002
#define SWP_NOZORDER 0x0004
#define SWP_NOACTIVATE 0x0010
#define MONITOR_DEFAULTTONULL 0x00000000
#define MONITOR_DEFAULTTOPRIMARY 0x00000001
#define MONITOR_DEFAULTTONEAREST 0x00000002
#define MONITORINFOF_PRIMARY 0x00000001
#define WM_CLOSE 0x0010
#define WM_INITDIALOG 0x0110
#define WM_COMMAND 0x0111
#define WM_SYSCOMMAND 0x0112
#define SC_CLOSE 0xF060
#define BN_CLICKED 0
#define BM_CLICK 0x00F5
#define IDOK 1
#define IDCANCEL 2
#ifndef RT_DIALOG
#define RT_DIALOG MAKEINTRESOURCEW(5)
#endif
#define MAKEWPARAM(l, h) ((WPARAM)(DWORD)MAKELONG(l, h))

typedef INT_PTR(CALLBACK* DLGPROC)(HWND, UINT, WPARAM, LPARAM);

typedef struct tagMONITORINFO
{
    DWORD cbSize;
    RECT rcMonitor;
    RECT rcWork;
    DWORD dwFlags;
} MONITORINFO, *LPMONITORINFO;

WINBASEAPI INT_PTR DialogBoxParamW(HINSTANCE instance, LPCWSTR templateName, HWND parent, DLGPROC dialogProc,
                                   LPARAM initParam);
WINBASEAPI BOOL EndDialog(HWND dialog, INT_PTR result);
WINBASEAPI HWND GetDlgItem(HWND dialog, int id);
WINBASEAPI BOOL IsWindow(HWND window);
WINBASEAPI BOOL DestroyWindow(HWND window);
WINBASEAPI BOOL SetWindowTextW(HWND window, LPCWSTR text);
WINBASEAPI int GetWindowTextW(HWND window, LPWSTR text, int capacity);
WINBASEAPI BOOL GetWindowRect(HWND window, LPRECT rect);
WINBASEAPI LONG GetWindowLongW(HWND window, int index);
WINBASEAPI LONG_PTR GetWindowLongPtrW(HWND window, int index);
WINBASEAPI LONG_PTR SetWindowLongPtrW(HWND window, int index, LONG_PTR value);
WINBASEAPI HWND GetWindow(HWND window, UINT command);
WINBASEAPI HWND GetForegroundWindow(void);
WINBASEAPI BOOL SetForegroundWindow(HWND window);
WINBASEAPI BOOL SetWindowPos(HWND window, HWND insertAfter, int x, int y, int cx, int cy, UINT flags);
WINBASEAPI HMONITOR MonitorFromWindow(HWND window, DWORD flags);
WINBASEAPI BOOL GetMonitorInfoW(HMONITOR monitor, LPMONITORINFO info);

// user32's own formatter: %[-][0][width](d|i|u|x|X|c|s|%) with an optional l or h, %s taking a wide text and
// %hs a narrow one. At most 1024 units are written, terminator included; returns the units written without
// it.
WINBASEAPI int wsprintfW(LPWSTR buffer, LPCWSTR format, ...);
WINBASEAPI int wvsprintfW(LPWSTR buffer, LPCWSTR format, va_list arguments);
