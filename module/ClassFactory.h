// The class object: creates extension objects through the creator of its object map row, and is cached by
// the module for the life of the process.
#pragma once

#include "module/ComModule.h"
#include "module/ComObject.h"

class CComClassFactory : public IClassFactory, public CComObjectRootEx<CComMultiThreadModel>
{
public:
    CComClassFactory() noexcept = default;
    virtual ~CComClassFactory() = default;
    CComClassFactory(const CComClassFactory&) = delete;
    CComClassFactory& operator=(const CComClassFactory&) = delete;

    // An outer unknown may ask only for IUnknown (COM's aggregation rule); everything else goes to the
    // creator.
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override;
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override;

    CreatorFunction m_creator = nullptr;
};

template <> struct ComClassTraits<CComClassFactory>
{
    static const InterfaceMapEntry* Entries();
    static void FinalRelease(CComClassFactory&) {}
};

// The cached form. Its reference of the cache (count 1) doesn't hold the library; every outside reference
// together holds one lock: taken when the count rises to 2, given back when it falls to 1.
template <class Base> class CComObjectCached : public Base
{
public:
    CComObjectCached() noexcept = default;
    ~CComObjectCached() override
    {
        this->m_dwRef = CComObjectRootBase::TEARDOWN_COUNT;
        if (m_lockInitialized)
            DeleteCriticalSection(&m_lock);
    }
    CComObjectCached(const CComObjectCached&) = delete;
    CComObjectCached& operator=(const CComObjectCached&) = delete;

    // The lock is set up and torn down with the object; no operation enters it.
    bool InitializeLock() noexcept
    {
        m_lockInitialized = InitializeCriticalSectionEx(&m_lock, 0, 0) != FALSE;
        return m_lockInitialized;
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        return InternalQueryInterface(static_cast<Base*>(this), ComClassTraits<Base>::Entries(), iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() override
    {
        ULONG count = this->InternalAddRef();
        if (count == 2)
            g_module->Lock();
        return count;
    }
    ULONG STDMETHODCALLTYPE Release() override
    {
        ULONG count = this->InternalRelease();
        if (count == 0)
            delete this;
        else if (count == 1)
            g_module->Unlock();
        return count;
    }

private:
    CRITICAL_SECTION m_lock = {};
    bool m_lockInitialized = false;
};

// The row's m_getClassObject: a new cached class factory around `creator`.
HRESULT WINAPI CreateClassFactory(void* creator, REFIID iid, void** out);
