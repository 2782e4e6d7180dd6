// Bitmaps and system metrics. LoadImageW reads a BITMAP resource of a module (Resources.h) and gives a bitmap
// object of the asked size; GetObjectW describes it and DeleteObject frees it. Metrics answer as a 96-dpi
// Windows does, and can be changed with VmHostSetSystemMetric (ControlGdi.h).
#pragma once

#include "platform/host/Types.h"

#define IMAGE_BITMAP 0
#define IMAGE_ICON 1
#define IMAGE_CURSOR 2
#define LR_DEFAULTCOLOR 0x00000000
#define LR_LOADFROMFILE 0x00000010
#define LR_CREATEDIBSECTION 0x00002000
#define LR_DEFAULTSIZE 0x00000040
#define LR_SHARED 0x00008000

#define SM_CXSCREEN 0
#define SM_CYSCREEN 1
#define SM_CXICON 11
#define SM_CYICON 12
#define SM_CXMENUCHECK 71
#define SM_CYMENUCHECK 72
#define SM_CXSMICON 49
#define SM_CYSMICON 50

typedef struct tagBITMAP
{
    LONG bmType;
    LONG bmWidth;
    LONG bmHeight;
    LONG bmWidthBytes;
    WORD bmPlanes;
    WORD bmBitsPixel;
    LPVOID bmBits;
} BITMAP, *PBITMAP, *LPBITMAP;

typedef struct tagBITMAPINFOHEADER
{
    DWORD biSize;
    LONG biWidth;
    LONG biHeight;
    WORD biPlanes;
    WORD biBitCount;
    DWORD biCompression;
    DWORD biSizeImage;
    LONG biXPelsPerMeter;
    LONG biYPelsPerMeter;
    DWORD biClrUsed;
    DWORD biClrImportant;
} BITMAPINFOHEADER;
#define BI_RGB 0

WINBASEAPI int GetSystemMetrics(int nIndex);
WINBASEAPI HANDLE LoadImageW(HINSTANCE hInst, LPCWSTR name, UINT type, int cx, int cy, UINT fuLoad);
WINBASEAPI BOOL DeleteObject(HGDIOBJ ho);
WINBASEAPI int GetObjectW(HANDLE h, int c, LPVOID pv);
