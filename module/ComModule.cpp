// The module object, the records beside it, the entry function and the two run-time exports.
//
// The three records are statics of this one file, so the language's order of construction is the order of
// process attach (base module, object map state, module) and its reverse the order of detach. On Windows the
// runtime constructs them before DllMain sees DLL_PROCESS_ATTACH and destroys them after DLL_PROCESS_DETACH.
#include "module/ComModule.h"

#include "extension/CopyMoveExtension.h"
#include "foundation/AtlException.h"
#include "foundation/Hresult.h"
#include "foundation/WideString.h"
#include "module/ModuleLock.h"
#include "module/ObjectMap.h"
#include "module/RegistryScript.h"

CAtlModule* g_module = nullptr;
BYTE g_initFailed = 0;
CAtlBaseModule g_baseModule = {};
ComModuleStateRecord ComModuleState = {};

namespace
{
const WCHAR APPLICATION_ID_NAME[] = TEXT("APPID");
const WCHAR APPLICATION_ID_TEXT[] = TEXT("{f9f6b9ec-8d85-45a4-96c5-b13ae720edd2}");

// The handle of the module that holds this code, without a reference of its own.
HINSTANCE OwnModule()
{
    HMODULE self = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&g_baseModule), &self))
        return nullptr;
    return self;
}

// A critical section that can't be set up marks the whole library as failed: DllMain then refuses the load.
bool InitializeLock(CRITICAL_SECTION* section)
{
    if (InitializeCriticalSectionEx(section, 0, 0))
        return true;
    if (FAILED(HresultFromLastError()))
        g_initFailed = 1;
    return false;
}

template <class Visit> void ForEachRow(Visit visit)
{
    for (ObjectMapEntry** at = ComModuleState.m_objectMapFirst; at && at < ComModuleState.m_objectMapLast;
         ++at)
        if (*at)
            visit(**at);
}

struct BaseModuleLifetime
{
    BaseModuleLifetime() noexcept
    {
        g_baseModule.m_instance = OwnModule();
        g_baseModule.m_resourceInstance = g_baseModule.m_instance;
        if (InitializeCriticalSectionEx(&g_baseModule.m_resourceLock, 0, 0))
        {
            g_baseModule.m_structSize = sizeof(g_baseModule);
            return;
        }
        g_initFailed = 1;
        if (IsDebuggerPresent())
            OutputDebugStringW(TEXT("ERROR : Unable to initialize critical section in CAtlBaseModule\n"));
    }
    ~BaseModuleLifetime()
    {
        if (g_baseModule.m_structSize)
            DeleteCriticalSection(&g_baseModule.m_resourceLock);
        delete[] g_baseModule.m_resourceModules;
        g_baseModule.m_resourceModules = nullptr;
        g_baseModule.m_resourceModuleCount = 0;
        g_baseModule.m_structSize = 0;
    }
    BaseModuleLifetime(const BaseModuleLifetime&) = delete;
    BaseModuleLifetime& operator=(const BaseModuleLifetime&) = delete;
};

struct ComModuleStateLifetime
{
    ComModuleStateLifetime() noexcept
    {
        ComModuleState.m_typeLibInstance = OwnModule();
        GetObjectMap(ComModuleState.m_objectMapFirst, ComModuleState.m_objectMapLast);
        if (InitializeLock(&ComModuleState.m_objectMapLock))
            ComModuleState.m_structSize = sizeof(ComModuleState);
    }
    // The only Release that destroys a class object: the cache's own reference.
    ~ComModuleStateLifetime()
    {
        if (!ComModuleState.m_structSize)
            return;
        ForEachRow(
            [](ObjectMapEntry& row)
            {
                if (row.m_factoryCache && *row.m_factoryCache)
                {
                    auto factory = static_cast<IUnknown*>(DecodePointer(*row.m_factoryCache));
                    *row.m_factoryCache = nullptr;
                    factory->Release();
                }
            });
        DeleteCriticalSection(&ComModuleState.m_objectMapLock);
        ComModuleState.m_structSize = 0;
    }
    ComModuleStateLifetime(const ComModuleStateLifetime&) = delete;
    ComModuleStateLifetime& operator=(const ComModuleStateLifetime&) = delete;
};

// Construction order is attach order; destruction runs backwards.
BaseModuleLifetime g_baseModuleLifetime;
ComModuleStateLifetime g_comModuleStateLifetime;
CVelmountCopyMoveHandlerModule g_handlerModule;
} // namespace

CAtlModule::CAtlModule() noexcept : _ATL_MODULE70(), m_globalInterfaceTable(nullptr), m_libraryId(GUID())
{
    g_module = this;
    if (InitializeLock(&m_staticDataLock))
        m_structSize = sizeof(_ATL_MODULE70);
    m_libraryId = LIBID_VelmountShellExtension;
    ForEachRow(
        [](ObjectMapEntry& row)
        {
            if (row.m_objectMain)
                row.m_objectMain(true);
        });
}

CAtlModule::~CAtlModule()
{
    ForEachRow(
        [](ObjectMapEntry& row)
        {
            if (row.m_objectMain)
                row.m_objectMain(false);
        });
    Term();
}

void CAtlModule::Term() noexcept
{
    if (!m_structSize)
        return;
    while (ModuleTermFunc* entry = m_termFuncs)
    {
        m_termFuncs = entry->m_next;
        entry->m_function(entry->m_argument);
        delete entry;
    }
    if (m_globalInterfaceTable)
    {
        m_globalInterfaceTable->Release();
        m_globalInterfaceTable = nullptr;
    }
    DeleteCriticalSection(&m_staticDataLock);
    m_structSize = 0;
}

LONG CAtlModule::Lock() noexcept
{
    return InterlockedIncrement(&m_lockCount);
}

// No floor: an unbalanced Unlock goes below zero, and a negative count keeps the library loaded.
LONG CAtlModule::Unlock() noexcept
{
    return InterlockedDecrement(&m_lockCount);
}

// Workers and the file manager's threads change the count while another thread asks DllCanUnloadNow: a plain
// read of it would race with their interlocked writes.
LONG CAtlModule::GetLockCount() noexcept
{
    return InterlockedCompareExchange(&m_lockCount, 0, 0);
}

HRESULT CAtlModule::GetGlobalInterfaceTable(IGlobalInterfaceTable** table) noexcept
{
    if (!table)
        return E_POINTER;
    if (!m_globalInterfaceTable)
    {
        HRESULT hr =
            CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IGlobalInterfaceTable, reinterpret_cast<void**>(&m_globalInterfaceTable));
        if (FAILED(hr))
            return hr;
    }
    *table = m_globalInterfaceTable;
    m_globalInterfaceTable->AddRef();
    return S_OK;
}

HRESULT CAtlModule::AddCommonReplacements(IRegistrarBase* registrar) noexcept
{
    return registrar->AddReplacement(APPLICATION_ID_NAME, APPLICATION_ID_TEXT);
}

HINSTANCE ModuleInstance()
{
    return g_baseModule.m_instance;
}

HINSTANCE TypeLibraryInstance()
{
    return ComModuleState.m_typeLibInstance;
}

HRESULT UpdateObjectMapRegistry(BOOL registering)
{
    for (ObjectMapEntry** at = ComModuleState.m_objectMapFirst; at && at < ComModuleState.m_objectMapLast;
         ++at)
    {
        if (!*at || !(*at)->m_updateRegistry)
            continue;
        HRESULT hr = (*at)->m_updateRegistry(registering);
        if (FAILED(hr))
            return hr;
    }
    return S_OK;
}

HRESULT AddModuleReplacements(IRegistrarBase* registrar)
{
    return g_module->AddCommonReplacements(registrar);
}

// Work that outlives its COM object (the operation worker) counts in the same lock as a living object, from
// before its thread is created until its last instruction in this library (ModuleLock.h). The unload rule
// thus stays the one rule, "the count is 0", and a host that polls DllCanUnloadNow never frees the code
// under a running worker; a loader reference that the worker drops in FreeLibraryAndExitThread covers the
// instructions after its last ModuleLockRelease.
LONG ModuleLockAcquire()
{
    return g_module->Lock();
}

LONG ModuleLockRelease()
{
    return g_module->Unlock();
}

// Thread attach and detach come here too: they only store the handle again.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    g_moduleInstance = instance;
    if (reason == DLL_PROCESS_ATTACH)
        return g_initFailed ? FALSE : TRUE;
    return TRUE;
}

// A host asks this when it looks for libraries to unload (the file manager does so now and then while it is
// idle), and an S_OK means no object, class object lock or worker of ours is in use: the moment to give back
// the text blocks kept for the next menu, since the host may keep the library loaded for weeks after.
STDAPI DllCanUnloadNow()
{
    if (!g_module || g_module->GetLockCount() != 0)
        return S_FALSE;
    WideString::Batch::FreeSpareBlocks();
    return S_OK;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* out)
{
    return ComWall(
        [&]() -> HRESULT
        {
            if (!out)
                return E_POINTER;
            *out = nullptr;
            if (!ComModuleState.m_structSize)
                return E_UNEXPECTED;

            HRESULT hr = S_OK;
            for (ObjectMapEntry** at = ComModuleState.m_objectMapFirst; at < ComModuleState.m_objectMapLast;
                 ++at)
            {
                ObjectMapEntry* row = *at;
                if (!row || !row->m_getClassObject || !SameId(clsid, *row->m_classId))
                    continue;
                // The cache is read without the lock first; only its creation is serialised, and the second
                // read inside the lock keeps two racing threads from making two class objects. The reads and
                // the store are atomic so that a thread that sees the pointer also sees the object behind it.
                auto cache = reinterpret_cast<PVOID volatile*>(row->m_factoryCache);
                if (!InterlockedCompareExchangePointer(cache, nullptr, nullptr))
                {
                    EnterCriticalSection(&ComModuleState.m_objectMapLock);
                    if (!InterlockedCompareExchangePointer(cache, nullptr, nullptr))
                    {
                        IUnknown* created = nullptr;
                        hr = row->m_getClassObject(reinterpret_cast<void*>(row->m_createInstance),
                                                   IID_IUnknown, reinterpret_cast<void**>(&created));
                        if (SUCCEEDED(hr) && created)
                            InterlockedExchangePointer(cache, EncodePointer(created));
                    }
                    LeaveCriticalSection(&ComModuleState.m_objectMapLock);
                }
                if (PVOID encoded = InterlockedCompareExchangePointer(cache, nullptr, nullptr))
                    hr = static_cast<IUnknown*>(DecodePointer(encoded))->QueryInterface(iid, out);
                break;
            }
            if (!*out && hr == S_OK)
                hr = CLASS_E_CLASSNOTAVAILABLE;
            return hr;
        });
}
