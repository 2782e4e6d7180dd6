// The state machine of an operation as the client sees it: every decoded message from the service goes
// through HandleProgressMessage, which keeps the counters, drives the progress dialog (if there is one) and
// says whether the exchange goes on. Pure over the dialog interface: the clock and the shell items are its
// only other contacts with the system.
#pragma once

#include "channel/PipeMessage.h"
#include "extension/OperationJob.h"
#include "platform/Win32.h"

// Held by the worker, all zero at the start of an operation, carried from message to message.
struct ProgressCounters
{
    ULONGLONG itemsDone = 0;
    ULONGLONG itemsTotal = 0;
    ULONGLONG bytesDone = 0;
    ULONGLONG bytesTotal = 0;
};

// The dialog's scale: UpdateProgress always gets points out of this many.
constexpr ULONGLONG PROGRESS_POINTS_TOTAL = 1000;
// The locations (shell items of the current source and target) change at most this often.
constexpr ULONGLONG LOCATION_REFRESH_MILLISECONDS = 1000;

// Non-zero to go on reading, 0 when the exchange has ended. `dialog` may be null: the counters change and the
// result is the same. `operation` is the job's m_operation; the message is not kept.
int HandleProgressMessage(OperationJob* job, IOperationsProgressDialog* dialog, DWORD operation,
                          const PipeMessage& message, ProgressCounters& counters);

// bytesDone * 1000 / bytesTotal in unsigned 64-bit arithmetic (not capped at 1000), or 0 without a total.
ULONGLONG ComputeProgressPoints(const ProgressCounters& counters);
