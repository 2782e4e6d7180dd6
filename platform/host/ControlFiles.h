// Test control of the stand-in's drives: which host directory stands behind a drive letter.
#pragma once

#include "platform/host/Types.h"

// Maps the letter (either case) to a host directory; a null directory removes the mapping, after which the
// environment variable VELMOUNT_DRIVE_<letter> is consulted again.
WINBASEAPI void VmHostMapDrive(WCHAR letter, const char* hostDirectory);
// The host path behind a Windows path, or an empty string when the drive isn't mapped. Existing components
// are matched without regard to case; missing ones are taken as written.
WINBASEAPI BOOL VmHostTranslatePath(LPCWSTR windowsPath, char* hostPath, DWORD hostPathSize);
