// The client end of the service's pipe: opens it, makes it a non-blocking message pipe, moves whole messages
// and remembers whether the connection is still good. It knows nothing of what the messages mean, and
// belongs to one worker thread.
//
//   Closed     no handle                 IsOpen 0
//   Connected  handle, good connection   IsOpen 1
//   Broken     handle, failed read/write IsOpen 0   (the handle stays until Close)
#pragma once

#include "platform/Win32.h"

struct PipeMessage;

class PipeClient
{
public:
    PipeClient() = default;
    ~PipeClient() { Close(); }
    PipeClient(const PipeClient&) = delete;
    PipeClient& operator=(const PipeClient&) = delete;

    // 1 if connected (at once if a handle is held already), 0 if not. WaitNamedPipeW's 1000 ms are the only
    // wait; a failure after it, a busy pipe among them, is not retried. A name that is not "\\.\pipe\" and
    // one name after it is refused before any system call.
    int Open(LPCWSTR name);
    int IsOpen() const { return m_handle == INVALID_HANDLE_VALUE ? 0 : m_opened; }
    // Harmless on a closed client: the worker calls it more than once on its way out.
    void Close();

    // Non-zero if a whole message now lies in `buffer`, with its size in `count`. 0 has three meanings, told
    // apart by IsOpen: nothing waiting (count untouched), a message larger than `capacity` (count =
    // capacity; the rest of that message is thrown away by the next Read and never taken for a message of its
    // own), or a failed connection.
    int Read(BYTE* buffer, DWORD capacity, DWORD* count);

    // Encodes the message and writes it in one write. Non-zero if the write counts as done; 0 without a
    // handle, without memory, for a message past PIPE_MESSAGE_LIMIT (nothing is sent), or when the write
    // failed.
    int WriteMessage(const PipeMessage& message);

private:
    int Write(const BYTE* bytes, DWORD size);

    HANDLE m_handle = INVALID_HANDLE_VALUE;
    int m_opened = 0;
    // Set when a message did not fit: its rest is still in the pipe, and must go before the next message.
    bool m_draining = false;
};
