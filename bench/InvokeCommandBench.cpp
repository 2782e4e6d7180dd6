// InvokeCommand on Quick Copy for a selection whose list comes to just under the 512,000-character limit:
// the job is built (list, drive roots, the size check of the request) and the worker started. Against a
// memcpy of the list's bytes into a block fresh from the heap. The service answers at once with the final
// message, and each worker is let finish, untimed, before the next call, so workers never pile up.
#include "bench/Baseline.h"
#include "extension/CopyMoveExtension.h"
#include "extension/MenuPlan.h"
#include "module/ModuleLock.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/TestComObject.h"
#include "tools/FakeService/FakeService.h"

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace
{
typedef TestSupport::TestComObject<CVelmountCopyMoveExtension> Extension;

// Holds the module's lock for a moment to read how many others hold it.
LONG OtherModuleLocks()
{
    LONG count = ModuleLockAcquire();
    ModuleLockRelease();
    return count - 1;
}

void InvokeLargeList(benchmark::State& state)
{
    g_moduleInstance = GetModuleHandleW(nullptr);
    TestSupport::ManagedDrive drive(TEXT('V'));
    drive.WriteMarker(TEXT("docs"), TEXT("K=vm-77|CU=T|MI=T|DA=2|RM=\\docs\\.Velmount"));

    ServiceMessage final;
    final.kind = 21;
    final.phase = 4;
    ServiceScript script;
    script.steps.push_back({ServiceStep::Write, EncodeServiceMessage(final), 0});
    script.steps.push_back({ServiceStep::Close, {}, 0});

    // Paths, each followed by a newline in the list, up to the limit.
    std::vector<WideString> paths;
    int listLength = 0;
    WideString name;
    for (int i = 0;; ++i)
    {
        name.Format(TEXT("docs\\report %d.txt"), i);
        WideString path = drive.Path(name);
        if (listLength + path.GetLength() + 1 > 512000)
            break;
        listLength += path.GetLength() + 1;
        paths.push_back(path);
    }
    std::vector<WCHAR> list;
    for (const WideString& path : paths)
    {
        list.insert(list.end(), path.GetString(), path.GetString() + path.GetLength());
        list.push_back(TEXT('\n'));
    }

    typedef std::chrono::steady_clock Clock;
    double measured = 0, baseline = 0;
    HRESULT result = S_OK;
    for (auto _ : state)
    {
        // A service of one session per round: one serving round after round would keep every 1 MiB request
        // it was sent, and copy them all on each of its looks for the next one, on the other processor.
        FakeService service(TEXT("vm-77"), script, 1);
        if (!service.Start())
        {
            state.SkipWithError("the service's pipe cannot be created");
            return;
        }
        // The object as Initialize and QueryContextMenu leave it for these items (the CF_HDROP walk of this
        // many paths is the context-menu benchmark's business).
        Extension* object = Extension::Create();
        object->m_itemContext = 1;
        object->m_useApi = 1;
        for (const WideString& path : paths)
            object->m_selectedFiles.AddTail(path);
        HMENU menu = CreatePopupMenu();
        AppendMenuW(menu, MF_STRING, 1, TEXT("Copy"));
        AppendMenuW(menu, MF_STRING, 2, TEXT("Move"));
        object->QueryContextMenu(menu, 2, 100, 0x7FFF, CMF_NORMAL);
        CMINVOKECOMMANDINFO invoke = {};
        invoke.cbSize = sizeof invoke;
        invoke.lpVerb = reinterpret_cast<LPCSTR>(static_cast<ULONG_PTR>(object->m_quickCopyPos));

        // The copy goes first: after InvokeCommand, the worker it started would be sharing the machine with
        // the copy. Like the job's list, it goes into a block fresh from the process heap: one this large the
        // C library maps from the system each time, so the first write to each of its pages is part of the
        // work of any copy the job keeps (about two thirds of this copy's time here).
        auto start = Clock::now();
        auto* copy = static_cast<WCHAR*>(HeapAlloc(GetProcessHeap(), 0, list.size() * sizeof(WCHAR)));
        if (copy)
            std::memcpy(copy, list.data(), list.size() * sizeof(WCHAR));
        auto middle = Clock::now();
        benchmark::DoNotOptimize(copy);
        HeapFree(GetProcessHeap(), 0, copy);
        result = object->InvokeCommand(&invoke);
        auto end = Clock::now();
        double spent = std::chrono::duration<double>(end - middle).count();
        measured += spent;
        baseline += std::chrono::duration<double>(middle - start).count();
        state.SetIterationTime(spent);

        object->Release();
        DestroyMenu(menu);
        for (int wait = 0; OtherModuleLocks() > 0 && wait < 5000; ++wait)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (result != S_OK)
            break;
    }
    if (result != S_OK)
        state.SkipWithError("InvokeCommand did not start the operation");
    double iterations = static_cast<double>(state.iterations());
    state.counters["list_chars"] = listLength;
    state.counters["measured_us"] = measured / iterations * 1e6;
    state.counters["baseline_us"] = baseline / iterations * 1e6;
    state.counters["ratio"] = baseline > 0 ? measured / baseline : 0;
}
} // namespace

// A fixed number of rounds: each is followed, untimed, by the worker's whole operation with its closing pause
// of 100 ms, so at Google Benchmark's own pace a fast InvokeCommand would make for minutes of waiting.
BENCHMARK(InvokeLargeList)->UseManualTime()->Iterations(100)->Unit(benchmark::kMillisecond);
