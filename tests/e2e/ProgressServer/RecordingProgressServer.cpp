// An in-process COM server for CLSID_ProgressDialog that records what the worker tells the dialog. Wine has
// no IOperationsProgressDialog, so the end-to-end run registers this library for the class in its prefix and
// the extension's own CoCreateInstance finds it through the registry, as it would find the system's dialog.
//
// Read from the environment when the library loads:
// - VELMOUNT_PROGRESS_JOURNAL: the file that gets the calls, one a line, when the process lets us go.
// - VELMOUNT_PROGRESS_STATUS: "cancel" makes every dialog report PDOPS_CANCELLED, as after a click on Cancel.
#include "tests/support/ProgressRecorder.h"

#include <string>

namespace
{
TestSupport::ProgressJournal g_journal;
std::string g_journalPath;

class ServerFactory final : public IClassFactory
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IClassFactory))
            return E_NOINTERFACE;
        *object = static_cast<IClassFactory*>(this);
        return S_OK;
    }
    // Static: one factory for the life of the library.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        try
        {
            IOperationsProgressDialog* dialog = TestSupport::NewRecordingDialog(g_journal);
            HRESULT hr = dialog->QueryInterface(iid, object);
            dialog->Release();
            return hr;
        }
        catch (...)
        {
            return E_OUTOFMEMORY;
        }
    }
    // The library never unloads while the process runs (DllCanUnloadNow), so there is nothing to count.
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

ServerFactory g_factory;

std::string Environment(const char* name)
{
    char value[1024] = {};
    DWORD length = GetEnvironmentVariableA(name, value, sizeof(value));
    return length > 0 && length < sizeof(value) ? std::string(value, length) : std::string();
}

void WriteJournal()
{
    if (g_journalPath.empty())
        return;
    std::string text;
    for (const std::string& line : g_journal.Calls())
        text += line + "\n";
    text += "dialogs made " + std::to_string(g_journal.dialogsMade.load()) + ", alive " +
            std::to_string(g_journal.liveDialogs.load()) + "\n";
    HANDLE file = CreateFileA(g_journalPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
}
} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    try
    {
        if (reason == DLL_PROCESS_ATTACH)
        {
            g_journalPath = Environment("VELMOUNT_PROGRESS_JOURNAL");
            if (Environment("VELMOUNT_PROGRESS_STATUS") == "cancel")
                g_journal.status = PDOPS_CANCELLED;
        }
        else if (reason == DLL_PROCESS_DETACH)
        {
            WriteJournal();
        }
    }
    catch (...)
    {
        return reason == DLL_PROCESS_ATTACH ? FALSE : TRUE;
    }
    return TRUE;
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    if (!IsEqualCLSID(clsid, CLSID_ProgressDialog))
        return CLASS_E_CLASSNOTAVAILABLE;
    return g_factory.QueryInterface(iid, object);
}

// Never unloaded while the process runs: the journal is written when the process lets it go.
extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return S_FALSE;
}
