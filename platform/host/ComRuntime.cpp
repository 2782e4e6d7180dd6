#include "platform/host/ComRuntime.h"

#include "platform/host/BuiltInClasses.h"
#include "platform/host/Kernel.h"

#include <atomic>
#include <map>
#include <mutex>

namespace
{
thread_local int t_initCount = 0;
thread_local DWORD t_model = 0;
std::atomic<long> g_multithreadedThreads{0};

struct Registration
{
    CLSID clsid;
    IUnknown* object;
    DWORD context;
};
std::mutex g_registrationsLock;
std::map<DWORD, Registration> g_registrations;
DWORD g_nextCookie = 1;

bool InApartment()
{
    return t_initCount > 0 || g_multithreadedThreads > 0;
}
} // namespace

HRESULT CoInitializeEx(LPVOID, DWORD coInit)
{
    DWORD model = (coInit & COINIT_APARTMENTTHREADED) ? COINIT_APARTMENTTHREADED : COINIT_MULTITHREADED;
    if (t_initCount > 0)
    {
        if (model != t_model)
            return RPC_E_CHANGED_MODE;
        ++t_initCount;
        return S_FALSE;
    }
    t_initCount = 1;
    t_model = model;
    if (model == COINIT_MULTITHREADED)
        ++g_multithreadedThreads;
    return S_OK;
}

HRESULT CoInitialize(LPVOID reserved)
{
    return CoInitializeEx(reserved, COINIT_APARTMENTTHREADED);
}

void CoUninitialize(void)
{
    if (t_initCount == 0)
        return;
    if (--t_initCount == 0 && t_model == COINIT_MULTITHREADED)
        --g_multithreadedThreads;
}

HRESULT CoRegisterClassObject(REFCLSID clsid, LPUNKNOWN classObject, DWORD clsContext, DWORD, LPDWORD cookie)
{
    if (!classObject || !cookie)
        return E_INVALIDARG;
    *cookie = 0;
    if (!InApartment())
        return CO_E_NOTINITIALIZED;
    classObject->AddRef();
    std::lock_guard<std::mutex> guard(g_registrationsLock);
    DWORD issued = g_nextCookie++;
    g_registrations[issued] = Registration{clsid, classObject, clsContext};
    *cookie = issued;
    return S_OK;
}

HRESULT CoRevokeClassObject(DWORD cookie)
{
    IUnknown* object = nullptr;
    {
        std::lock_guard<std::mutex> guard(g_registrationsLock);
        auto found = g_registrations.find(cookie);
        if (found == g_registrations.end())
            return E_INVALIDARG;
        object = found->second.object;
        g_registrations.erase(found);
    }
    object->Release();
    return S_OK;
}

HRESULT CoCreateInstance(REFCLSID clsid, LPUNKNOWN outer, DWORD clsContext, REFIID iid, LPVOID* object)
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    if (!InApartment())
        return CO_E_NOTINITIALIZED;
    IUnknown* registered = nullptr;
    {
        std::lock_guard<std::mutex> guard(g_registrationsLock);
        // The newest registration of the class wins, as a later CoRegisterClassObject does on Windows.
        for (auto it = g_registrations.rbegin(); it != g_registrations.rend(); ++it)
            if (it->second.clsid == clsid && (it->second.context & clsContext))
            {
                registered = it->second.object;
                registered->AddRef();
                break;
            }
    }
    if (registered)
    {
        IClassFactory* factory = nullptr;
        HRESULT hr = registered->QueryInterface(IID_IClassFactory, reinterpret_cast<void**>(&factory));
        registered->Release();
        if (hr != S_OK || !factory)
            return hr == S_OK ? E_NOINTERFACE : hr;
        hr = factory->CreateInstance(outer, iid, object);
        factory->Release();
        return hr;
    }
    if (clsContext & CLSCTX_INPROC_SERVER)
    {
        if (clsid == CLSID_ProgressDialog)
        {
            if (outer)
                return CLASS_E_NOAGGREGATION;
            return VmHost::CreateProgressDialog(iid, object);
        }
    }
    return REGDB_E_CLASSNOTREG;
}
