// The wrappers over a class of the test's own, linked into the test program: what happens during teardown.
#include "module/ComModule.h"
#include "module/ComObject.h"

#include <gtest/gtest.h>

namespace
{
// A class in the shape of the extension: two interfaces, IUnknown left to the wrapper.
class Probe : public IShellExtInit
{
public:
    virtual ~Probe() = default;
    HRESULT STDMETHODCALLTYPE Initialize(PCIDLIST_ABSOLUTE, IDataObject*, HKEY) override { return S_OK; }
    static int s_finalReleases;
    static ULONG s_countInFinalRelease;
};
int Probe::s_finalReleases = 0;
ULONG Probe::s_countInFinalRelease = 0;
} // namespace

template <> struct ComClassTraits<Probe>
{
    static const InterfaceMapEntry* Entries()
    {
        static const InterfaceMapEntry entries[] = {
            {&IID_IShellExtInit, InterfaceOffset<Probe, IShellExtInit>(), 1},
            {nullptr, 0, 0},
        };
        return entries;
    }
    // Reference traffic during teardown, as a member giving back a pointer to its owner would make.
    static void FinalRelease(Probe& object)
    {
        ++Probe::s_finalReleases;
        object.AddRef();
        Probe::s_countInFinalRelease = object.Release();
    }
};

namespace
{
TEST(ComObject, ReferenceTrafficInFinalReleaseDeletesOnce)
{
    LONG before = g_module->GetLockCount();
    Probe::s_finalReleases = 0;
    IShellExtInit* object = nullptr;
    ASSERT_EQ(S_OK, CreateComInstance<Probe>(nullptr, IID_IShellExtInit, reinterpret_cast<void**>(&object)));
    EXPECT_EQ(before + 1, g_module->GetLockCount());
    EXPECT_EQ(0u, object->Release());
    EXPECT_EQ(1, Probe::s_finalReleases);
    EXPECT_EQ(0xC0000001u, Probe::s_countInFinalRelease);
    EXPECT_EQ(before, g_module->GetLockCount());
}

TEST(ComObject, FailedLookupOnANewObjectGivesItsLockBack)
{
    LONG before = g_module->GetLockCount();
    Probe::s_finalReleases = 0;
    void* out = reinterpret_cast<void*>(1);
    EXPECT_EQ(E_NOINTERFACE, CreateComInstance<Probe>(nullptr, IID_IContextMenu, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(1, Probe::s_finalReleases) << "destroyed without a Release";
    EXPECT_EQ(before, g_module->GetLockCount());
}

TEST(ComObject, TableWalkRefusesMissingPieces)
{
    Probe* object = nullptr;
    void* out = nullptr;
    EXPECT_EQ(E_INVALIDARG,
              InternalQueryInterface(object, ComClassTraits<Probe>::Entries(), IID_IUnknown, &out));
    int storage = 0;
    EXPECT_EQ(E_INVALIDARG, InternalQueryInterface(&storage, nullptr, IID_IUnknown, &out));
    EXPECT_EQ(E_POINTER,
              InternalQueryInterface(&storage, ComClassTraits<Probe>::Entries(), IID_IUnknown, nullptr));
}
} // namespace
