// From the chosen menu item to a running operation. Everything the operation needs is frozen into one job
// record here; a worker thread takes it over and this object never looks at it again. Nothing here touches
// a file or waits for the service.
#include "channel/OperationThread.h"
#include "channel/PipeMessage.h"
#include "extension/CopyMoveExtension.h"
#include "extension/MenuPlan.h"
#include "extension/OperationJob.h"
#include "foundation/AtlException.h"
#include "module/ModuleLock.h"

#include <cstring>
#include <memory>

namespace
{
// UTF-16 units of the source list, newlines included; a list of exactly this many still goes.
constexpr int SOURCE_LIST_LIMIT = 512000;

struct JobDestroyer
{
    void operator()(OperationJob* job) const noexcept { DestroyOperationJob(job); }
};
typedef std::unique_ptr<OperationJob, JobDestroyer> JobHolder;

void AppendLine(WideString& list, const WideString& line)
{
    list.Append(line);
    list.Append(TEXT("\n"));
}

void ShowTooManyFiles()
{
    MessageBoxW(nullptr, TEXT("Velmount : Too Many Files To Process"), TEXT("Velmount Error"), MB_ICONHAND);
}

bool ConfirmDelete(size_t count)
{
    WCHAR text[128];
    if (count == 1)
        wsprintfW(text, TEXT("Are you sure you want to remove this item?"));
    else
        wsprintfW(text, TEXT("Are you sure you want to remove these %d items?"), static_cast<int>(count));
    return ShellMessageBoxW(g_moduleInstance, nullptr, text, TEXT("Velmount Delete Confirmation"),
                            MB_YESNO | MB_ICONEXCLAMATION) == IDYES;
}
} // namespace

HRESULT CVelmountCopyMoveExtension::InvokeCommand(CMINVOKECOMMANDINFO* pici)
{
    return ComWall(
        [&]() -> HRESULT
        {
            OutputDebugStringW(TEXT("Velmount Copy Extension : InvokeCommand"));
            if (m_chooserCancelled)
                return S_OK; // the default item of a menu whose chooser the user closed: nothing to do
            if (!pici)
                return E_INVALIDARG;
            ULONG_PTR verbValue = reinterpret_cast<ULONG_PTR>(pici->lpVerb);
            if (verbValue >> 16)
                return E_INVALIDARG; // text verbs are not offered
            UINT verb = static_cast<UINT>(verbValue & 0xFFFF);

            const MenuCommandEntry* command = nullptr;
            for (POSITION position = m_menuCommands.GetHeadPosition(); position && !command;)
            {
                const MenuCommandEntry* entry = m_menuCommands.GetNext(position);
                if (entry->m_position == verb)
                    command = entry;
            }
            if (!command || command->m_operation == 0)
                return E_FAIL;
            WideString key = command->m_key;
            if (key.IsEmpty())
            {
                if (!m_targetDrive || m_targetDrive->key.IsEmpty())
                    return E_FAIL;
                key = m_targetDrive->key;
            }

            DWORD showProgress = 1;
            if (command->m_operation == OP_QUICK_DELETE)
            {
                if (!ConfirmDelete(m_selectedFiles.GetCount()))
                    return E_FAIL;
            }
            else if (command->m_operation == OP_QUIET)
            {
                showProgress = 0;
                // A background menu has no selection of its own: the folder is the operation's one source.
                if (m_backgroundContext)
                    m_selectedFiles.AddHead(m_targetFolder);
            }

            JobHolder job(new OperationJob);
            job->m_pipeKey = key;
            job->m_operation = static_cast<DWORD>(command->m_operation);
            job->m_showProgress = showProgress;
            job->m_targetFolder = m_targetFolder;
            job->m_sessionId = m_sessionId;
            job->m_processId = m_processId;

            // The list is measured first (as far as the limit) and then written in one piece: appended path
            // by path, a list of thousands of paths was regrown and copied a dozen times, and even in room
            // taken beforehand each append cost more than the copy of its path.
            long long listLength = 0;
            for (POSITION position = m_selectedFiles.GetHeadPosition();
                 position && listLength <= SOURCE_LIST_LIMIT;)
                listLength += m_selectedFiles.GetNext(position).GetLength() + 1;
            if (listLength > SOURCE_LIST_LIMIT)
            {
                ShowTooManyFiles();
                return E_FAIL;
            }
            WCHAR* line = job->m_sourceList.GetBuffer(static_cast<int>(listLength));
            for (POSITION position = m_selectedFiles.GetHeadPosition(); position;)
            {
                const WideString& path = m_selectedFiles.GetNext(position);
                std::memcpy(line, path.GetString(), static_cast<size_t>(path.GetLength()) * sizeof(WCHAR));
                line += path.GetLength();
                *line++ = TEXT('\n');
            }
            job->m_sourceList.ReleaseBuffer(static_cast<int>(listLength));
            for (POSITION position = m_driveCache.GetStartPosition(); position;)
                AppendLine(job->m_driveRootList, m_driveCache.GetNextValue(position)->mountPath);

            // A list within the character limit can still encode to more than one message may carry (text
            // outside Latin-1 takes up to three bytes a unit). Refused here, where the user learns of it,
            // rather than by a worker that could only fail silently.
            if (EncodedRequestSize(job->m_sourceList, job->m_targetFolder, job->m_driveRootList) >
                PIPE_MESSAGE_LIMIT)
            {
                ShowTooManyFiles();
                return E_FAIL;
            }

            // The worker counts in the module's lock from before it exists until its last act, so the
            // library stays loaded for it even after this object is gone.
            ModuleLockAcquire();
            DWORD threadId = 0;
            HANDLE thread = CreateThread(nullptr, 0, OperationThreadProc, job.get(), 0, &threadId);
            if (!thread)
            {
                ModuleLockRelease();
                ShellMessageBoxW(g_moduleInstance, nullptr, TEXT("Progress Thread Creation Failed"),
                                 TEXT("ERROR"), MB_ICONHAND);
                return E_FAIL;
            }
            job.release(); // the worker's now, on every one of its ways out
            CloseHandle(thread);
            return S_OK;
        });
}
