#include "platform/host/BuiltInClasses.h"
#include "platform/host/ControlProgress.h"
#include "platform/host/Kernel.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace
{
// A worker calls UpdateProgress for every report of a stream that may run to tens of thousands a second:
// those calls keep their numbers and are spelled out only when the journal is read, so that recording one
// costs about what the system's dialog costs to take it, not six number conversions.
struct JournalEntry
{
    std::string line; // empty for an UpdateProgress
    ULONGLONG progress[6];
};

std::mutex g_journalLock;
std::vector<JournalEntry> g_journal;
std::atomic<int> g_status{PDOPS_RUNNING};
std::atomic<long> g_liveDialogs{0};

void Note(const std::string& line)
{
    std::lock_guard<std::mutex> guard(g_journalLock);
    g_journal.push_back({line, {}});
}

void NoteProgress(ULONGLONG points, ULONGLONG pointsTotal, ULONGLONG size, ULONGLONG sizeTotal,
                  ULONGLONG items, ULONGLONG itemsTotal)
{
    std::lock_guard<std::mutex> guard(g_journalLock);
    g_journal.push_back({std::string(), {points, pointsTotal, size, sizeTotal, items, itemsTotal}});
}

std::string Line(const JournalEntry& entry)
{
    if (!entry.line.empty())
        return entry.line;
    std::string line = "UpdateProgress";
    for (ULONGLONG value : entry.progress)
        line += " " + std::to_string(value);
    return line;
}

std::string Describe(IShellItem* item)
{
    if (!item)
        return "-";
    std::string path = VmHost::ShellItemPath(item);
    return path.empty() ? "?" : path;
}

// The system's progress dialog as far as the extension can see it: it keeps no window of its own, answers
// GetWindow with a window handle of its own, and reports the status a test sets.
class ProgressDialog final : public IOperationsProgressDialog, public IOleWindow
{
public:
    ProgressDialog() : m_draw(std::getenv("VELMOUNT_PROGRESS_BAR") != nullptr) { ++g_liveDialogs; }
    ~ProgressDialog() { --g_liveDialogs; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (iid == IID_IUnknown || iid == IID_IOperationsProgressDialog)
            *object = static_cast<IOperationsProgressDialog*>(this);
        else if (iid == IID_IOleWindow)
            *object = static_cast<IOleWindow*>(this);
        else
        {
            *object = nullptr;
            return E_NOINTERFACE;
        }
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
        Note("StartProgressDialog " + std::to_string(reinterpret_cast<ULONG_PTR>(owner)) + " " +
             std::to_string(flags));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE StopProgressDialog() override
    {
        Note("StopProgressDialog");
        if (m_draw)
            std::fprintf(stderr, "\n");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetOperation(SPACTION action) override
    {
        Note("SetOperation " + std::to_string(static_cast<int>(action)));
        m_action = action;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetMode(PDMODE mode) override
    {
        Note("SetMode " + std::to_string(mode));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE UpdateProgress(ULONGLONG points, ULONGLONG pointsTotal, ULONGLONG size,
                                             ULONGLONG sizeTotal, ULONGLONG items,
                                             ULONGLONG itemsTotal) override
    {
        NoteProgress(points, pointsTotal, size, sizeTotal, items, itemsTotal);
        if (m_draw && pointsTotal)
        {
            static const char* const kActions[] = {"", "Moving",      "Copying", "", "",        "",
                                                   "", "Calculating", "",        "", "Deleting"};
            const char* action = m_action < 11 ? kActions[m_action] : "";
            unsigned filled =
                static_cast<unsigned>((points > pointsTotal ? pointsTotal : points) * 30 / pointsTotal);
            std::fprintf(stderr, "\r%-11s [%-30.*s] %3llu%%  %llu/%llu items  %llu/%llu bytes", action,
                         static_cast<int>(filled), "##############################",
                         static_cast<unsigned long long>(points * 100 / pointsTotal),
                         static_cast<unsigned long long>(items), static_cast<unsigned long long>(itemsTotal),
                         static_cast<unsigned long long>(size), static_cast<unsigned long long>(sizeTotal));
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE UpdateLocations(IShellItem* source, IShellItem* target,
                                              IShellItem* item) override
    {
        Note("UpdateLocations " + Describe(source) + " " + Describe(target) + " " + Describe(item));
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
        if (!status)
            return E_POINTER;
        *status = static_cast<PDOPSTATUS>(g_status.load());
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetWindow(HWND* window) override
    {
        if (!window)
            return E_POINTER;
        *window = reinterpret_cast<HWND>(this);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ContextSensitiveHelp(BOOL) override { return E_NOTIMPL; }

private:
    std::atomic<ULONG> m_references{1};
    SPACTION m_action = SPACTION_NONE;
    const bool m_draw;
};
} // namespace

namespace VmHost
{
HRESULT CreateProgressDialog(REFIID iid, void** object)
{
    auto* dialog = new ProgressDialog;
    HRESULT hr = dialog->QueryInterface(iid, object);
    static_cast<IOperationsProgressDialog*>(dialog)->Release();
    return hr;
}

std::vector<std::string> ProgressJournal()
{
    std::lock_guard<std::mutex> guard(g_journalLock);
    std::vector<std::string> lines;
    lines.reserve(g_journal.size());
    for (const JournalEntry& entry : g_journal)
        lines.push_back(Line(entry));
    return lines;
}
void ClearProgressJournal()
{
    std::lock_guard<std::mutex> guard(g_journalLock);
    g_journal.clear();
}
void SetProgressStatus(PDOPSTATUS status)
{
    g_status = status;
}
long LiveProgressDialogs()
{
    return g_liveDialogs;
}
} // namespace VmHost
