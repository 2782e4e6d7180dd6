// The shell's side of a selection: item id lists, the CF_HDROP block, global memory and the clipboard.
//
// Item id lists: the stand-in's list for a file system path is one item whose bytes are the signature
// "VMPATH" and the path in UTF-16 with its terminator, followed by the usual 0 terminator of the list;
// ILCreateFromPathW makes one and SHGetPathFromIDListW reads it back. Any other list (the empty list, or the
// virtual folder that SHGetSpecialFolderLocation gives for CSIDL_CONTROLS) has no file system path.
//
// CF_HDROP: DROPFILES with pFiles and fWide, then the double-zero-terminated list, exactly as Windows lays it
// out. A drop handle may be the HGLOBAL or the pointer that GlobalLock gave for it, as on Windows.
#pragma once

#include "platform/host/Com.h"
#include "platform/host/Types.h"

typedef struct _SHITEMID
{
    USHORT cb;
    BYTE abID[1];
} SHITEMID;

typedef struct _DROPFILES
{
    DWORD pFiles;
    POINT pt;
    BOOL fNC;
    BOOL fWide;
} DROPFILES, *LPDROPFILES;

#define CSIDL_DESKTOP 0x0000
#define CSIDL_CONTROLS 0x0003
#define DATA_S_SAMEFORMATETC ((HRESULT)0x00040130)

WINBASEAPI BOOL SHGetPathFromIDListW(PCIDLIST_ABSOLUTE pidl, LPWSTR pszPath);
WINBASEAPI PIDLIST_ABSOLUTE ILCreateFromPathW(LPCWSTR pszPath);
WINBASEAPI void ILFree(LPITEMIDLIST pidl);
WINBASEAPI HRESULT SHGetSpecialFolderLocation(HWND hwnd, int csidl, PIDLIST_ABSOLUTE* ppidl);
WINBASEAPI UINT DragQueryFileW(HDROP hDrop, UINT iFile, LPWSTR lpszFile, UINT cch);

// Global memory. GMEM_FIXED blocks are their own pointer; GMEM_MOVEABLE blocks have a handle of their own.
#define GMEM_FIXED 0x0000
#define GMEM_MOVEABLE 0x0002
#define GMEM_ZEROINIT 0x0040
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)
WINBASEAPI HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes);
WINBASEAPI LPVOID GlobalLock(HGLOBAL hMem);
WINBASEAPI BOOL GlobalUnlock(HGLOBAL hMem);
WINBASEAPI HGLOBAL GlobalFree(HGLOBAL hMem);
WINBASEAPI SIZE_T GlobalSize(HGLOBAL hMem);

WINBASEAPI void ReleaseStgMedium(LPSTGMEDIUM pmedium);

// The system clipboard: one per process here (on Windows, per window station).
#define ERROR_CLIPBOARD_NOT_OPEN 1418L
WINBASEAPI UINT RegisterClipboardFormatW(LPCWSTR lpszFormat);
WINBASEAPI BOOL IsClipboardFormatAvailable(UINT format);
WINBASEAPI BOOL OpenClipboard(HWND hWndNewOwner);
WINBASEAPI BOOL EmptyClipboard(void);
WINBASEAPI HANDLE SetClipboardData(UINT uFormat, HANDLE hMem);
WINBASEAPI BOOL CloseClipboard(void);
