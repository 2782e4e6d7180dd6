// The library as the file manager keeps it for weeks: loaded through its exports, menus of every shape and
// size, operations against a fake service that finishes, is cancelled, vanishes or is not there at all, the
// class object released and taken again, DllCanUnloadNow asked, the library unloaded and loaded again, round
// after round. The process's private bytes, handles and threads are sampled at the end of the first round
// (the warm-up) and of the last, at the same point of the round: the library loaded, every object and worker
// gone, not yet asked whether it can go. Handles and threads must be back at the warm-up figure, private
// bytes within what the library may keep between menus above it.
//
//   velmount_soak [--menus N] [--operations N] [--rounds N]     (defaults: 10,000, 500 and 10)
//
// Exit status 0 when the figures hold, 1 when not, 2 for a wrong command line.
#include "extension/CopyMoveExtension.h"
#include "module/ComModule.h"
#include "tests/channel/UniqueKey.h"
#include "tests/module/ComModule/LibraryPath.h"
#include "tests/support/LibraryExports.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/ProcessCounters.h"
#include "tests/support/ProgressRecorder.h"
#include "tests/support/World.h"
#include "tools/FakeService/FakeService.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

using namespace TestSupport;

namespace
{
typedef std::basic_string<WCHAR> Text;

// What the library may hold between menus with nothing of it in use: the text blocks kept for the next menu
// (one each of 4 to 128 KB and four of 256 KB: 1,276 KB), its class object, and the heap's bookkeeping of
// them, which a 64 KB margin covers (the host's runs grow by 10 KB; see README, "Long life").
const unsigned long long KEPT_BOUND = (4 + 8 + 16 + 32 + 64 + 128 + 4 * 256) * 1024 + 64 * 1024;
const DWORD TIME_LIMIT = 30000;
const UINT FIRST_ID = 100;

template <class Condition> bool Within(DWORD milliseconds, Condition condition)
{
    for (DWORD waited = 0;; waited += 5)
    {
        if (condition())
            return true;
        if (waited >= milliseconds)
            return false;
        Sleep(5);
    }
}

enum class Shape
{
    Items,
    Background,
    Drop
};

struct Menu
{
    Shape shape;
    int files; // 1, 100 or 10,000 (none on a background)
    bool managed;
    DWORD use;
};

// The n-th menu of a run: the three shapes in turn, a managed and a plain folder, Use 1 and 0; of each
// shape's menus, two in 33 of 10,000 files and one in seven of 100.
Menu NthMenu(int n)
{
    Menu menu;
    menu.shape = static_cast<Shape>(n % 3);
    const int ofShape = n / 3;
    menu.files = ofShape % 33 == 16 || ofShape % 33 == 32 ? 10000 : (ofShape % 7 == 6 ? 100 : 1);
    menu.managed = (n / 3) % 2 == 0;
    menu.use = static_cast<DWORD>((n / 6) % 2);
    return menu;
}

enum class Outcome
{
    Finished,
    Cancelled,
    Vanished,
    Refused
};
const char* const OUTCOME_NAMES[] = {"finished", "cancelled", "service vanished", "refused pipe"};

class Soak
{
public:
    Soak() = default;

    bool Prepare()
    {
        m_key = UniqueKey(TEXT("soak"));
        const Text marker = TEXT("|CI=T|MI=T|DI=T|DA=1|FMI=Sync now=51|RM=\\");
        m_drive.WriteMarker(TEXT("Managed"),
                            (TEXT("K=") + m_key + marker + TEXT("Managed\\.Velmount")).c_str());
        m_drive.WriteMarker(
            TEXT("Orphan"),
            (TEXT("K=") + m_key + TEXT("-nobody") + marker + TEXT("Orphan\\.Velmount")).c_str());
        m_drive.MakeFolder(TEXT("Plain"));
        WCHAR sid[SID_BUFFER_CAPACITY] = {};
        if (!CVelmountCopyMoveExtension::GetUserSidString(sid))
            return Fail("the user's SID cannot be read");
        m_sid = sid;
        SetClipboardFormats({});
        SetKeysDown({});
        for (int files : {1, 100, 10000})
            for (bool managed : {true, false})
            {
                std::vector<WideString>& paths = Paths(files, managed);
                for (int i = 0; i < files; ++i)
                {
                    WCHAR name[40];
                    wsprintfW(name, managed ? TEXT("Managed\\file %d.txt") : TEXT("Plain\\file %d.txt"), i);
                    paths.push_back(m_drive.Path(name));
                }
            }
        m_orphan.push_back(m_drive.Path(TEXT("Orphan\\file.txt")));
        return m_dialogs.Registered() || Fail("the recording progress dialog cannot be registered");
    }

    bool Run(int menus, int operations, int rounds)
    {
        ProcessCounters warm, end;
        for (int round = 0; round < rounds; ++round)
        {
            const int firstMenu = menus * round / rounds, lastMenu = menus * (round + 1) / rounds;
            const int firstOperation = operations * round / rounds;
            const int lastOperation = operations * (round + 1) / rounds;
            if (!Round(firstMenu, lastMenu, firstOperation, lastOperation))
                return false;
            if (round == 0)
                warm = m_sample;
            end = m_sample;
        }
        RemoveUseValue(m_sid);
        std::printf("%d menus (%d of 10,000 files), %d operations, %d loads of the library\n", menus,
                    m_largeMenus, operations, rounds);
        for (int outcome = 0; outcome < 4; ++outcome)
            std::printf("  %s: %d\n", OUTCOME_NAMES[outcome], m_outcomes[outcome]);
        std::printf("after the warm-up: %s\n", DescribeCounters(warm).c_str());
        std::printf("at the end:        %s\n", DescribeCounters(end).c_str());
        const long long grown =
            static_cast<long long>(end.privateBytes) - static_cast<long long>(warm.privateBytes);
        std::printf("private bytes: %+lld (bound %llu)\n", grown, KEPT_BOUND);
        bool pass = true;
        if (end.handles < warm.handles || end.handles > warm.handles + LATE_HANDLE_ALLOWANCE)
            pass = Fail("handles did not come back to the warm-up figure");
        if (end.threads != warm.threads)
            pass = Fail("threads did not come back to the warm-up figure");
        if (end.globalBlocks != warm.globalBlocks)
            pass = Fail("global memory blocks did not come back to the warm-up figure");
        if (grown > static_cast<long long>(KEPT_BOUND))
            pass = Fail("private bytes grew past what the library may keep");
        std::printf("%s\n", pass ? "PASS" : "FAIL");
        return pass;
    }

private:
    bool Fail(const char* what)
    {
        std::printf("soak: %s\n", what);
        return false;
    }

    std::vector<WideString>& Paths(int files, bool managed)
    {
        const int size = files == 1 ? 0 : files == 100 ? 1 : 2;
        return m_paths[size][managed ? 0 : 1];
    }

    // One load of the library: its menus with the operations spread among them, the class object released and
    // taken again every hundred menus; then, everything released, the sample, DllCanUnloadNow and the unload.
    bool Round(int firstMenu, int lastMenu, int firstOperation, int lastOperation)
    {
        HMODULE library = LoadLibraryW(TestLibraryPath().c_str());
        if (!library)
            return Fail("the library does not load");
        m_canUnloadNow = Export<CanUnloadNowEntry>(library, "DllCanUnloadNow");
        m_getClassObject = Export<GetClassObjectEntry>(library, "DllGetClassObject");
        if (!m_canUnloadNow || !m_getClassObject)
            return Fail("the library lacks its exports");
        bool ok = true;
        IClassFactory* factory = nullptr;
        int operation = firstOperation;
        const int menus = lastMenu - firstMenu, operations = lastOperation - firstOperation;
        for (int n = firstMenu; ok && n < lastMenu; ++n)
        {
            if (!factory && !(factory = ClassObject()))
                ok = Fail("no class object");
            ok = ok && OneMenu(factory, NthMenu(n));
            // Operations evenly among the menus, the last one after the last menu.
            auto operationDue = [&]
            {
                return operation < lastOperation &&
                       static_cast<long long>(operation - firstOperation + 1) * menus <=
                           static_cast<long long>(n - firstMenu + 1) * operations;
            };
            if (factory && ((n + 1) % 100 == 0 || operationDue()))
            {
                factory->Release();
                factory = nullptr;
                m_canUnloadNow(); // as the file manager's idle check does now and then
            }
            while (ok && operationDue())
                ok = Operation(static_cast<Outcome>(operation++ % 4));
        }
        if (factory)
            factory->Release();
        m_sample = SettledSample();
        if (ok && !Within(TIME_LIMIT, [this] { return m_canUnloadNow() == S_OK; }))
            ok = Fail("DllCanUnloadNow never answered S_OK with nothing in use");
        const void* code = reinterpret_cast<const void*>(m_canUnloadNow);
        FreeLibrary(library);
        if (ok && !Within(TIME_LIMIT, [code] { return !Mapped(code); }))
            ok = Fail("the library stayed loaded after its last FreeLibrary");
        return ok;
    }

    // What the platform does for the last operation (a pipe instance of the service closing, a thread of its
    // own ending) may still be under way: the sample is the first one that the next, 50 ms later, agrees with
    // on handles and threads. A leak does not go away by waiting; what is in flight does.
    static ProcessCounters SettledSample()
    {
        ProcessCounters sample = SampleProcessCounters();
        for (int tries = 0; tries < 40; ++tries)
        {
            Sleep(50);
            const ProcessCounters next = SampleProcessCounters();
            if (next.handles == sample.handles && next.threads == sample.threads)
                break;
            sample = next;
        }
        return sample;
    }

    IClassFactory* ClassObject()
    {
        IClassFactory* factory = nullptr;
        if (m_getClassObject(CLSID_VelmountCopyMoveExtension, IID_IClassFactory,
                             reinterpret_cast<void**>(&factory)) != S_OK)
            return nullptr;
        return factory;
    }

    // The file manager's road for one menu; `invoke` (an operation's) chooses "Velmount Quick Copy".
    bool OneMenu(IClassFactory* factory, const Menu& kind, bool invoke = false)
    {
        SetUseValue(m_sid, kind.use);
        const bool hasSelection = kind.shape != Shape::Background;
        DropDataObject* data = nullptr;
        if (hasSelection)
        {
            const std::vector<WideString>& paths =
                invoke && !kind.managed
                    ? m_orphan
                    : Paths(kind.files, kind.shape == Shape::Items ? kind.managed : false);
            data = DropDataObject::Create(paths);
            m_largeMenus += kind.files == 10000;
        }
        std::unique_ptr<ItemIdList> folder;
        if (kind.shape != Shape::Items)
            folder.reset(new ItemIdList(m_drive.Path(kind.managed ? TEXT("Managed") : TEXT("Plain"))));

        IShellExtInit* init = nullptr;
        HRESULT created =
            factory->CreateInstance(nullptr, IID_IShellExtInit, reinterpret_cast<void**>(&init));
        if (created != S_OK)
        {
            if (data)
                data->Release();
            return Fail("CreateInstance failed");
        }
        const HRESULT initialized = init->Initialize(folder ? folder->Get() : nullptr, data, nullptr);
        if (data)
            data->Release();
        IContextMenu* handler = nullptr;
        init->QueryInterface(IID_IContextMenu, reinterpret_cast<void**>(&handler));
        init->Release();
        if (!handler)
            return Fail("no IContextMenu");

        HMENU menu = CreatePopupMenu();
        if (kind.shape == Shape::Drop)
        {
            AppendMenuW(menu, MF_STRING, 1, TEXT("Copy here"));
            AppendMenuW(menu, MF_STRING, 2, TEXT("Move here"));
            SetMenuDefaultItem(menu, 2, FALSE);
        }
        else
        {
            AppendMenuW(menu, MF_STRING, 1, TEXT("Open"));
            AppendMenuW(menu, MF_STRING, 2, TEXT("Copy"));
        }
        const HRESULT added = handler->QueryContextMenu(menu, 0, FIRST_ID, 0x7FFF, CMF_NORMAL);
        bool ok = true;
        // A managed folder's items menu always offers Quick Copy: a soak that made no menus would pass.
        if (kind.shape == Shape::Items && kind.managed &&
            (initialized != S_OK || !SUCCEEDED(added) || (added & 0xFFFF) == 0))
            ok = Fail("a managed folder's items menu offered nothing");
        if (ok && invoke)
        {
            UINT verb = 0xFFFF;
            WCHAR caption[64];
            for (int at = 0; at < GetMenuItemCount(menu); ++at)
                if (GetMenuStringW(menu, static_cast<UINT>(at), caption, 64, MF_BYPOSITION) &&
                    lstrcmpW(caption, TEXT("Velmount Quick Copy")) == 0)
                    verb = GetMenuItemID(menu, at) - FIRST_ID;
            CMINVOKECOMMANDINFO info = {};
            info.cbSize = sizeof(info);
            info.lpVerb = reinterpret_cast<LPCSTR>(static_cast<UINT_PTR>(verb));
            if (verb == 0xFFFF || handler->InvokeCommand(&info) != S_OK)
                ok = Fail("Quick Copy could not be started");
        }
        DestroyMenu(menu);
        handler->Release();
        return ok;
    }

    // One Quick Copy of one file, to its end: the service's connection closed, the worker's hold on the
    // library given back and its thread gone.
    bool Operation(Outcome outcome)
    {
        const char* script = "send 21 1\nsend 21 2 1 4096\nsend 21 3 1 4096 1 4096\nsend 21 4 1 4096\n";
        if (outcome == Outcome::Cancelled)
            script = "send 21 1\npause 30000\non-cancel\nsend 21 99\n";
        else if (outcome == Outcome::Vanished)
            script = "send 21 1\nsend 21 2 1 4096\nvanish\n";
        const unsigned long threadsBefore = ProcessThreads();
        m_dialogs.journal.status = outcome == Outcome::Cancelled ? PDOPS_CANCELLED : PDOPS_RUNNING;
        {
            std::unique_ptr<FakeService> service;
            if (outcome != Outcome::Refused)
            {
                ServiceScript parsed;
                std::string error;
                if (!ServiceScript::Parse(script, parsed, error))
                    return Fail(error.c_str());
                service.reset(new FakeService(m_key.c_str(), parsed));
                if (!service->Start())
                    return Fail("the fake service cannot listen");
            }
            IClassFactory* factory = ClassObject();
            if (!factory)
                return Fail("no class object");
            const bool started =
                OneMenu(factory, Menu{Shape::Items, 1, outcome != Outcome::Refused, 1}, true);
            factory->Release();
            if (!started)
                return false;
            if (service && !service->WaitForSessions(1, TIME_LIMIT))
                return Fail("the operation never ended its connection");
            if (service && outcome == Outcome::Cancelled && service->CancelsReceived() != 1)
                return Fail("the cancel did not reach the service");
        }
        if (!Within(TIME_LIMIT, [this] { return m_canUnloadNow() == S_OK; }))
            return Fail("the worker kept its hold on the library");
        // The thread itself ends right after its last instruction in the library. The platform may keep a
        // thread of its own from the first operation on: the round's samples judge that, not this wait.
        Within(2000, [threadsBefore] { return ProcessThreads() <= threadsBefore; });
        m_dialogs.journal.Clear();
        ++m_outcomes[static_cast<int>(outcome)];
        return true;
    }

    ManagedDrive m_drive;
    ProgressDialogRegistration m_dialogs;
    Text m_key;
    WideString m_sid;
    std::vector<WideString> m_paths[3][2];
    std::vector<WideString> m_orphan;
    CanUnloadNowEntry m_canUnloadNow = nullptr;
    GetClassObjectEntry m_getClassObject = nullptr;
    ProcessCounters m_sample;
    int m_largeMenus = 0;
    int m_outcomes[4] = {};
};

bool Number(const char* text, int& value)
{
    char* end = nullptr;
    long parsed = std::strtol(text, &end, 10);
    if (!*text || *end || parsed < 0 || parsed > 10000000)
        return false;
    value = static_cast<int>(parsed);
    return true;
}
} // namespace

int main(int argc, char** argv)
{
    int menus = 10000, operations = 500, rounds = 10;
    for (int i = 1; i < argc; ++i)
    {
        int* value = std::strcmp(argv[i], "--menus") == 0        ? &menus
                     : std::strcmp(argv[i], "--operations") == 0 ? &operations
                     : std::strcmp(argv[i], "--rounds") == 0     ? &rounds
                                                                 : nullptr;
        if (!value || i + 1 == argc || !Number(argv[++i], *value) || rounds < 2 || menus < rounds)
        {
            std::fprintf(stderr,
                         "usage: velmount_soak [--menus N] [--operations N] [--rounds N (2 or more)]\n");
            return 2;
        }
    }
    try
    {
        Soak soak;
        if (!soak.Prepare())
            return 1;
        return soak.Run(menus, operations, rounds) ? 0 : 1;
    }
    catch (const std::exception& problem)
    {
        std::printf("soak: %s\n", problem.what());
        return 1;
    }
    catch (...)
    {
        std::printf("soak: an exception reached main\n");
        return 1;
    }
}
