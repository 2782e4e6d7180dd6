#include "channel/OperationThread.h"

#include "channel/PipeClient.h"
#include "channel/PipeMessage.h"
#include "channel/ProgressInterpreter.h"
#include "extension/OperationJob.h"
#include "foundation/AtlException.h"
#include "foundation/WideString.h"
#include "module/ModuleLock.h"

#include <memory>

namespace
{
const DWORD IDLE_PAUSE_MILLISECONDS = 10;
const DWORD CLOSING_PAUSE_MILLISECONDS = 100;

// The worker's state for one operation; everything it holds is given back by Finish, on every way out.
class OperationWorker
{
public:
    explicit OperationWorker(OperationJob* job) : m_job(job) {}

    DWORD Run() noexcept
    {
        bool reachedLoop = false;
        HRESULT failure = ComWall(
            [&]() -> HRESULT
            {
                if (!Start())
                    return E_FAIL;
                reachedLoop = true;
                Loop();
                return S_OK;
            });
        Finish();
        return reachedLoop && failure == S_OK ? 0 : static_cast<DWORD>(failure);
    }

private:
    bool Start()
    {
        m_pipeName.Format(TEXT("\\\\.\\pipe\\QX-%s"), static_cast<LPCWSTR>(m_job->m_pipeKey));
        if (!m_client.Open(m_pipeName))
            return false;
        if (m_job->m_showProgress)
        {
            JoinApartment();
            void* made = nullptr;
            if (CoCreateInstance(CLSID_ProgressDialog, nullptr, CLSCTX_INPROC_SERVER,
                                 IID_IOperationsProgressDialog, &made) != S_OK)
            {
                if (made) // a success code other than S_OK still counts as failure: give the object back
                    static_cast<IUnknown*>(made)->Release();
                m_client.Close();
                MessageBoxW(nullptr, TEXT("Create Progress Dialog Failed"), TEXT("File Operation Error"),
                            MB_ICONERROR);
                return false;
            }
            m_dialog = static_cast<IOperationsProgressDialog*>(made);
            m_dialog->SetOperation(SPACTION_CALCULATING);
            m_dialog->SetMode(PDM_DEFAULT);
            m_dialog->StartProgressDialog(nullptr, OPPROGDLG_DEFAULT);
            void* window = nullptr;
            if (m_dialog->QueryInterface(IID_IOleWindow, &window) == S_OK && window)
            {
                m_oleWindow = static_cast<IOleWindow*>(window);
                HWND shown = nullptr;
                m_oleWindow->GetWindow(&shown);
                if (shown)
                    ShowWindow(shown, SW_SHOW);
            }
        }
        // A request that could not be written, or was too large to encode, leaves a service that never
        // heard of this operation: nothing it sends can belong to it. Closing makes the first read end
        // the loop, so the operation ends as after a broken pipe.
        if (!SendRequest(m_client, m_job->m_operation, m_job->m_sourceList, m_job->m_targetFolder,
                         m_job->m_driveRootList, m_job->m_sessionId, m_job->m_processId))
            m_client.Close();
        m_readBuffer = static_cast<BYTE*>(HeapAlloc(GetProcessHeap(), 0, PIPE_MESSAGE_LIMIT));
        if (!m_readBuffer)
            AtlThrow(E_OUTOFMEMORY);
        return true;
    }

    void Loop()
    {
        for (;;)
        {
            if (m_dialog)
            {
                PDOPSTATUS status = PDOPS_RUNNING;
                // One cancel per operation, whether or not its write worked; the loop reads on after it.
                if (m_dialog->GetOperationStatus(&status) == S_OK && status == PDOPS_CANCELLED &&
                    !m_cancelSent)
                {
                    SendCancel(m_client);
                    m_cancelSent = true;
                }
            }
            DWORD count = 0;
            if (!m_client.Read(m_readBuffer, PIPE_MESSAGE_LIMIT, &count))
            {
                if (!m_client.IsOpen())
                    return;
                Sleep(IDLE_PAUSE_MILLISECONDS);
                continue;
            }
            std::unique_ptr<PipeMessage> message(DecodeMessage(m_readBuffer, count));
            if (!message)
                continue; // malformed: dropped, and the next message is read at once
            if (!HandleProgressMessage(m_job, m_dialog, m_job->m_operation, *message, m_counters))
                return;
        }
    }

    // COM on this thread: it joins the multithreaded apartment itself, and only when it is about to make the
    // progress dialog (a quiet operation makes no COM call). Left alone, CoCreateInstance would succeed only
    // where the host process happens to keep a multithreaded apartment, which the thread would then use
    // implicitly; joining it explicitly gives the same apartment without depending on the host. A
    // single-threaded apartment would be wrong here: the thread never pumps messages (it polls and sleeps),
    // and an apartment that does not pump stalls whatever is sent into it, while the system's progress
    // dialog runs its window on a thread of its own and needs no loop from this one. The apartment is left
    // in Finish, after the dialog and the shell items have been released.
    void JoinApartment()
    {
        HRESULT joined = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        m_leaveApartment = joined == S_OK || joined == S_FALSE;
    }

    // The End steps in their order. On a failed start the client is already closed and there is neither
    // dialog nor shell item, so the same steps are then those of the failed start.
    void Finish() noexcept
    {
        m_client.Close();
        if (m_dialog)
        {
            Sleep(CLOSING_PAUSE_MILLISECONDS);
            if (m_oleWindow)
            {
                m_oleWindow->Release();
                m_oleWindow = nullptr;
            }
            m_dialog->StopProgressDialog();
            m_dialog->Release();
            m_dialog = nullptr;
        }
        if (m_job->m_sourceItem)
        {
            m_job->m_sourceItem->Release();
            m_job->m_sourceItem = nullptr;
        }
        if (m_job->m_targetItem)
        {
            m_job->m_targetItem->Release();
            m_job->m_targetItem = nullptr;
        }
        if (m_leaveApartment)
        {
            CoUninitialize();
            m_leaveApartment = false;
        }
        DestroyOperationJob(m_job);
        m_job = nullptr;
        if (m_readBuffer)
        {
            HeapFree(GetProcessHeap(), 0, m_readBuffer);
            m_readBuffer = nullptr;
        }
        m_pipeName.Empty();
    }

    OperationJob* m_job;
    PipeClient m_client;
    WideString m_pipeName;
    IOperationsProgressDialog* m_dialog = nullptr;
    IOleWindow* m_oleWindow = nullptr;
    ProgressCounters m_counters;
    bool m_cancelSent = false;
    bool m_leaveApartment = false;
    BYTE* m_readBuffer = nullptr;
};
} // namespace

// The library stays loaded while the worker runs by two holds. The module's lock, taken by the starter before
// the thread exists, keeps DllCanUnloadNow at S_FALSE from the moment the command is accepted. A loader
// reference on the library that holds this code, taken here, keeps the code mapped over the last
// instructions: the lock is given back first, and FreeLibraryAndExitThread then drops the reference and ends
// the thread without returning into this library, which may be unloaded from that moment on.
DWORD WINAPI OperationThreadProc(LPVOID parameter)
{
    HMODULE self = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                            reinterpret_cast<LPCWSTR>(&OperationThreadProc), &self))
        self = nullptr;
    DWORD exitCode = OperationWorker(static_cast<OperationJob*>(parameter)).Run();
    ModuleLockRelease();
    if (self)
        FreeLibraryAndExitThread(self, exitCode);
    return exitCode;
}
