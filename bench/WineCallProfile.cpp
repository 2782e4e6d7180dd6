// Where the one-file context menu's time goes, call by call, on a real Win32 (Wine): the program's import
// table entries for the calls on the menu's road are pointed at wrappers that count and time each call where
// the menu makes it, then the same menu as ContextMenuOneFile runs many times. Prints, per imported call,
// calls per menu, microseconds per call and per menu, and what is left for the code between the calls.
//
//   cmake --build build/bench-win64 --target velmount_wine_calls      (after scripts/bench-smoke --wine)
//   env -u DISPLAY cmake/wine-run build/bench-win64/bench/velmount_wine_calls.exe [menus] [--marks]
//
// Under Wine most of the menu is round trips to the wineserver process, and their price depends on where the
// scheduler puts the two processes: prefix the command with `taskset -c 0` to keep them on one processor.
// --marks brackets each call of one more menu with "@@> name" and "@@< name" lines on stderr; with a
// wineserver started as `wineserver -f -d1` writing to the same file, the server's requests of each call show
// between its marks.
#include "bench/OneMenu.h"
#include "extension/CopyMoveExtension.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/World.h"

#include <x86intrin.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

namespace
{
using BenchSupport::OneMenu;
typedef std::chrono::steady_clock Clock;

struct WatchedCall
{
    const char* name = nullptr;
    void* wrapper = nullptr;
    void* target = nullptr;
    uint64_t calls = 0;
    uint64_t ticks = 0;
};

constexpr int WATCHED_CAPACITY = 48;
WatchedCall g_watched[WATCHED_CAPACITY];
int g_watchedCount = 0;
bool g_marks = false;

void Mark(const char* sign, const char* name)
{
    if (!g_marks)
        return;
    std::fprintf(stderr, "@@%s %s\n", sign, name);
    std::fflush(stderr);
}

// Every watched call goes through here; x64 has one calling convention, so the signature is all it needs.
template <int N, typename R, typename... A> R Watch(A... args)
{
    WatchedCall& call = g_watched[N];
    Mark(">", call.name);
    const uint64_t start = __rdtsc();
    auto account = [&]
    {
        call.ticks += __rdtsc() - start;
        ++call.calls;
        Mark("<", call.name);
    };
    if constexpr (std::is_void_v<R>)
    {
        reinterpret_cast<R (*)(A...)>(call.target)(args...);
        account();
    }
    else
    {
        R result = reinterpret_cast<R (*)(A...)>(call.target)(args...);
        account();
        return result;
    }
}

template <int N, typename R, typename... A> void* WrapperFor(R (*)(A...))
{
    return reinterpret_cast<void*>(&Watch<N, R, A...>);
}

template <int N, typename F> void Define(const char* name, F* function)
{
    static_assert(N < WATCHED_CAPACITY, "more calls than places");
    g_watched[N].name = name;
    g_watched[N].wrapper = WrapperFor<N>(function);
    if (g_watchedCount < N + 1)
        g_watchedCount = N + 1;
}
#define WATCH(N, function) Define<N>(#function, &function)

// The calls of Initialize, QueryContextMenu and the final release, and the file manager's menu around them.
void DefineWatchedCalls()
{
    WATCH(0, OutputDebugStringW);
    WATCH(1, GetCurrentProcess);
    WATCH(2, OpenProcessToken);
    WATCH(3, GetTokenInformation);
    WATCH(4, GetLastError);
    WATCH(5, ConvertSidToStringSidW);
    WATCH(6, LocalFree);
    WATCH(7, CloseHandle);
    WATCH(8, GetProcessHeap);
    WATCH(9, HeapAlloc);
    WATCH(10, HeapFree);
    WATCH(11, GetSystemMetrics);
    WATCH(12, LoadImageW);
    WATCH(13, DeleteObject);
    WATCH(14, GetCurrentProcessId);
    WATCH(15, ProcessIdToSessionId);
    WATCH(16, RegOpenKeyExW);
    WATCH(17, RegGetValueW);
    WATCH(18, RegCloseKey);
    WATCH(19, GlobalAlloc);
    WATCH(20, GlobalLock);
    WATCH(21, GlobalSize);
    WATCH(22, GlobalUnlock);
    WATCH(23, ReleaseStgMedium);
    WATCH(24, GetMenuItemInfoW);
    WATCH(25, PathIsDirectoryW);
    WATCH(26, PathFileExistsW);
    WATCH(27, CreateFileW);
    WATCH(28, ReadFile);
    WATCH(29, InsertMenuW);
    WATCH(30, SetMenuItemBitmaps);
    WATCH(31, SetMenuDefaultItem);
    WATCH(32, CreatePopupMenu);
    WATCH(33, AppendMenuW);
    WATCH(34, DestroyMenu);
    WATCH(35, malloc);
    WATCH(36, free);
    WATCH(37, _wtoi);
}

// Points each watched import of this program at its wrapper, or back at the real function.
void Redirect(bool watch)
{
    BYTE* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
         library->Name; ++library)
    {
        const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA64*>(base + library->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA64*>(base + library->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots)
        {
            if (IMAGE_SNAP_BY_ORDINAL64(names->u1.Ordinal))
                continue;
            const char* imported = reinterpret_cast<const char*>(
                reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name);
            for (int i = 0; i < g_watchedCount; ++i)
            {
                WatchedCall& call = g_watched[i];
                if (!call.name || std::strcmp(call.name, imported) != 0)
                    continue;
                DWORD protection = 0;
                VirtualProtect(&slots->u1.Function, sizeof(ULONGLONG), PAGE_READWRITE, &protection);
                if (watch)
                {
                    call.target = reinterpret_cast<void*>(slots->u1.Function);
                    slots->u1.Function = reinterpret_cast<ULONGLONG>(call.wrapper);
                }
                else if (call.target)
                    slots->u1.Function = reinterpret_cast<ULONGLONG>(call.target);
                VirtualProtect(&slots->u1.Function, sizeof(ULONGLONG), protection, &protection);
            }
        }
    }
}

// Microseconds per menu over `menus` menus, with the processor's tick rate over the same span.
double TimeMenus(IDataObject* data, int menus, double& ticksPerMicrosecond)
{
    const auto start = Clock::now();
    const uint64_t startTicks = __rdtsc();
    for (int i = 0; i < menus; ++i)
        if (OneMenu(data) != 5)
        {
            std::fprintf(stderr, "the menu did not get the extension's entries\n");
            std::exit(1);
        }
    const uint64_t ticks = __rdtsc() - startTicks;
    const double microseconds = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    ticksPerMicrosecond = static_cast<double>(ticks) / microseconds;
    return microseconds / menus;
}
} // namespace

int main(int argc, char** argv)
{
    const int menus = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2000;
    const bool marks = argc > 2 && std::strcmp(argv[2], "--marks") == 0;

    g_moduleInstance = GetModuleHandleW(nullptr);
    TestSupport::ManagedDrive drive{TEXT('V')};
    WCHAR sidText[SID_BUFFER_CAPACITY] = {};
    CVelmountCopyMoveExtension::GetUserSidString(sidText);
    const WideString sid(sidText);
    TestSupport::SetUseValue(sid, 1);
    drive.WriteMarker(TEXT("docs"), TEXT("K=vm-77|CU=T|MI=T|DI=T|DA=2|RM=\\docs\\.Velmount"));
    TestSupport::DropDataObject* data =
        TestSupport::DropDataObject::Create(std::vector<WideString>{drive.Path(TEXT("docs\\report 0.txt"))});

    // The first menu's bitmap is the process's first graphics object, on which Wine starts its desktop.
    double ticksPerMicrosecond = 0;
    TimeMenus(data, 20, ticksPerMicrosecond);
    const double plain = TimeMenus(data, menus, ticksPerMicrosecond);

    DefineWatchedCalls();
    Redirect(true);
    const double watched = TimeMenus(data, menus, ticksPerMicrosecond);

    std::printf("%d menus: %.1f us per menu unwatched, %.1f us watched\n\n", menus, plain, watched);
    std::printf("%-24s %10s %10s %10s\n", "call", "per menu", "us/call", "us/menu");
    double inCalls = 0;
    for (int i = 0; i < g_watchedCount; ++i)
    {
        const WatchedCall& call = g_watched[i];
        if (!call.calls)
            continue;
        const double microseconds = static_cast<double>(call.ticks) / ticksPerMicrosecond;
        inCalls += microseconds / menus;
        std::printf("%-24s %10.2f %10.3f %10.2f\n", call.name, static_cast<double>(call.calls) / menus,
                    microseconds / static_cast<double>(call.calls), microseconds / menus);
    }
    std::printf("%-24s %10s %10s %10.2f\n", "all watched calls", "", "", inCalls);
    std::printf("%-24s %10s %10s %10.2f\n", "between the calls", "", "", watched - inCalls);
    std::fflush(stdout);

    if (marks)
    {
        g_marks = true;
        Mark("@", "menu start");
        OneMenu(data);
        Mark("@", "menu end");
        g_marks = false;
    }
    Redirect(false);

    data->Release();
    TestSupport::RemoveUseValue(sid);
    return 0;
}
