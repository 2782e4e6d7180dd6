// A progress dialog of our own that records what it is told, for tests on either platform. Registered as the
// class object of CLSID_ProgressDialog in this process, it is what the worker's own CoCreateInstance gets:
// Wine has no IOperationsProgressDialog, and on the host it takes precedence over the stand-in's dialog.
#pragma once

#include "platform/Win32.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace TestSupport
{
// Shared by every dialog a recorder makes: the calls in order, one text line each ("SetOperation 7",
// "UpdateProgress 500 1000 4096 8192 1 2", "UpdateLocations c:\a c:\b c:\a" with "-" for a null item, paths
// in lower case). GetOperationStatus is counted, not listed.
class ProgressJournal
{
public:
    void Add(std::string line);
    std::vector<std::string> Calls() const;
    void Clear();

    std::atomic<int> status{PDOPS_RUNNING};
    std::atomic<HRESULT> statusResult{S_OK}; // what GetOperationStatus answers (it writes `status` anyway)
    std::atomic<int> statusQueries{0};
    std::atomic<long> liveDialogs{0};
    std::atomic<int> dialogsMade{0};
    std::atomic<bool> offerWindow{true}; // whether QueryInterface(IID_IOleWindow) succeeds

private:
    mutable std::mutex m_lock;
    std::vector<std::string> m_calls;
};

// One dialog, reference-counted as COM objects are; created with one reference.
IOperationsProgressDialog* NewRecordingDialog(ProgressJournal& journal);

// For its lifetime, CoCreateInstance(CLSID_ProgressDialog) in this process gives recording dialogs, or fails
// with REGDB_E_CLASSNOTREG when `failCreation` is set. Joins the multithreaded apartment for as long.
class ProgressDialogRegistration
{
public:
    explicit ProgressDialogRegistration(bool failCreation = false);
    ~ProgressDialogRegistration();
    ProgressDialogRegistration(const ProgressDialogRegistration&) = delete;
    ProgressDialogRegistration& operator=(const ProgressDialogRegistration&) = delete;

    bool Registered() const { return m_cookie != 0; }
    ProgressJournal journal;

private:
    IClassFactory* m_factory = nullptr;
    DWORD m_cookie = 0;
    bool m_leaveApartment = false;
};

// The path a shell item stands for, in UTF-8 and ASCII lower case ("?" if it has none).
std::string ItemPath(IShellItem* item);
// UTF-16 text as UTF-8, and back.
std::string Narrow(LPCWSTR text);
} // namespace TestSupport
