// The library's lifetime while an operation it started runs on: loaded as the file manager loads it
// (LoadLibraryW and its exports), an operation started from a menu, the object released. While the worker
// runs, DllCanUnloadNow answers S_FALSE and a FreeLibrary does not take the code from under it; after the
// worker's end the answer is S_OK and the library goes.
#include "foundation/WideString.h"
#include "module/ComModule.h"
#include "tests/channel/UniqueKey.h"
#include "tests/module/ComModule/LibraryPath.h"
#include "tests/support/LibraryExports.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/StartedOperation.h"
#include "tests/support/World.h"
#include "tools/FakeService/FakeService.h"

#include <gtest/gtest.h>

#include <vector>

#ifndef _WIN32
#include "platform/host/ControlMemory.h"
#endif

using namespace TestSupport;

namespace
{
template <class Condition> bool Eventually(Condition condition)
{
    for (DWORD waited = 0; waited < OPERATION_TIME_LIMIT; waited += 10)
    {
        if (condition())
            return true;
        Sleep(10);
    }
    return false;
}

class Lifetime : public testing::Test
{
protected:
    void SetUp() override
    {
        key = UniqueKey(TEXT("lifetime"));
        // A quiet item of the marker's own: the worker shows nothing, so the host needs no progress dialog.
        Text marker = TEXT("K=") + key + TEXT("|CI=T|MI=T|DA=1|FMI=Sync now=51|RM=\\Managed\\.Velmount");
        drive.WriteMarker(TEXT("Managed"), marker.c_str());
        library = LoadLibraryW(TestLibraryPath().c_str());
        ASSERT_NE(nullptr, library);
        canUnloadNow = Export<CanUnloadNowEntry>(library, "DllCanUnloadNow");
        getClassObject = Export<GetClassObjectEntry>(library, "DllGetClassObject");
        ASSERT_TRUE(canUnloadNow && getClassObject);
    }
    void TearDown() override
    {
        if (library)
            FreeLibrary(library);
    }

    // The file manager's road on the folder's background, up to the chosen item and the object's release.
    void StartFromTheMenu()
    {
        IClassFactory* factory = nullptr;
        ASSERT_EQ(S_OK, getClassObject(CLSID_VelmountCopyMoveExtension, IID_IClassFactory,
                                       reinterpret_cast<void**>(&factory)));
        IShellExtInit* init = nullptr;
        ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_IShellExtInit, reinterpret_cast<void**>(&init)));
        factory->Release();
        ASSERT_EQ(S_OK, init->Initialize(TestSupport::ItemIdList(drive.Path(TEXT("Managed"))).Get(), nullptr,
                                         nullptr));
        IContextMenu* menuHandler = nullptr;
        ASSERT_EQ(S_OK, init->QueryInterface(IID_IContextMenu, reinterpret_cast<void**>(&menuHandler)));
        init->Release();
        HMENU menu = CreatePopupMenu();
        HRESULT used = menuHandler->QueryContextMenu(menu, 0, 100, 0x7FFF, CMF_NORMAL);
        EXPECT_TRUE(SUCCEEDED(used) && (used & 0xFFFF) >= 2) << "Sync now, after a separator";
        DestroyMenu(menu);
        CMINVOKECOMMANDINFO info = {};
        info.cbSize = sizeof(info);
        info.lpVerb = reinterpret_cast<LPCSTR>(static_cast<UINT_PTR>(1));
        EXPECT_EQ(S_OK, menuHandler->InvokeCommand(&info));
        EXPECT_EQ(0u, menuHandler->Release());
    }

    static bool RequestArrived(const FakeService& service)
    {
        return Eventually([&] { return !service.Received().empty(); });
    }

    TestSupport::ManagedDrive drive;
    Text key;
    HMODULE library = nullptr;
    CanUnloadNowEntry canUnloadNow = nullptr;
    GetClassObjectEntry getClassObject = nullptr;
};
} // namespace

TEST_F(Lifetime, CanUnloadNowSaysNoWhileTheWorkerRuns)
{
    // The service answers nothing until told to go: the worker keeps polling meanwhile.
    FakeService service(key.c_str(), Script("send 51 2 1 1\n"));
    ASSERT_TRUE(service.Start());
    EXPECT_EQ(S_OK, canUnloadNow());

    StartFromTheMenu();
    ASSERT_TRUE(RequestArrived(service));
    for (int look = 0; look < 10; ++look)
    {
        EXPECT_EQ(S_FALSE, canUnloadNow()) << "the object is gone, the worker is not";
        Sleep(20);
    }

    service.Stop();
    EXPECT_TRUE(Eventually([&] { return canUnloadNow() == S_OK; }))
        << "the last worker gave the library back";
}

// The host frees the library during the operation (its last reference, as CoFreeUnusedLibraries would after
// a wrong answer): the worker's own hold keeps the code there, the operation ends normally, and with it the
// library goes.
TEST_F(Lifetime, AFreeLibraryDuringTheOperationWaitsForTheWorker)
{
    FakeService service(key.c_str(), Script("send 51 2 1 1\n"));
    ASSERT_TRUE(service.Start());
    StartFromTheMenu();
    ASSERT_TRUE(RequestArrived(service));
    const void* code = reinterpret_cast<const void*>(canUnloadNow);

    ASSERT_TRUE(FreeLibrary(library));
    library = nullptr;
    Sleep(50);
    EXPECT_TRUE(Mapped(code)) << "the running worker holds the library";

    service.Stop();
    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT)) << "the worker ended the connection";
    EXPECT_TRUE(Eventually([code] { return !Mapped(code); })) << "the worker's end let the library go";
}

// Host only: the count of live heap blocks is the stand-in's; Windows' heap reports none that exact.
#ifndef _WIN32
// A menu of 10,000 files leaves its text blocks kept for the next menu. They stay while anything of the
// library is in use (here the class object, locked), and go the moment DllCanUnloadNow answers S_OK: a file
// manager that keeps the library for weeks does not keep them as long.
TEST_F(Lifetime, KeptTextBlocksGoWhenTheLibraryIsIdle)
{
    std::vector<WideString> paths;
    for (int i = 0; i < 10000; ++i)
    {
        WCHAR name[32];
        wsprintfW(name, TEXT("Managed\\file %d.txt"), i);
        paths.push_back(drive.Path(name));
    }
    ASSERT_EQ(S_OK, canUnloadNow());
    const LONG idle = VmHostLiveHeapBlocks();

    IClassFactory* factory = nullptr;
    ASSERT_EQ(S_OK, getClassObject(CLSID_VelmountCopyMoveExtension, IID_IClassFactory,
                                   reinterpret_cast<void**>(&factory)));
    ASSERT_EQ(S_OK, factory->LockServer(TRUE));
    IShellExtInit* init = nullptr;
    ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_IShellExtInit, reinterpret_cast<void**>(&init)));
    factory->Release();
    DropDataObject* data = DropDataObject::Create(paths);
    EXPECT_EQ(S_OK, init->Initialize(nullptr, data, nullptr));
    data->Release();
    EXPECT_EQ(0u, init->Release());
    const LONG kept = VmHostLiveHeapBlocks() - idle;
    EXPECT_GE(kept, 5) << "a 10,000-file selection's blocks, kept for the next menu";

    EXPECT_EQ(S_FALSE, canUnloadNow());
    EXPECT_EQ(kept, VmHostLiveHeapBlocks() - idle) << "kept while the server is locked";
    ASSERT_EQ(S_OK, getClassObject(CLSID_VelmountCopyMoveExtension, IID_IClassFactory,
                                   reinterpret_cast<void**>(&factory)));
    factory->LockServer(FALSE);
    factory->Release();
    EXPECT_EQ(S_OK, canUnloadNow());
    EXPECT_EQ(idle, VmHostLiveHeapBlocks()) << "nothing in use: every kept block went back";
}
#endif
