// Named pipes, both ends, with Win32's modes and error codes. A pipe "\\.\pipe\NAME" is an AF_UNIX stream
// socket in a per-user directory ($VELMOUNT_PIPE_DIR, else $XDG_RUNTIME_DIR/velmount-pipes, else
// /tmp/velmount-pipes-<uid>); every message travels behind a 4-byte length of our own, so message reads,
// PIPE_NOWAIT (ERROR_NO_DATA), ERROR_MORE_DATA with the rest kept for the next read, and ERROR_BROKEN_PIPE
// behave as on Windows. Known differences: a client that connects while every instance is busy waits in the
// socket's backlog instead of failing with ERROR_PIPE_BUSY, and writes block until the bytes are queued even
// in PIPE_NOWAIT mode.
#pragma once

#include "platform/host/Types.h"

#define PIPE_ACCESS_INBOUND 0x00000001
#define PIPE_ACCESS_OUTBOUND 0x00000002
#define PIPE_ACCESS_DUPLEX 0x00000003
#define PIPE_TYPE_BYTE 0x00000000
#define PIPE_TYPE_MESSAGE 0x00000004
#define PIPE_READMODE_BYTE 0x00000000
#define PIPE_READMODE_MESSAGE 0x00000002
#define PIPE_WAIT 0x00000000
#define PIPE_NOWAIT 0x00000001
#define PIPE_ACCEPT_REMOTE_CLIENTS 0x00000000
#define PIPE_REJECT_REMOTE_CLIENTS 0x00000008
#define PIPE_UNLIMITED_INSTANCES 255
#define NMPWAIT_USE_DEFAULT_WAIT 0x00000000
#define NMPWAIT_NOWAIT 0x00000001
#define NMPWAIT_WAIT_FOREVER 0xffffffff
#ifndef FILE_FLAG_FIRST_PIPE_INSTANCE
#define FILE_FLAG_FIRST_PIPE_INSTANCE 0x00080000
#endif
#ifndef FILE_FLAG_OVERLAPPED
#define FILE_FLAG_OVERLAPPED 0x40000000
#endif
#ifndef ERROR_OPERATION_ABORTED
#define ERROR_OPERATION_ABORTED 995L
#endif
#ifndef ERROR_BAD_PATHNAME
#define ERROR_BAD_PATHNAME 161L
#endif

WINBASEAPI HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                                   DWORD outBufferSize, DWORD inBufferSize, DWORD defaultTimeOut,
                                   LPSECURITY_ATTRIBUTES securityAttributes);
WINBASEAPI BOOL ConnectNamedPipe(HANDLE pipe, LPOVERLAPPED overlapped);
WINBASEAPI BOOL DisconnectNamedPipe(HANDLE pipe);
WINBASEAPI BOOL WaitNamedPipeW(LPCWSTR name, DWORD timeOut);
WINBASEAPI BOOL SetNamedPipeHandleState(HANDLE pipe, LPDWORD mode, LPDWORD maxCollectionCount,
                                        LPDWORD collectDataTimeout);
WINBASEAPI BOOL PeekNamedPipe(HANDLE pipe, LPVOID buffer, DWORD bufferSize, LPDWORD bytesRead,
                              LPDWORD totalBytesAvail, LPDWORD bytesLeftThisMessage);

// The pipe half of CreateFileW. CreateFileW (the files area) hands every name that VmHostIsPipeName accepts
// to VmHostOpenPipeClient, with its own arguments.
WINBASEAPI BOOL VmHostIsPipeName(LPCWSTR name);
WINBASEAPI HANDLE VmHostOpenPipeClient(LPCWSTR name, DWORD desiredAccess, DWORD shareMode,
                                       LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                                       DWORD flagsAndAttributes);
