#include "module/ClassFactory.h"

#include "foundation/Hresult.h"

namespace
{
// At namespace scope, filled in while the library loads: a table local to Entries would be filled on first
// use behind the C++ runtime's guard, and under mingw-w64's threads that guard gives each thread that takes
// it a thread handle and an event that nothing closes when the library is unloaded (two handles per load).
const InterfaceMapEntry g_factoryEntries[] = {
    {&IID_IClassFactory, InterfaceOffset<CComClassFactory, IClassFactory>(), 1},
    {nullptr, 0, 0},
};
} // namespace

const InterfaceMapEntry* ComClassTraits<CComClassFactory>::Entries()
{
    return g_factoryEntries;
}

HRESULT STDMETHODCALLTYPE CComClassFactory::CreateInstance(IUnknown* outer, REFIID iid, void** out)
{
    if (!out)
        return E_POINTER;
    *out = nullptr;
    if (outer && !SameId(iid, IID_IUnknown))
        return CLASS_E_NOAGGREGATION;
    return m_creator(outer, iid, out);
}

HRESULT STDMETHODCALLTYPE CComClassFactory::LockServer(BOOL lock)
{
    if (lock)
        g_module->Lock();
    else
        g_module->Unlock();
    return S_OK;
}

HRESULT WINAPI CreateClassFactory(void* creator, REFIID iid, void** out)
{
    if (!out)
        return E_POINTER;
    *out = nullptr;
    auto factory = new (std::nothrow) CComObjectCached<CComClassFactory>();
    if (!factory)
        return E_OUTOFMEMORY;
    factory->m_creator = reinterpret_cast<CreatorFunction>(creator);
    if (!factory->InitializeLock())
    {
        HRESULT hr = HresultFromLastError();
        delete factory;
        return hr;
    }
    HRESULT hr = factory->QueryInterface(iid, out);
    if (hr != S_OK)
        delete factory;
    return hr;
}
