// Test control of the stand-in's display: system metrics and the count of live GDI objects.
#pragma once

#include "platform/host/Types.h"

WINBASEAPI void VmHostSetSystemMetric(int index, int value);
// Bitmaps made by LoadImageW and not yet deleted.
WINBASEAPI DWORD VmHostLiveGdiObjects(void);
// Pixels of a bitmap as 0x00RRGGBB, top row first; FALSE for a handle that isn't a live bitmap.
WINBASEAPI BOOL VmHostBitmapPixels(HBITMAP bitmap, DWORD* pixels, DWORD count);
