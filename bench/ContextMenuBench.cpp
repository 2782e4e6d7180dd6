// The context menu on items of one managed folder, as the file manager asks for it: a new object,
// Initialize with the CF_HDROP data, QueryContextMenu on the shell's menu, the object released. The marker
// lies on the stand-in's drive V and is read by every new object, as it is on the first right-click.
#include "bench/Baseline.h"
#include "bench/OneMenu.h"
#include "extension/CopyMoveExtension.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/World.h"

#include <chrono>
#include <map>
#include <utility>
#include <vector>

namespace
{
using BenchSupport::OneMenu;

struct MenuWorld
{
    TestSupport::ManagedDrive drive{TEXT('V')};
    WideString sid;

    MenuWorld()
    {
        g_moduleInstance = GetModuleHandleW(nullptr);
        WCHAR sidText[SID_BUFFER_CAPACITY] = {};
        CVelmountCopyMoveExtension::GetUserSidString(sidText);
        sid = sidText;
        TestSupport::SetUseValue(sid, 1);
        drive.WriteMarker(TEXT("docs"), TEXT("K=vm-77|CU=T|MI=T|DI=T|DA=2|RM=\\docs\\.Velmount"));
    }
    ~MenuWorld() { TestSupport::RemoveUseValue(sid); }

    std::vector<WideString> Files(int count) const
    {
        std::vector<WideString> paths;
        WideString name;
        for (int i = 0; i < count; ++i)
        {
            name.Format(TEXT("docs\\report %d.txt"), i);
            paths.push_back(drive.Path(name));
        }
        return paths;
    }
};

// Takes the CF_HDROP medium as any reader must, and gives the locked block to `read`.
template <typename Read> UINT WithDropFiles(IDataObject* data, Read&& read)
{
    FORMATETC format = {CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium = {};
    if (FAILED(data->GetData(&format, &medium)))
        return 0;
    const BYTE* block = static_cast<const BYTE*>(GlobalLock(medium.hGlobal));
    UINT names = read(block, GlobalSize(medium.hGlobal));
    GlobalUnlock(medium.hGlobal);
    ReleaseStgMedium(&medium);
    return names;
}

// The least any reader of the selection must do: take the medium and measure every name once, in one pass.
UINT LinearPass(IDataObject* data)
{
    return WithDropFiles(data,
                         [](const BYTE* block, SIZE_T)
                         {
                             const DROPFILES* header = reinterpret_cast<const DROPFILES*>(block);
                             const WCHAR* at = reinterpret_cast<const WCHAR*>(block + header->pFiles);
                             UINT names = 0;
                             size_t units = 0;
                             while (*at)
                             {
                                 const WCHAR* name = at;
                                 while (*at)
                                     ++at;
                                 units += static_cast<size_t>(at - name);
                                 ++at;
                                 ++names;
                             }
                             benchmark::DoNotOptimize(units);
                             return names;
                         });
}

// How the selection used to be read: DragQueryFileW for every index, each call walking from the list's start.
UINT DragQueryLoop(IDataObject* data)
{
    return WithDropFiles(data,
                         [](const BYTE* block, SIZE_T)
                         {
                             HDROP drop = reinterpret_cast<HDROP>(const_cast<BYTE*>(block));
                             UINT count = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0), copied = 0;
                             WCHAR path[SELECTED_PATH_CAPACITY];
                             for (UINT index = 0; index < count; ++index)
                                 copied += DragQueryFileW(drop, index, path, SELECTED_PATH_CAPACITY) != 0;
                             return copied;
                         });
}

// Mean seconds of `work` over `rounds` calls.
template <typename Work> double MeanSeconds(int rounds, Work&& work)
{
    auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < rounds; ++round)
        work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / rounds;
}

void ContextMenuManyFiles(benchmark::State& state)
{
    MenuWorld world;
    const int count = static_cast<int>(state.range(0));
    TestSupport::DropDataObject* data = TestSupport::DropDataObject::Create(world.Files(count));
    // Whatever the selection, a menu reads the folder's marker, the user's settings and its bitmap: the
    // selection's own cost is what a menu of `count` files takes beyond a menu of two (one file adds a
    // folder test), against the same difference of the passes. The two-file menu and pass run in the same
    // iterations, so that the difference is not that of two moments of a noisy machine; the menu is timed
    // on its second run, warm as the fixed part of the large menu is (which follows it), not just after the
    // large pass has filled the caches.
    TestSupport::DropDataObject* two = TestSupport::DropDataObject::Create(world.Files(2));
    HRESULT result = S_OK;
    UINT measured = 0;
    double twoMenuSeconds = 0, twoPassSeconds = 0;
    RunAgainstBaseline(
        state, [&] { result = OneMenu(data); }, [&] { measured = LinearPass(data); },
        [&]
        {
            OneMenu(two);
            twoMenuSeconds += MeanSeconds(1, [&] { OneMenu(two); });
            twoPassSeconds += MeanSeconds(1, [&] { LinearPass(two); });
        });
    two->Release();
    const double iterations = static_cast<double>(state.iterations());
    const double twoMenu = twoMenuSeconds / iterations * 1e6, twoPass = twoPassSeconds / iterations * 1e6;
    const double measuredUs = state.counters["measured_us"], baselineUs = state.counters["baseline_us"];
    state.counters["two_file_menu_us"] = twoMenu;
    state.counters["selection_ratio"] =
        baselineUs > twoPass ? (measuredUs - twoMenu) / (baselineUs - twoPass) : 0;

    // The old loop is quadratic (minutes at 100,000 files): timed once per size and process, not for every
    // run the library makes to settle the iteration count.
    static std::map<int, std::pair<double, UINT>> s_loops;
    auto loop = s_loops.find(count);
    if (loop == s_loops.end())
    {
        UINT copied = 0;
        const double seconds = MeanSeconds(1, [&] { copied = DragQueryLoop(data); });
        loop = s_loops.emplace(count, std::make_pair(seconds * 1e6, copied)).first;
    }
    state.counters["drag_query_loop_us"] = loop->second.first;
    // Quick Copy, Quick Move and Quick Delete between two separators.
    if (result != 5 || measured != static_cast<UINT>(count) ||
        loop->second.second != static_cast<UINT>(count))
        state.SkipWithError("the menu or a reader did not see the whole selection");
    data->Release();
    state.SetItemsProcessed(state.iterations() * count);
}

void ContextMenuOneFile(benchmark::State& state)
{
    MenuWorld world;
    TestSupport::DropDataObject* data = TestSupport::DropDataObject::Create(world.Files(1));
    HRESULT result = S_OK;
    for (auto _ : state)
        result = OneMenu(data);
    if (result != 5)
        state.SkipWithError("the menu did not get the extension's entries");
    data->Release();
}
} // namespace

BENCHMARK(ContextMenuManyFiles)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(ContextMenuOneFile)->Unit(benchmark::kMicrosecond);
