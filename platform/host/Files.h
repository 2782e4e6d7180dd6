// Files of the stand-in. "X:\..." paths live in host directories, one per drive letter, set with
// VmHostMapDrive (ControlFiles.h) or the environment variable VELMOUNT_DRIVE_X. Names are matched without
// regard to case, as on NTFS, and runs of backslashes count as one. CreateFileW hands "\\.\pipe\" names to
// the pipe area (Pipes.h). Share modes are accepted and not enforced: POSIX has no such locks, and nothing
// here depends on a refused share.
#pragma once

#include "platform/host/Types.h"
#include "platform/host/Handles.h" // CloseHandle, ReadFile, WriteFile

#ifndef GENERIC_READ
#define GENERIC_READ 0x80000000
#endif
#ifndef GENERIC_WRITE
#define GENERIC_WRITE 0x40000000
#endif
#define GENERIC_EXECUTE 0x20000000u
#define GENERIC_ALL 0x10000000u
#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define FILE_SHARE_DELETE 0x00000004
#define CREATE_NEW 1
#define CREATE_ALWAYS 2
#ifndef OPEN_EXISTING
#define OPEN_EXISTING 3
#endif
#define OPEN_ALWAYS 4
#define TRUNCATE_EXISTING 5
#define FILE_ATTRIBUTE_READONLY 0x00000001
#define FILE_ATTRIBUTE_HIDDEN 0x00000002
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020
#define FILE_ATTRIBUTE_NORMAL 0x00000080
#define FILE_FLAG_BACKUP_SEMANTICS 0x02000000
#define ERROR_DIRECTORY 267L
#define INVALID_FILE_ATTRIBUTES ((DWORD)-1)

WINBASEAPI HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                              LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                              DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
WINBASEAPI DWORD GetFileAttributesW(LPCWSTR lpFileName);
WINBASEAPI BOOL CreateDirectoryW(LPCWSTR lpPathName, LPSECURITY_ATTRIBUTES lpSecurityAttributes);
WINBASEAPI BOOL RemoveDirectoryW(LPCWSTR lpPathName);
WINBASEAPI BOOL DeleteFileW(LPCWSTR lpFileName);
// shlwapi.
WINBASEAPI BOOL PathFileExistsW(LPCWSTR pszPath);
WINBASEAPI BOOL PathIsDirectoryW(LPCWSTR pszPath);
