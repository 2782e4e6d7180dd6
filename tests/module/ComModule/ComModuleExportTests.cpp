// The module as the COM runtime sees it: the library loaded through the loader, its class object reached
// through DllGetClassObject, the lock count read through DllCanUnloadNow (S_OK exactly when it is 0).
#include "module/ComModule.h"
#include "tests/module/ComModule/LibraryPath.h"

#include <gtest/gtest.h>
#ifndef _WIN32
#include "platform/host/ControlSystem.h"
#endif

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace
{
typedef HRESULT(STDMETHODCALLTYPE* GetClassObjectEntry)(REFCLSID, REFIID, LPVOID*);
typedef HRESULT(STDMETHODCALLTYPE* CanUnloadNowEntry)();

void* const POISON = reinterpret_cast<void*>(static_cast<UINT_PTR>(0x5A5A5A5A));

// {2A3A4BEF-0C31-4B8F-8A4B-4D46A5A1C0DE}: no class of the library.
const CLSID CLSID_Unknown = {0x2A3A4BEF, 0x0C31, 0x4B8F, {0x8A, 0x4B, 0x4D, 0x46, 0xA5, 0xA1, 0xC0, 0xDE}};
// The type library's interface: described, never answered.
const IID IID_IVelmountCopyMoveExtension = {
    0x52BA795F, 0xD7D2, 0x49FE, {0xAD, 0xE6, 0x80, 0xBC, 0x43, 0x40, 0xA0, 0x8C}};

template <class Entry> Entry Export(HMODULE library, const char* name)
{
    // Through a generic function pointer: FARPROC's own type is no function's.
    return reinterpret_cast<Entry>(reinterpret_cast<void (*)()>(GetProcAddress(library, name)));
}

// An outer unknown that counts what reaches it.
class CountingOuter : public IUnknown
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** out) override
    {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++m_addRefs - m_releases); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(m_addRefs - ++m_releases); }

    LONG m_addRefs = 0;
    LONG m_releases = 0;
};

class ComModuleExports : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_library = LoadLibraryW(TestLibraryPath().c_str());
        ASSERT_NE(nullptr, m_library) << "error " << GetLastError();
        m_getClassObject = Export<GetClassObjectEntry>(m_library, "DllGetClassObject");
        m_canUnloadNow = Export<CanUnloadNowEntry>(m_library, "DllCanUnloadNow");
        ASSERT_NE(nullptr, m_getClassObject);
        ASSERT_NE(nullptr, m_canUnloadNow);
        ASSERT_EQ(S_OK, m_canUnloadNow()) << "a test before this one left a lock behind";
    }
    void TearDown() override
    {
        if (m_library)
            FreeLibrary(m_library);
    }

    IClassFactory* Factory()
    {
        void* factory = POISON;
        EXPECT_EQ(S_OK, m_getClassObject(CLSID_VelmountCopyMoveExtension, IID_IClassFactory, &factory));
        return static_cast<IClassFactory*>(factory);
    }

    HMODULE m_library = nullptr;
    GetClassObjectEntry m_getClassObject = nullptr;
    CanUnloadNowEntry m_canUnloadNow = nullptr;
};

TEST_F(ComModuleExports, GetClassObjectRefusesBadRequestsAndLeavesNoLock)
{
    EXPECT_EQ(E_POINTER, m_getClassObject(CLSID_VelmountCopyMoveExtension, IID_IClassFactory, nullptr));
    EXPECT_EQ(E_POINTER, m_getClassObject(CLSID_Unknown, IID_IClassFactory, nullptr));

    void* out = POISON;
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, m_getClassObject(CLSID_Unknown, IID_IClassFactory, &out));
    EXPECT_EQ(nullptr, out);

    // The class object is made and cached, but the caller gets nothing and holds nothing.
    out = POISON;
    EXPECT_EQ(E_NOINTERFACE, m_getClassObject(CLSID_VelmountCopyMoveExtension, IID_IShellExtInit, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(S_OK, m_canUnloadNow());
}

TEST_F(ComModuleExports, OutsideReferencesTogetherHoldOneLock)
{
    IClassFactory* factory = Factory();
    ASSERT_NE(nullptr, factory);
    EXPECT_EQ(S_FALSE, m_canUnloadNow());
    EXPECT_EQ(factory, Factory()) << "one class object for the life of the library";
    factory->AddRef();
    // Three outside references, one lock: giving back one lock reaches zero.
    factory->LockServer(FALSE);
    EXPECT_EQ(S_OK, m_canUnloadNow());
    factory->LockServer(TRUE);
    factory->Release();
    factory->Release();
    EXPECT_EQ(S_FALSE, m_canUnloadNow());
    factory->Release();
    EXPECT_EQ(S_OK, m_canUnloadNow()) << "the cached class object alone holds nothing";
}

TEST_F(ComModuleExports, LockServerCountsWithoutAFloor)
{
    IClassFactory* factory = Factory();
    ASSERT_NE(nullptr, factory);
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    EXPECT_EQ(S_OK, factory->LockServer(TRUE));
    EXPECT_EQ(S_OK, factory->LockServer(FALSE));
    factory->Release();
    EXPECT_EQ(S_FALSE, m_canUnloadNow()) << "one LockServer(TRUE) is still open";

    factory = Factory();
    factory->LockServer(FALSE);
    factory->LockServer(FALSE);
    factory->Release();
    EXPECT_EQ(S_FALSE, m_canUnloadNow()) << "a count of -1 keeps the library";
    factory = Factory();
    factory->LockServer(TRUE);
    factory->Release();
    EXPECT_EQ(S_OK, m_canUnloadNow());
}

TEST_F(ComModuleExports, AnObjectHoldsTheLibraryUntilItsLastRelease)
{
    IClassFactory* factory = Factory();
    ASSERT_NE(nullptr, factory);
    void* out = POISON;
    EXPECT_EQ(E_POINTER, factory->CreateInstance(nullptr, IID_IShellExtInit, nullptr));
    EXPECT_EQ(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IContextMenu2, &out));
    EXPECT_EQ(nullptr, out);

    IUnknown* object = nullptr;
    ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&object)));
    factory->Release();
    EXPECT_EQ(S_FALSE, m_canUnloadNow());
    object->AddRef();
    EXPECT_EQ(1u, object->Release());
    EXPECT_EQ(S_FALSE, m_canUnloadNow());
    EXPECT_EQ(0u, object->Release());
    EXPECT_EQ(S_OK, m_canUnloadNow());
}

TEST_F(ComModuleExports, InterfaceLookupFollowsTheTable)
{
    IClassFactory* factory = Factory();
    ASSERT_NE(nullptr, factory);
    IUnknown* object = nullptr;
    ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&object)));
    factory->Release();

    void* init = nullptr;
    void* menu = nullptr;
    void* unknown = nullptr;
    ASSERT_EQ(S_OK, object->QueryInterface(IID_IShellExtInit, &init));
    ASSERT_EQ(S_OK, object->QueryInterface(IID_IContextMenu, &menu));
    ASSERT_EQ(S_OK, static_cast<IUnknown*>(menu)->QueryInterface(IID_IUnknown, &unknown));
    // IUnknown is the first table; IContextMenu the second, right behind it.
    EXPECT_EQ(static_cast<void*>(object), unknown);
    EXPECT_EQ(static_cast<void*>(object), init);
    EXPECT_EQ(static_cast<BYTE*>(init) + sizeof(void*), static_cast<BYTE*>(menu));

    for (const IID* refused : {&IID_IContextMenu2, &IID_IContextMenu3, &IID_IVelmountCopyMoveExtension,
                               &IID_IClassFactory, &IID_IDataObject})
    {
        void* out = POISON;
        EXPECT_EQ(E_NOINTERFACE, object->QueryInterface(*refused, &out));
        EXPECT_EQ(nullptr, out);
    }
    EXPECT_EQ(E_POINTER, object->QueryInterface(IID_IShellExtInit, nullptr));

    static_cast<IUnknown*>(init)->Release();
    static_cast<IUnknown*>(menu)->Release();
    static_cast<IUnknown*>(unknown)->Release();
    EXPECT_EQ(0u, object->Release());
    EXPECT_EQ(S_OK, m_canUnloadNow());
}

TEST_F(ComModuleExports, AggregationOnlyThroughIUnknown)
{
    IClassFactory* factory = Factory();
    ASSERT_NE(nullptr, factory);
    CountingOuter outer;

    void* out = POISON;
    EXPECT_EQ(CLASS_E_NOAGGREGATION, factory->CreateInstance(&outer, IID_IShellExtInit, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(E_POINTER, factory->CreateInstance(&outer, IID_IUnknown, nullptr));
    factory->Release();
    EXPECT_EQ(S_OK, m_canUnloadNow()) << "a refused aggregate leaves nothing behind";

    factory = Factory();
    IUnknown* inner = nullptr;
    ASSERT_EQ(S_OK, factory->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&inner)));
    factory->Release();
    EXPECT_EQ(S_FALSE, m_canUnloadNow());
    EXPECT_EQ(0, outer.m_addRefs) << "the aggregate's own unknown counts for itself";

    // The inner unknown hands out the contained object's interfaces; their counting is the outer's.
    void* init = nullptr;
    void* menu = nullptr;
    ASSERT_EQ(S_OK, inner->QueryInterface(IID_IShellExtInit, &init));
    ASSERT_EQ(S_OK, inner->QueryInterface(IID_IContextMenu, &menu));
    EXPECT_EQ(2, outer.m_addRefs);
    EXPECT_NE(static_cast<void*>(inner), init);
    EXPECT_EQ(static_cast<BYTE*>(init) + sizeof(void*), static_cast<BYTE*>(menu));
    static_cast<IUnknown*>(menu)->AddRef();
    EXPECT_EQ(3, outer.m_addRefs);

    // The contained object's IUnknown is the outer's: its QueryInterface goes there too.
    void* viaOuter = POISON;
    EXPECT_EQ(E_NOINTERFACE, static_cast<IUnknown*>(init)->QueryInterface(IID_IContextMenu, &viaOuter));
    static_cast<IUnknown*>(menu)->Release();
    static_cast<IUnknown*>(menu)->Release();
    static_cast<IUnknown*>(init)->Release();
    EXPECT_EQ(3, outer.m_releases);

    void* again = nullptr;
    ASSERT_EQ(S_OK, inner->QueryInterface(IID_IUnknown, &again));
    EXPECT_EQ(static_cast<void*>(inner), again);
    EXPECT_EQ(1u, inner->Release());
    EXPECT_EQ(0u, inner->Release());
    EXPECT_EQ(S_OK, m_canUnloadNow());
}

#ifndef _WIN32 // On Windows the debug output reaches only a debugger.
// Each entry point writes its one fixed line on entry, whatever comes of the call; QueryContextMenu writes
// its second line only past the CMF_DEFAULTONLY test.
TEST_F(ComModuleExports, EntryPointsWriteTheirTraceLines)
{
    IShellExtInit* init = nullptr;
    IContextMenu* menu = nullptr;
    char verb[16] = {};
    const struct
    {
        std::function<void()> call;
        std::vector<std::u16string> lines; // behind the product's prefix
    } rows[] = {
        {[&] { init->Initialize(nullptr, nullptr, nullptr); }, {u"Initialize 2019.12.14.1"}},
        {[&] { menu->QueryContextMenu(nullptr, 0, 1, 100, CMF_DEFAULTONLY); }, {u"QueryContextMenu"}},
        {[&] { menu->QueryContextMenu(nullptr, 0, 1, 100, 0); }, {u"QueryContextMenu", u"GetDefaultMenu"}},
        {[&] { menu->InvokeCommand(nullptr); }, {u"InvokeCommand"}},
        {[&] { menu->GetCommandString(0, GCS_VERBA, nullptr, verb, sizeof(verb)); }, {}},
    };
    IClassFactory* factory = Factory();
    ASSERT_NE(nullptr, factory);
    for (const auto& row : rows)
    {
        SCOPED_TRACE(&row - rows);
        ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_IShellExtInit, reinterpret_cast<void**>(&init)));
        ASSERT_EQ(S_OK, init->QueryInterface(IID_IContextMenu, reinterpret_cast<void**>(&menu)));
        VmHost::RecordDebugOutput(true);
        row.call();
        VmHost::RecordDebugOutput(false);
        std::vector<std::u16string> lines;
        for (const std::u16string& line : row.lines)
            lines.push_back(u"Velmount Copy Extension : " + line);
        EXPECT_EQ(lines, VmHost::DebugOutput());
        menu->Release();
        init->Release();
    }
    factory->Release();
}
#endif

// The file manager calls the exports and the class object from any thread. Every thread starts at once and
// takes the class object, holds and drops it, locks and unlocks the server, creates and releases an object
// and asks DllCanUnloadNow, many times over: all see one class object, nothing fails, and no lock is left
// behind. Under ThreadSanitizer (host-tsan) the same run looks for data races in the module's counts and
// cache.
TEST_F(ComModuleExports, ThreadsDriveTheExportsAndTheClassObjectAtOnce)
{
    const int THREADS = 8;
    const int ROUNDS = 200;
    std::vector<void*> seen(THREADS, nullptr);
    std::vector<int> failures(THREADS, 0);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back(
            [&, i]
            {
                ++ready;
                while (ready.load() < THREADS)
                    std::this_thread::yield();
                for (int round = 0; round < ROUNDS; ++round)
                {
                    void* object = nullptr;
                    if (m_getClassObject(CLSID_VelmountCopyMoveExtension, IID_IClassFactory, &object) != S_OK)
                    {
                        ++failures[i];
                        continue;
                    }
                    auto factory = static_cast<IClassFactory*>(object);
                    if (round == 0)
                        seen[i] = factory;
                    else if (seen[i] != factory)
                        ++failures[i];
                    factory->AddRef();
                    factory->Release();
                    failures[i] += factory->LockServer(TRUE) != S_OK;
                    IUnknown* instance = nullptr;
                    failures[i] += factory->CreateInstance(nullptr, IID_IUnknown,
                                                           reinterpret_cast<void**>(&instance)) != S_OK;
                    if (instance)
                        instance->Release();
                    failures[i] += factory->LockServer(FALSE) != S_OK;
                    // Either answer is right here: the lock of the outside references is taken by the thread
                    // whose AddRef made the count 2, which may not have got to it yet. Only the end is
                    // settled.
                    m_canUnloadNow();
                    factory->Release();
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < THREADS; ++i)
    {
        EXPECT_EQ(0, failures[i]) << "thread " << i;
        EXPECT_EQ(seen[0], seen[i]) << "thread " << i;
    }
    EXPECT_EQ(S_OK, m_canUnloadNow());
}
} // namespace
