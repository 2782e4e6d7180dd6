// Kernel objects behind HANDLE values: closing, reading, writing and waiting, whatever the object is (file,
// pipe end, thread). Each area of the stand-in registers its objects in one table (HandleTable.h), so a
// handle from CreateFileW, CreateNamedPipeW or CreateThread goes through the same four calls, as on Windows.
#pragma once

#include "platform/host/Types.h"

#define WAIT_OBJECT_0 0x00000000L
#define WAIT_ABANDONED 0x00000080L
#define WAIT_TIMEOUT 0x00000102L
#define WAIT_FAILED ((DWORD)0xFFFFFFFF)

WINBASEAPI BOOL CloseHandle(HANDLE object);
WINBASEAPI BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                         LPOVERLAPPED overlapped);
WINBASEAPI BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten,
                          LPOVERLAPPED overlapped);
WINBASEAPI DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds);
WINBASEAPI BOOL FlushFileBuffers(HANDLE file);
