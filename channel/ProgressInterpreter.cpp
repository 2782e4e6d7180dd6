#include "channel/ProgressInterpreter.h"

#include "extension/MenuPlan.h" // the operation codes

namespace
{
const int GO_ON = 1;
const int END = 0;

bool IsProgressKind(DWORD kind)
{
    return kind == 21 || kind == 22 || kind == 23 || kind == 31 || kind == 32 || kind == 33;
}

void UpdateProgress(IOperationsProgressDialog* dialog, ULONGLONG points, const ProgressCounters& counters)
{
    if (dialog)
        dialog->UpdateProgress(points, PROGRESS_POINTS_TOTAL, counters.bytesDone, counters.bytesTotal,
                               counters.itemsDone, counters.itemsTotal);
}

// The dialog's wording follows what was asked for, not what the service says it is doing.
void SetOperationByRequest(IOperationsProgressDialog* dialog, DWORD operation)
{
    switch (static_cast<LONG>(operation))
    {
    case OP_QUICK_COPY:
        dialog->SetOperation(SPACTION_COPYING);
        break;
    case OP_QUICK_MOVE:
        dialog->SetOperation(SPACTION_MOVING);
        break;
    case OP_QUICK_DELETE:
        dialog->SetOperation(SPACTION_DELETING);
        break;
    default:
        break; // a code from the marker: the dialog keeps the action it had
    }
}

// Makes a new item when the message names a path other than the remembered one. A failed attempt still
// remembers the path, so the same path is not tried again until it changes. True if the path changed.
bool RefreshItem(const WideString& path, WideString& current, IShellItem*& item)
{
    if (path.IsEmpty() || path == current)
        return false;
    if (item)
    {
        item->Release();
        item = nullptr;
    }
    current = path;
    IShellItem* made = nullptr;
    if (SHCreateItemFromParsingName(path, nullptr, IID_IShellItem, reinterpret_cast<void**>(&made)) == S_OK)
        item = made;
    else if (made)
        made->Release(); // a failure that still handed out an object
    return true;
}

void RefreshLocations(OperationJob* job, IOperationsProgressDialog* dialog, const PipeMessage& message)
{
    // The time test comes first: within the second, not even the paths are compared.
    if (job->m_lastUpdateTick != 0 &&
        GetTickCount64() - job->m_lastUpdateTick < LOCATION_REFRESH_MILLISECONDS)
        return;
    job->m_lastUpdateTick = GetTickCount64();
    bool changed = RefreshItem(message.m_source, job->m_currentSource, job->m_sourceItem);
    changed = RefreshItem(message.m_target, job->m_currentTarget, job->m_targetItem) || changed;
    if (changed && job->m_sourceItem)
        dialog->UpdateLocations(job->m_sourceItem, job->m_targetItem, job->m_sourceItem);
}

int HandleProgressKind(OperationJob* job, IOperationsProgressDialog* dialog, DWORD operation,
                       const PipeMessage& message, ProgressCounters& counters)
{
    switch (message.m_phase)
    {
    case MSG_PHASE_CALCULATING:
        if (dialog)
            dialog->SetOperation(SPACTION_CALCULATING);
        return GO_ON;
    case MSG_PHASE_TOTALS:
        counters.itemsDone = 0;
        counters.itemsTotal = message.m_values[0];
        counters.bytesTotal = message.m_values[1];
        if (dialog)
        {
            dialog->SetMode(PDM_RUN);
            SetOperationByRequest(dialog, operation);
        }
        UpdateProgress(dialog, 0, counters);
        return GO_ON;
    case MSG_PHASE_PROGRESS:
        counters.itemsDone = message.m_values[0];
        counters.bytesDone = message.m_values[1];
        // Totals come along only when the service has them; a value that is negative as a signed number is
        // no total either.
        if (static_cast<LONGLONG>(message.m_values[2]) > 0)
            counters.itemsTotal = message.m_values[2];
        if (static_cast<LONGLONG>(message.m_values[3]) > 0)
            counters.bytesTotal = message.m_values[3];
        if (dialog)
            RefreshLocations(job, dialog, message);
        UpdateProgress(dialog, ComputeProgressPoints(counters), counters);
        return GO_ON;
    case MSG_PHASE_FINAL:
        counters.itemsDone = message.m_values[0];
        counters.bytesDone = message.m_values[1];
        UpdateProgress(dialog, ComputeProgressPoints(counters), counters);
        return END;
    case MSG_PHASE_STOP:
        return END;
    default:
        return GO_ON;
    }
}
} // namespace

ULONGLONG ComputeProgressPoints(const ProgressCounters& counters)
{
    if (counters.bytesTotal == 0)
        return 0;
    return counters.bytesDone * PROGRESS_POINTS_TOTAL / counters.bytesTotal;
}

int HandleProgressMessage(OperationJob* job, IOperationsProgressDialog* dialog, DWORD operation,
                          const PipeMessage& message, ProgressCounters& counters)
{
    if (IsProgressKind(message.m_kind))
        return HandleProgressKind(job, dialog, operation, message, counters);
    if (message.m_kind == MSG_KIND_NOTICE)
        return GO_ON;
    if (message.m_kind == MSG_KIND_END)
        return END;
    // Kind 51 and every other kind: only the ending phases mean anything. Kind 51 reports the whole scale
    // and changes no counter; the others report what they did.
    switch (message.m_phase)
    {
    case MSG_PHASE_FINAL:
        if (message.m_kind == MSG_KIND_QUIET)
            UpdateProgress(dialog, PROGRESS_POINTS_TOTAL, counters);
        else
        {
            counters.itemsDone = message.m_values[0];
            counters.bytesDone = message.m_values[1];
            UpdateProgress(dialog, counters.bytesTotal ? PROGRESS_POINTS_TOTAL : 0, counters);
        }
        return END;
    case MSG_PHASE_STOP:
        return END;
    default:
        return GO_ON;
    }
}
