// The least COM wrapper a test needs around the extension class: reference count, the two interfaces, and the
// final release before the members go.
#pragma once

#include "platform/Win32.h"

namespace TestSupport
{
template <class T> class TestComObject : public T
{
public:
    static TestComObject* Create() { return new TestComObject; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IShellExtInit))
            *ppv = static_cast<IShellExtInit*>(this);
        else if (IsEqualIID(riid, IID_IContextMenu) || IsEqualIID(riid, IID_IContextMenu2))
            *ppv = static_cast<IContextMenu2*>(this);
        else
        {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++m_references); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        LONG left = --m_references;
        if (left == 0)
            delete this;
        return static_cast<ULONG>(left);
    }

private:
    TestComObject() = default;
    ~TestComObject() override { this->FinalRelease(); }
    LONG m_references = 1;
};
} // namespace TestSupport
