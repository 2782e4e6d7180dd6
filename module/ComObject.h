// Reference counting, interface lookup and aggregation around a plain class. The wrapped class holds the
// behaviour and leaves IUnknown's three methods to the wrapper that is instantiated over it:
//   CComObject<T>          the object as created without an outer unknown;
//   CComContainedObject<T> the inner object of an aggregate, whose IUnknown calls go to the outer unknown;
//   CComAggObject<T>       the aggregate's own (non-delegating) unknown, holding the contained object.
// What the wrappers need of T comes from ComClassTraits<T>: its interface table, its thread model, and its
// final release.
#pragma once

#include "module/ComModule.h"
#include "platform/Win32.h"

#include <new>

// One row of an interface table: the interface id, where that interface sits from the object's start, and 1;
// a row with marker 0 ends the table. The first row also answers IUnknown.
struct InterfaceMapEntry
{
    const IID* m_interfaceId;
    DWORD_PTR m_offset;
    DWORD_PTR m_marker;
};

// Offset of interface I inside class T, as a table row holds it.
template <class T, class I> DWORD_PTR InterfaceOffset()
{
    // Any non-null, suitably aligned address serves: only the difference is kept.
    const DWORD_PTR probe = 0x1000;
    return reinterpret_cast<DWORD_PTR>(static_cast<I*>(reinterpret_cast<T*>(probe))) - probe;
}

// Compares two ids as four 32-bit words, as the table walk and the object map walk do.
inline bool SameId(REFGUID a, REFGUID b)
{
    const DWORD* left = reinterpret_cast<const DWORD*>(&a);
    const DWORD* right = reinterpret_cast<const DWORD*>(&b);
    return left[0] == right[0] && left[1] == right[1] && left[2] == right[2] && left[3] == right[3];
}

// The table walk: `base` is the object's start. The interface found gets an AddRef through itself, so in a
// contained object it lands on the outer unknown.
HRESULT InternalQueryInterface(void* base, const InterfaceMapEntry* entries, REFIID iid, void** out);

// The apartment objects count with plain integers; the class factory, reachable from any thread, atomically
// with a full barrier.
struct CComSingleThreadModel
{
    static ULONG Increment(LONG* value) { return static_cast<ULONG>(++*value); }
    static ULONG Decrement(LONG* value) { return static_cast<ULONG>(--*value); }
};
struct CComMultiThreadModel
{
    static ULONG Increment(LONG* value) { return static_cast<ULONG>(InterlockedIncrement(value)); }
    static ULONG Decrement(LONG* value) { return static_cast<ULONG>(InterlockedDecrement(value)); }
};

// What a wrapper holds for its object: one word that is the reference count, or in a contained object the
// outer unknown.
class CComObjectRootBase
{
public:
    // The value a count takes while the object is torn down: traffic during teardown can't bring it to 0.
    static const LONG TEARDOWN_COUNT = static_cast<LONG>(0xC0000001u);

    union
    {
        LONG m_dwRef;
        IUnknown* m_pOuterUnknown;
    };

    CComObjectRootBase() noexcept : m_pOuterUnknown(nullptr) { m_dwRef = 0; }
};

template <class ThreadModel> class CComObjectRootEx : public CComObjectRootBase
{
public:
    ULONG InternalAddRef() noexcept { return ThreadModel::Increment(&m_dwRef); }
    ULONG InternalRelease() noexcept { return ThreadModel::Decrement(&m_dwRef); }
};

// Specialised for each class that a wrapper is instantiated over:
//   static const InterfaceMapEntry* Entries();   the interface table
//   static void FinalRelease(T& object);         gives back what the object holds, before its members go
template <class T> struct ComClassTraits;

// The last Release of an apartment object deletes it under one more lock, so that the module's count stays
// above zero while the members are torn down.
template <class Object> ULONG ReleaseApartmentObject(Object* object)
{
    ULONG count = object->InternalRelease();
    if (count == 0)
    {
        g_module->Lock();
        delete object;
        g_module->Unlock();
    }
    return count;
}

// Creation and teardown of an apartment object hold the module: one lock from construction to destruction,
// and one more around the deletion itself so that the count stays above zero while members are torn down.
template <class Base> class CComObject : public Base, public CComObjectRootEx<CComSingleThreadModel>
{
public:
    CComObject() noexcept { g_module->Lock(); }
    ~CComObject() override
    {
        m_dwRef = TEARDOWN_COUNT;
        ComClassTraits<Base>::FinalRelease(*this);
        g_module->Unlock();
    }
    CComObject(const CComObject&) = delete;
    CComObject& operator=(const CComObject&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        return InternalQueryInterface(static_cast<Base*>(this), ComClassTraits<Base>::Entries(), iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InternalAddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return ReleaseApartmentObject(this); }
};

// The inner object of an aggregate: its IUnknown is the outer unknown's.
template <class Base> class CComContainedObject : public Base, public CComObjectRootBase
{
public:
    explicit CComContainedObject(IUnknown* outer) noexcept { m_pOuterUnknown = outer; }
    CComContainedObject(const CComContainedObject&) = delete;
    CComContainedObject& operator=(const CComContainedObject&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        return m_pOuterUnknown->QueryInterface(iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return m_pOuterUnknown->AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return m_pOuterUnknown->Release(); }

    // The aggregate's way in, past the forwarding: the table walk on this object.
    HRESULT InnerQueryInterface(REFIID iid, void** out)
    {
        return InternalQueryInterface(static_cast<Base*>(this), ComClassTraits<Base>::Entries(), iid, out);
    }
};

// The non-delegating unknown of an aggregate. It keeps its own count; the contained object's interfaces count
// on the outer unknown.
template <class Contained>
class CComAggObject : public IUnknown, public CComObjectRootEx<CComSingleThreadModel>
{
public:
    explicit CComAggObject(IUnknown* outer) noexcept : m_contained(outer) { g_module->Lock(); }
    virtual ~CComAggObject()
    {
        m_dwRef = TEARDOWN_COUNT;
        ComClassTraits<Contained>::FinalRelease(m_contained);
        g_module->Unlock();
    }
    CComAggObject(const CComAggObject&) = delete;
    CComAggObject& operator=(const CComAggObject&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (!out)
            return E_POINTER;
        *out = nullptr;
        if (SameId(iid, IID_IUnknown))
        {
            *out = static_cast<IUnknown*>(this);
            AddRef();
            return S_OK;
        }
        return m_contained.InnerQueryInterface(iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InternalAddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return ReleaseApartmentObject(this); }

    CComContainedObject<Contained> m_contained;
};

// The row's creator: a plain object without an outer unknown, an aggregate with one. A construction that
// fails is E_OUTOFMEMORY with no lock held (the lock is taken only once the wrapped class stands); a failed
// QueryInterface destroys the new object without a Release, which gives the lock of creation back.
template <class Object> HRESULT CreateWrapped(Object* object, REFIID iid, void** out)
{
    if (!object)
        return E_OUTOFMEMORY;
    HRESULT hr = object->QueryInterface(iid, out);
    if (hr != S_OK)
        delete object;
    return hr;
}

template <class T> HRESULT CreateComInstance(IUnknown* outer, REFIID iid, void** out)
{
    if (!out)
        return E_POINTER;
    *out = nullptr;
    try
    {
        if (outer)
            return CreateWrapped(new (std::nothrow) CComAggObject<T>(outer), iid, out);
        return CreateWrapped(new (std::nothrow) CComObject<T>(), iid, out);
    }
    catch (...)
    {
        return E_OUTOFMEMORY;
    }
}
