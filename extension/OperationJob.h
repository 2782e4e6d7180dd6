// The one record that carries a started command from InvokeCommand to its worker thread. It holds copies of
// everything the operation needs and nothing of the extension object, which may be gone long before the
// operation ends. InvokeCommand fills the first ten fields; the worker owns the rest (its progress state).
#pragma once

#include "foundation/WideString.h"
#include "platform/Win32.h"

struct OperationJob
{
    WideString m_pipeKey;       // `K` of the command's drive: names the pipe
    DWORD m_operation = 0;      // operation code: the request's kind, and the progress dialog's wording
    DWORD m_showProgress = 0;   // 0 for OP_QUIET: no progress dialog
    WideString m_sourceList;    // every selected path, each followed by "\n"
    WideString m_driveRootList; // mountPath of every cached drive record, each followed by "\n"
    WideString m_targetFolder;  // empty for a menu on items
    DWORD m_sessionId = 0;
    DWORD m_processId = 0;
    WideString m_reservedText;          // never filled, never read
    DWORD m_reservedValue = 0;          // never read
    WideString m_currentSource;         // path m_sourceItem was last made for
    WideString m_currentTarget;         // path m_targetItem was last made for
    IShellItem* m_sourceItem = nullptr; // owned; released by the worker before the job goes
    IShellItem* m_targetItem = nullptr; // owned; released by the worker before the job goes
    ULONGLONG m_lastUpdateTick = 0;     // GetTickCount64 at the last refresh of the locations; 0 before it
};

// Releases the texts (members go last field first) and frees the record. The two shell items are the
// worker's to release beforehand; a job that never reached a thread has none. A null job does nothing.
void DestroyOperationJob(OperationJob* job) noexcept;
