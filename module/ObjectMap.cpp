// The row of CVelmountCopyMoveExtension and its interface table.
#include "module/ObjectMap.h"

#include "extension/CopyMoveExtension.h"
#include "module/ClassFactory.h"
#include "module/Registration.h"

// The extension answers IShellExtInit and IContextMenu. It derives from IContextMenu2 and keeps
// HandleMenuMsg in that table, but IContextMenu2 is deliberately not answered: the menu needs no owner-drawn
// items (its bitmap goes in through SetMenuItemBitmaps), HandleMenuMsg does nothing, and a host that gets
// IContextMenu2 starts forwarding every WM_INITMENUPOPUP/WM_DRAWITEM/WM_MEASUREITEM of the menu to us for
// nothing. IContextMenu is the second table of the object, the one whose first slots are IContextMenu2's.
namespace
{
// At namespace scope, for the reason given beside the class object's table (ClassFactory.cpp).
const InterfaceMapEntry g_extensionEntries[] = {
    {&IID_IShellExtInit, InterfaceOffset<CVelmountCopyMoveExtension, IShellExtInit>(), 1},
    {&IID_IContextMenu, InterfaceOffset<CVelmountCopyMoveExtension, IContextMenu>(), 1},
    {nullptr, 0, 0},
};
} // namespace

const InterfaceMapEntry* ComClassTraits<CVelmountCopyMoveExtension>::Entries()
{
    return g_extensionEntries;
}

void ComClassTraits<CVelmountCopyMoveExtension>::FinalRelease(CVelmountCopyMoveExtension& object)
{
    object.FinalRelease();
}

namespace
{
HRESULT WINAPI UpdateExtensionRegistry(BOOL registering)
{
    return ApplyRegistryResource(ModuleInstance(), IDR_CLASS_SCRIPT, registering, nullptr);
}

HRESULT WINAPI CreateExtension(void* outer, REFIID iid, void** out)
{
    return CreateComInstance<CVelmountCopyMoveExtension>(static_cast<IUnknown*>(outer), iid, out);
}

HRESULT WINAPI GetExtensionClassObject(void* creator, REFIID iid, void** out)
{
    return CreateClassFactory(creator, iid, out);
}

LPCWSTR WINAPI GetNoDescription()
{
    return nullptr;
}

const void* WINAPI GetNoCategoryMap()
{
    return nullptr;
}

void WINAPI ObjectMainNothing(bool) {}

IUnknown* g_extensionFactoryCache = nullptr;

ObjectMapEntry g_extensionRow = {
    &CLSID_VelmountCopyMoveExtension, UpdateExtensionRegistry, GetExtensionClassObject, CreateExtension,
    &g_extensionFactoryCache,         GetNoDescription,        GetNoCategoryMap,        ObjectMainNothing,
};

// Walkers skip null pointers, so a class can be taken out by nulling its entry without moving the others.
ObjectMapEntry* g_objectMap[] = {&g_extensionRow};
} // namespace

void GetObjectMap(ObjectMapEntry**& first, ObjectMapEntry**& last)
{
    first = g_objectMap;
    last = g_objectMap + sizeof(g_objectMap) / sizeof(g_objectMap[0]);
}
