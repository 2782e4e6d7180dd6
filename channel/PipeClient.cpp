#include "channel/PipeClient.h"

#include "channel/PipeMessage.h"

namespace
{
const DWORD PIPE_WAIT_MILLISECONDS = 1000;
// Whole messages, and reads that return at once when nothing is waiting: the worker polls.
const DWORD CLIENT_PIPE_MODE = PIPE_READMODE_MESSAGE | PIPE_NOWAIT;

// "\\.\pipe\" and one name after it, nothing else. The name's tail is a marker's key, taken as written from
// a file on any drive; a separator in it would let that file choose where the file manager's process
// connects: the system takes "/" for "\" and resolves ".." in a "\\.\" name, so "QX-k\..\..\C:\x" is a
// file, and "QX-k\other" a pipe that no Velmount service created.
bool IsOnePipeName(LPCWSTR name)
{
    const WCHAR prefix[] = TEXT("\\\\.\\pipe\\");
    const int prefixLength = sizeof(prefix) / sizeof(prefix[0]) - 1;
    if (!name)
        return false;
    for (int i = 0; i < prefixLength; ++i)
        if (name[i] != prefix[i])
            return false;
    if (!name[prefixLength])
        return false;
    for (LPCWSTR at = name + prefixLength; *at; ++at)
        if (*at == TEXT('\\') || *at == TEXT('/'))
            return false;
    return true;
}
} // namespace

int PipeClient::Open(LPCWSTR name)
{
    if (m_handle != INVALID_HANDLE_VALUE)
        return 1;
    if (!IsOnePipeName(name))
        return 0;
    if (!WaitNamedPipeW(name, PIPE_WAIT_MILLISECONDS))
        return 0;
    m_handle = CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (m_handle == INVALID_HANDLE_VALUE)
        return 0;
    DWORD mode = CLIENT_PIPE_MODE;
    if (SetNamedPipeHandleState(m_handle, &mode, nullptr, nullptr))
    {
        m_opened = 1;
        m_draining = false;
        return 1;
    }
    Close();
    return 0;
}

void PipeClient::Close()
{
    if (m_handle == INVALID_HANDLE_VALUE)
        return;
    m_opened = 0;
    CloseHandle(m_handle);
    m_handle = INVALID_HANDLE_VALUE;
}

int PipeClient::Read(BYTE* buffer, DWORD capacity, DWORD* count)
{
    // Without a handle there is nothing to read from; asking the system would read from the pseudo-handle
    // that INVALID_HANDLE_VALUE also is.
    if (m_handle == INVALID_HANDLE_VALUE)
        return 0;
    // The rest of an oversized message: read into the caller's buffer, whose content is given up anyway,
    // until the message's last part has come out.
    while (m_draining)
    {
        DWORD got = 0;
        if (ReadFile(m_handle, buffer, capacity, &got, nullptr))
        {
            m_draining = false;
            break;
        }
        DWORD error = GetLastError();
        if (error == ERROR_MORE_DATA && got)
            continue;
        if (error != ERROR_NO_DATA && error != ERROR_MORE_DATA)
        {
            m_opened = 0;
            m_draining = false;
            *count = 0;
        }
        return 0;
    }
    DWORD total = 0;
    BYTE* at = buffer;
    DWORD room = capacity;
    for (;;)
    {
        DWORD got = 0;
        if (ReadFile(m_handle, at, room, &got, nullptr))
        {
            *count = total + got;
            return 1;
        }
        DWORD error = GetLastError();
        if (error == ERROR_NO_DATA)
            return 0;
        if (error == ERROR_MORE_DATA)
        {
            total += got;
            at += got;
            room -= got;
            if (room)
                continue;
            *count = total;
            m_draining = true;
            return 0;
        }
        m_opened = 0;
        *count = total;
        return 0;
    }
}

int PipeClient::WriteMessage(const PipeMessage& message)
{
    if (m_handle == INVALID_HANDLE_VALUE)
        return 0;
    BYTE* buffer = static_cast<BYTE*>(HeapAlloc(GetProcessHeap(), 0, PIPE_MESSAGE_LIMIT));
    if (!buffer)
        return 0;
    DWORD size = EncodeMessage(message, buffer, PIPE_MESSAGE_LIMIT);
    int written = size ? Write(buffer, size) : 0;
    HeapFree(GetProcessHeap(), 0, buffer);
    return written;
}

int PipeClient::Write(const BYTE* bytes, DWORD size)
{
    DWORD written = 0; // not examined: a short write goes unnoticed
    if (WriteFile(m_handle, bytes, size, &written, nullptr))
        return 1;
    if (GetLastError() == ERROR_IO_PENDING)
        return 1;
    m_opened = 0;
    return 0;
}
