// IUnknown for a stand-in object that answers one interface: the creator holds the first reference, the last
// Release deletes the object as the class it was made as.
#pragma once

#include "platform/host/Com.h"

#include <atomic>

template <class Derived, class Interface, const GUID& InterfaceId> class SingleInterface : public Interface
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        if (iid == IID_IUnknown || iid == InterfaceId)
        {
            *object = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        ULONG left = --m_references;
        if (left == 0)
            delete static_cast<Derived*>(this);
        return left;
    }

private:
    std::atomic<ULONG> m_references{1};
};
