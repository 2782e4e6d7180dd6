// Every allocation the library's code makes on the caller's thread, failed one at a time: for each shape of
// menu, the file manager's whole road (class object, CreateInstance, Initialize, QueryContextMenu,
// InvokeCommand, Release), registration and unregistration, and on its own thread the worker of one
// operation from connection to the ending report. Each call answers its normal result or a
// failure code; nothing is thrown past a COM method, and (under LeakSanitizer) nothing is left behind.
// Host only: the failures are injected by this program's operator new and link-time wrapping.
#include "channel/OperationThread.h"
#include "extension/CopyMoveExtension.h"
#include "extension/OperationJob.h"
#include "module/ComModule.h"
#include "module/ModuleLock.h"
#include "module/Registration.h"
#include "module/RegistryScript.h"
#include "module/ScriptExpansion.h"
#include "tests/channel/UniqueKey.h"
#include "tests/reliability/AllocationFailure/FailingAllocator.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/MessageBoxWatch.h"
#include "tests/support/World.h"
#include "tools/FakeService/FakeService.h"

#include "platform/host/ControlRegistry.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

STDAPI DllCanUnloadNow();
STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* out);

using namespace TestSupport;

namespace
{
const HRESULT NOT_CALLED = static_cast<HRESULT>(0xDEADBEEF);
const HRESULT THROWN = static_cast<HRESULT>(0xBADBAD00);

// The results of one pass, in call order; a step not reached keeps NOT_CALLED.
struct Results
{
    std::vector<HRESULT> codes;
    bool thrown = false;
};

// Waits until every object and worker has given the module's lock back.
bool LibraryIdle()
{
    for (int waited = 0; waited < 20000; waited += 5)
    {
        if (DllCanUnloadNow() == S_OK)
            return true;
        Sleep(5);
    }
    return false;
}

enum class Shape
{
    Drop,       // files dragged from a plain folder onto a managed one
    Items,      // files of a managed folder selected
    Background, // a managed folder's background
};

const char* const SHAPE_NAMES[] = {"drop", "items", "background"};

class AllocationFailure : public testing::TestWithParam<Shape>
{
protected:
    void SetUp() override
    {
        g_moduleInstance = GetModuleHandleW(nullptr);
        // No service listens on this key: a started worker fails to connect and ends on its own.
        drive.WriteMarker(
            TEXT("Managed"),
            TEXT("K=allocation-failure-nobody|CI=T|MI=T|DA=1|FMI=Sync now=51|RM=\\Managed\\.Velmount"));
        drive.MakeFolder(TEXT("Plain"));
        ASSERT_TRUE(CVelmountCopyMoveExtension::GetUserSidString(sid));
        SetUseValue(sid, 1);
        SetClipboardFormats({});
        SetKeysDown({});
    }
    void TearDown() override { RemoveUseValue(sid); }

    // One pass of the file manager's road; what it needs from outside is made before the count starts.
    Results Road(long failAt)
    {
        Shape shape = GetParam();
        const std::basic_string<WCHAR> from = shape == Shape::Drop ? TEXT("Plain\\") : TEXT("Managed\\");
        std::vector<WideString> paths = {drive.Path((from + TEXT("a.txt")).c_str()),
                                         drive.Path((from + TEXT("b.txt")).c_str())};
        DropDataObject* data = shape == Shape::Background ? nullptr : DropDataObject::Create(paths);
        std::unique_ptr<ItemIdList> folder;
        if (shape != Shape::Items)
            folder.reset(new ItemIdList(drive.Path(TEXT("Managed"))));
        HMENU menu = CreatePopupMenu();
        AppendMenuW(menu, MF_STRING, 1, TEXT("Copy here"));
        AppendMenuW(menu, MF_STRING, 2, TEXT("Move here"));
        SetMenuDefaultItem(menu, 2, FALSE);
        Results results;
        results.codes.assign(7, NOT_CALLED);
        CMINVOKECOMMANDINFO info = {};
        info.cbSize = sizeof(info);
        // The extension's first item, after its separator: Quick Copy, or the marker's own item on a
        // background.
        info.lpVerb = reinterpret_cast<LPCSTR>(static_cast<UINT_PTR>(1));

        IClassFactory* factory = nullptr;
        IShellExtInit* init = nullptr;
        IContextMenu* contextMenu = nullptr;
        FailingAllocator::Arm(failAt);
        try
        {
            results.codes[0] = DllGetClassObject(CLSID_VelmountCopyMoveExtension, IID_IClassFactory,
                                                 reinterpret_cast<void**>(&factory));
            if (results.codes[0] == S_OK)
            {
                results.codes[1] =
                    factory->CreateInstance(nullptr, IID_IShellExtInit, reinterpret_cast<void**>(&init));
                factory->Release();
            }
            if (results.codes[1] == S_OK)
            {
                results.codes[2] = init->Initialize(folder ? folder->Get() : nullptr, data, nullptr);
                results.codes[3] =
                    init->QueryInterface(IID_IContextMenu, reinterpret_cast<void**>(&contextMenu));
                init->Release();
            }
            if (results.codes[3] == S_OK)
            {
                results.codes[4] = contextMenu->QueryContextMenu(menu, 0, 100, 0x7FFF, CMF_NORMAL);
                results.codes[5] = contextMenu->InvokeCommand(&info);
                results.codes[6] = static_cast<HRESULT>(contextMenu->Release());
            }
        }
        catch (...)
        {
            results.thrown = true;
        }
        lastCount = FailingAllocator::Disarm();
        DestroyMenu(menu);
        if (data)
            data->Release();
        return results;
    }

    ManagedDrive drive;
    MessageBoxWatch boxes;
    WCHAR sid[SID_BUFFER_CAPACITY] = {};
    long lastCount = 0;
};

std::string Hex(HRESULT code)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
    return text;
}

// An empty registry but for the approved list, which only an administrator's setup makes.
void FreshRegistry()
{
    VmHostRegistryReset();
    HKEY approved = nullptr;
    ASSERT_EQ(
        ERROR_SUCCESS,
        RegCreateKeyExW(HKEY_LOCAL_MACHINE,
                        TEXT("Software\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\Approved"), 0,
                        nullptr, 0, KEY_ALL_ACCESS, nullptr, &approved, nullptr));
    RegCloseKey(approved);
}

// A failed allocation may end a step with a failure code or, where the step reports none, leave it as the
// normal result; it never makes an unrelated success appear, and never throws.
void ExpectNormalOrFailure(const Results& normal, const Results& got, long k)
{
    EXPECT_FALSE(got.thrown) << "k=" << k;
    for (size_t step = 0; step < normal.codes.size(); ++step)
    {
        HRESULT code = got.codes[step];
        if (code == normal.codes[step] || code == NOT_CALLED)
            continue;
        if (step == 6) // the count Release returns, 0 as in the normal pass
            ADD_FAILURE() << "k=" << k << ": Release left " << code << " references";
        else if (step == 4 && SUCCEEDED(code) && (code & 0xFFFF) < (normal.codes[4] & 0xFFFF))
            continue; // a menu that could not be completed reports the items it did add
        else
            EXPECT_TRUE(FAILED(code)) << "k=" << k << ", step " << step << ": " << Hex(code) << " instead of "
                                      << Hex(normal.codes[step]);
    }
}
} // namespace

TEST_P(AllocationFailure, EveryAllocationOfTheMenuRoadFailsCleanly)
{
    Results normal = Road(0); // the class object is made once per process: count without it
    normal = Road(0);
    long allocations = lastCount;
    ASSERT_FALSE(normal.thrown);
    ASSERT_EQ(S_OK, normal.codes[2]);
    ASSERT_TRUE(SUCCEEDED(normal.codes[4]) && (normal.codes[4] & 0xFFFF) > 0) << Hex(normal.codes[4]);
    ASSERT_EQ(S_OK, normal.codes[5]);
    ASSERT_TRUE(LibraryIdle());
    ASSERT_GT(allocations, 0);

    long failed = 0;
    for (long k = 1; k <= allocations; ++k)
    {
        Results got = Road(k);
        failed += FailingAllocator::Failed() ? 1 : 0;
        ExpectNormalOrFailure(normal, got, k);
        ASSERT_TRUE(LibraryIdle()) << "k=" << k << ": an object or a worker still holds the library";
    }
    EXPECT_EQ(allocations, failed);
    std::printf(
        "[ figures  ] %s: %ld allocations on the caller's thread, each failed once; %zu sites so far\n",
        SHAPE_NAMES[static_cast<int>(GetParam())], allocations, FailingAllocator::FailedSites().size());
}

INSTANTIATE_TEST_SUITE_P(Shapes, AllocationFailure,
                         testing::Values(Shape::Drop, Shape::Items, Shape::Background));

namespace
{
// Calls an export with its k-th allocation failing (none for 0); THROWN if anything came out of it.
HRESULT CallFailing(HRESULT(STDMETHODCALLTYPE* entry)(), long k, long* allocations = nullptr)
{
    HRESULT code = NOT_CALLED;
    FailingAllocator::Arm(k);
    try
    {
        code = entry();
    }
    catch (...)
    {
        code = THROWN;
    }
    long seen = FailingAllocator::Disarm();
    if (allocations)
        *allocations = seen;
    return code;
}
} // namespace

TEST(AllocationFailureOfRegistration, EveryAllocationOfRegisteringAndUnregisteringFailsCleanly)
{
    g_moduleInstance = GetModuleHandleW(nullptr);
    struct Entry
    {
        const char* name;
        HRESULT(STDMETHODCALLTYPE* call)();
        bool registeredBefore;
        long allocations;
    } entries[] = {{"DllRegisterServer", DllRegisterServer, false, 0},
                   {"DllUnregisterServer", DllUnregisterServer, true, 0}};
    for (Entry& entry : entries)
    {
        // Every pass starts from the same registry, so that each makes the allocations the counted one made.
        auto prepare = [&entry]
        {
            FreshRegistry();
            return entry.registeredBefore ? DllRegisterServer() : S_OK;
        };
        ASSERT_EQ(S_OK, prepare());
        ASSERT_EQ(S_OK, CallFailing(entry.call, 0, &entry.allocations)) << entry.name;
        for (long k = 1; k <= entry.allocations; ++k)
        {
            ASSERT_EQ(S_OK, prepare()) << entry.name << ", k=" << k;
            HRESULT code = CallFailing(entry.call, k);
            EXPECT_NE(THROWN, code) << entry.name << ", k=" << k;
            EXPECT_TRUE(code == S_OK || FAILED(code)) << entry.name << ", k=" << k << ": " << Hex(code);
        }
    }
    VmHostRegistryReset();
    std::printf("[ figures  ] registration: %ld + %ld allocations, each failed once; %zu sites so far\n",
                entries[0].allocations, entries[1].allocations, FailingAllocator::FailedSites().size());
}

namespace
{
struct ArmedStart
{
    long failAt;
    OperationJob* job;
};

// The worker's own thread, counting (and failing) from its first instruction on.
DWORD WINAPI ArmedWorker(LPVOID parameter)
{
    ArmedStart* start = static_cast<ArmedStart*>(parameter);
    FailingAllocator::Arm(start->failAt);
    return OperationThreadProc(start->job);
}

// A quiet operation from connection to the ending report, started as InvokeCommand starts it. Returns the
// worker's exit code once it has ended and given the library back.
DWORD RunWorker(long failAt)
{
    std::basic_string<WCHAR> key = UniqueKey(TEXT("allocation-worker"));
    ServiceScript script;
    std::string error;
    EXPECT_TRUE(ServiceScript::Parse("send 51 2 2 8192\n"
                                     "send 51 3 1 4096 2 8192 source=\"D:\\a.txt\" target=\"E:\\in\\a.txt\"\n"
                                     "send 51 4 2 8192\n",
                                     script, error))
        << error;
    FakeService service(key.c_str(), script);
    EXPECT_TRUE(service.Start());
    OperationJob* job = new OperationJob;
    job->m_pipeKey = key.c_str();
    job->m_operation = 51;
    job->m_showProgress = 0;
    job->m_sourceList = TEXT("D:\\a.txt\n");
    job->m_targetFolder = TEXT("E:\\in");
    job->m_driveRootList = TEXT("e:\n");
    ArmedStart start{failAt, job};
    ModuleLockAcquire();
    HANDLE thread = CreateThread(nullptr, 0, ArmedWorker, &start, 0, nullptr);
    if (!thread)
    {
        ModuleLockRelease();
        DestroyOperationJob(job);
        ADD_FAILURE() << "no thread";
        return 0xFFFFFFFF;
    }
    DWORD exitCode = 0xFFFFFFFF;
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 20000)) << "k=" << failAt;
    GetExitCodeThread(thread, &exitCode);
    CloseHandle(thread);
    EXPECT_TRUE(LibraryIdle()) << "k=" << failAt;
    service.Stop();
    return exitCode;
}
} // namespace

TEST(AllocationFailureOfTheWorker, EveryAllocationOfAnOperationFailsCleanly)
{
    ASSERT_EQ(0u, RunWorker(0));
    long allocations = FailingAllocator::SeenByLastArmed();
    ASSERT_GT(allocations, 0);
    for (long k = 1; k <= allocations; ++k)
    {
        DWORD exitCode = RunWorker(k);
        EXPECT_TRUE(exitCode == 0 || FAILED(static_cast<HRESULT>(exitCode))) << "k=" << k << ": " << exitCode;
    }
    std::printf("[ figures  ] worker: %ld allocations on its thread, each failed once; %zu sites so far\n",
                allocations, FailingAllocator::FailedSites().size());
}

// An expansion's output grows wherever a piece of it meets the end of its room: a growth that fails there
// gives E_OUTOFMEMORY and no text (nothing leaked: LeakSanitizer in host-asan), never a text cut short. The
// script is short, so its output starts with room for 1,000 units; a replacement of nearly that fills it, and
// the piece after it grows it, at each length of the replacement in turn.
TEST(AllocationFailureOfExpansion, AGrowthThatFailsAnywhereGivesNoText)
{
    const BYTE saved = g_perUserRegistration;
    g_perUserRegistration = 1; // the frame and the quotes are pieces of their own only per user
    const struct
    {
        const char* piece;
        const WCHAR* script;
    } scripts[] = {
        {"a character", TEXT("%Fill%x")},
        {"a percent sign", TEXT("%Fill%%%")},
        {"a replacement", TEXT("%Fill%%Short%")},
        {"a doubled quote", TEXT("'%Fill%''x'")},
        {"the frame's opening", TEXT("%Fill%HKCR{x}")},
        {"the frame's closing", TEXT("HKCR{%Fill%}")},
    };
    for (const auto& script : scripts)
        for (size_t fill = 950; fill <= 1000; ++fill)
        {
            SCOPED_TRACE(testing::Message() << script.piece << ", a replacement of " << fill);
            CRegObject registrar;
            ASSERT_EQ(S_OK,
                      registrar.AddReplacement(TEXT("Fill"), std::basic_string<WCHAR>(fill, 'f').c_str()));
            ASSERT_EQ(S_OK, registrar.AddReplacement(TEXT("Short"), TEXT("s")));
            ScriptParser parser;
            parser.m_registrar = &registrar;
            LPWSTR whole = nullptr;
            FailingAllocator::Arm(0);
            ASSERT_EQ(S_OK, ExpandScript(parser, script.script, &whole));
            const long allocations = FailingAllocator::Disarm();
            ASSERT_NE(nullptr, whole);
            for (long k = 1; k <= allocations; ++k)
            {
                LPWSTR expanded = reinterpret_cast<LPWSTR>(static_cast<uintptr_t>(1));
                FailingAllocator::Arm(k);
                const HRESULT hr = ExpandScript(parser, script.script, &expanded);
                FailingAllocator::Disarm();
                if (hr == S_OK)
                {
                    EXPECT_EQ(0, lstrcmpW(whole, expanded)) << "k=" << k;
                }
                else
                {
                    EXPECT_EQ(E_OUTOFMEMORY, hr) << "k=" << k;
                    EXPECT_EQ(nullptr, expanded) << "k=" << k;
                }
                CoTaskMemFree(hr == S_OK ? expanded : nullptr);
            }
            CoTaskMemFree(whole);
        }
    g_perUserRegistration = saved;
}
