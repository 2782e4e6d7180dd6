#include "tests/support/ProgressRecorder.h"

namespace TestSupport
{
void ProgressJournal::Add(std::string line)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_calls.push_back(std::move(line));
}

std::vector<std::string> ProgressJournal::Calls() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_calls;
}

void ProgressJournal::Clear()
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_calls.clear();
}

std::string Narrow(LPCWSTR text)
{
    if (!text || !*text)
        return std::string();
    int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string result(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    if (size > 0)
        WideCharToMultiByte(CP_UTF8, 0, text, -1, &result[0], size, nullptr, nullptr);
    if (!result.empty())
        result.pop_back(); // the terminator
    return result;
}

std::string ItemPath(IShellItem* item)
{
    if (!item)
        return "-";
    LPWSTR name = nullptr;
    if (item->GetDisplayName(SIGDN_FILESYSPATH, &name) != S_OK || !name)
        return "?";
    std::string path = Narrow(name);
    CoTaskMemFree(name);
    // The shell spells an item's path as the file system does, whatever spelling it was parsed from
    // (C:\Windows\Fonts on Windows, C:\windows\Fonts under Wine for "C:\windows\fonts"): compared in lower
    // case.
    for (char& c : path)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return path;
}

namespace
{
class RecordingDialog final : public IOperationsProgressDialog, public IOleWindow
{
public:
    explicit RecordingDialog(ProgressJournal& journal) : m_journal(journal)
    {
        ++m_journal.liveDialogs;
        ++m_journal.dialogsMade;
    }
    ~RecordingDialog() { --m_journal.liveDialogs; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IOperationsProgressDialog))
            *object = static_cast<IOperationsProgressDialog*>(this);
        else if (IsEqualIID(iid, IID_IOleWindow) && m_journal.offerWindow)
            *object = static_cast<IOleWindow*>(this);
        else
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        ULONG left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }

    HRESULT STDMETHODCALLTYPE StartProgressDialog(HWND owner, OPPROGDLGF flags) override
    {
        m_journal.Add("StartProgressDialog " + std::to_string(reinterpret_cast<ULONG_PTR>(owner)) + " " +
                      std::to_string(flags));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE StopProgressDialog() override
    {
        m_journal.Add("StopProgressDialog");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetOperation(SPACTION action) override
    {
        m_journal.Add("SetOperation " + std::to_string(static_cast<int>(action)));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetMode(PDMODE mode) override
    {
        m_journal.Add("SetMode " + std::to_string(mode));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE UpdateProgress(ULONGLONG points, ULONGLONG pointsTotal, ULONGLONG size,
                                             ULONGLONG sizeTotal, ULONGLONG items,
                                             ULONGLONG itemsTotal) override
    {
        m_journal.Add("UpdateProgress " + std::to_string(points) + " " + std::to_string(pointsTotal) + " " +
                      std::to_string(size) + " " + std::to_string(sizeTotal) + " " + std::to_string(items) +
                      " " + std::to_string(itemsTotal));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE UpdateLocations(IShellItem* source, IShellItem* target,
                                              IShellItem* item) override
    {
        m_journal.Add("UpdateLocations " + ItemPath(source) + " " + ItemPath(target) + " " + ItemPath(item));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ResetTimer() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE PauseTimer() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE ResumeTimer() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetMilliseconds(ULONGLONG* elapsed, ULONGLONG* remaining) override
    {
        if (elapsed)
            *elapsed = 0;
        if (remaining)
            *remaining = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetOperationStatus(PDOPSTATUS* status) override
    {
        ++m_journal.statusQueries;
        if (!status)
            return E_POINTER;
        *status = static_cast<PDOPSTATUS>(m_journal.status.load());
        return m_journal.statusResult.load();
    }

    // No real window: a handle no window has, so ShowWindow is asked and does nothing.
    HRESULT STDMETHODCALLTYPE GetWindow(HWND* window) override
    {
        if (!window)
            return E_POINTER;
        *window = reinterpret_cast<HWND>(static_cast<ULONG_PTR>(0x7FF0));
        m_journal.Add("GetWindow");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ContextSensitiveHelp(BOOL) override { return E_NOTIMPL; }

private:
    ProgressJournal& m_journal;
    std::atomic<ULONG> m_references{1};
};

class RecorderFactory final : public IClassFactory
{
public:
    RecorderFactory(ProgressJournal& journal, bool failCreation) : m_journal(journal), m_fail(failCreation) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IClassFactory))
            return E_NOINTERFACE;
        *object = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        ULONG left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        if (m_fail)
            return REGDB_E_CLASSNOTREG;
        IOperationsProgressDialog* dialog = NewRecordingDialog(m_journal);
        HRESULT hr = dialog->QueryInterface(iid, object);
        dialog->Release();
        return hr;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    ProgressJournal& m_journal;
    const bool m_fail;
    std::atomic<ULONG> m_references{1};
};
} // namespace

IOperationsProgressDialog* NewRecordingDialog(ProgressJournal& journal)
{
    return new RecordingDialog(journal);
}

ProgressDialogRegistration::ProgressDialogRegistration(bool failCreation)
{
    HRESULT joined = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    m_leaveApartment = joined == S_OK || joined == S_FALSE;
    m_factory = new RecorderFactory(journal, failCreation);
    if (CoRegisterClassObject(CLSID_ProgressDialog, m_factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                              &m_cookie) != S_OK)
        m_cookie = 0;
}

ProgressDialogRegistration::~ProgressDialogRegistration()
{
    if (m_cookie)
        CoRevokeClassObject(m_cookie);
    m_factory->Release();
    if (m_leaveApartment)
        CoUninitialize();
}
} // namespace TestSupport
