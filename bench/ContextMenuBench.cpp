// The context menu on items of one managed folder, as the file manager asks for it: a new object,
// Initialize with the CF_HDROP data, QueryContextMenu on the shell's menu, the object released. The marker
// lies on the stand-in's drive V and is read by every new object, as it is on the first right-click.
#include "bench/Baseline.h"
#include "extension/CopyMoveExtension.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/TestComObject.h"
#include "tests/support/World.h"

#include <vector>

namespace
{
typedef TestSupport::TestComObject<CVelmountCopyMoveExtension> Extension;

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

// The file manager's items menu: its copy and move commands among the usual entries.
HMENU ShellMenu()
{
    HMENU menu = CreatePopupMenu();
    AppendMenuW(menu, MF_STRING, 30, TEXT("Open"));
    AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
    AppendMenuW(menu, MF_STRING, 1, TEXT("Copy"));
    AppendMenuW(menu, MF_STRING, 2, TEXT("Move"));
    return menu;
}

// One menu, start to end; the number of entries the extension added.
HRESULT OneMenu(IDataObject* data)
{
    Extension* object = Extension::Create();
    HMENU menu = ShellMenu();
    HRESULT result = object->Initialize(nullptr, data, nullptr);
    if (SUCCEEDED(result))
        result = object->QueryContextMenu(menu, 4, 100, 0x7FFF, CMF_NORMAL);
    object->Release();
    DestroyMenu(menu);
    return result;
}

// What any reader of the selection must do: take the CF_HDROP medium and copy every path out of it.
UINT BareDragQueryLoop(IDataObject* data)
{
    FORMATETC format = {CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium = {};
    if (FAILED(data->GetData(&format, &medium)))
        return 0;
    HDROP drop = static_cast<HDROP>(GlobalLock(medium.hGlobal));
    UINT count = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0), copied = 0;
    WCHAR path[SELECTED_PATH_CAPACITY];
    for (UINT index = 0; index < count; ++index)
        copied += DragQueryFileW(drop, index, path, SELECTED_PATH_CAPACITY) != 0;
    GlobalUnlock(medium.hGlobal);
    ReleaseStgMedium(&medium);
    return copied;
}

void ContextMenuManyFiles(benchmark::State& state)
{
    MenuWorld world;
    const int count = static_cast<int>(state.range(0));
    TestSupport::DropDataObject* data = TestSupport::DropDataObject::Create(world.Files(count));
    HRESULT result = S_OK;
    UINT copied = 0;
    RunAgainstBaseline(
        state, [&] { result = OneMenu(data); }, [&] { copied = BareDragQueryLoop(data); });
    // Quick Copy, Quick Move and Quick Delete between two separators.
    if (result != 5 || copied != static_cast<UINT>(count))
        state.SkipWithError("the menu or the baseline did not see the whole selection");
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
