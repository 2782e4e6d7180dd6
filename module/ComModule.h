// The module object with its lock count, the records that stand beside it, and the object map: what the
// exports, the class objects and registration share. All are statics with process lifetime, set up before the
// library's entry function runs and torn down after it has seen the process detach (ComModule.cpp).
#pragma once

#include "platform/Win32.h"

struct IRegistrarBase;

// {7031DB56-AEF0-4A42-B4C9-BFDF2ABE4765}: the one creatable class.
const CLSID CLSID_VelmountCopyMoveExtension = {
    0x7031DB56, 0xAEF0, 0x4A42, {0xB4, 0xC9, 0xBF, 0xDF, 0x2A, 0xBE, 0x47, 0x65}};
// {F9F6B9EC-8D85-45A4-96C5-B13AE720EDD2}: the type library, also the application id of the registration.
const GUID LIBID_VelmountShellExtension = {
    0xF9F6B9EC, 0x8D85, 0x45A4, {0x96, 0xC5, 0xB1, 0x3A, 0xE7, 0x20, 0xED, 0xD2}};

// A termination callback; nothing in the library adds one, so the list stays empty.
struct ModuleTermFunc
{
    void(WINAPI* m_function)(DWORD_PTR argument);
    DWORD_PTR m_argument;
    ModuleTermFunc* m_next;
};

// The plain record at the module object's start.
struct _ATL_MODULE70
{
    UINT m_structSize; // the record's size once the module's lock stands; 0 before and after
    LONG m_lockCount;
    ModuleTermFunc* m_termFuncs;
    CRITICAL_SECTION m_staticDataLock;
};

class CAtlModule : public _ATL_MODULE70
{
public:
    CAtlModule() noexcept;
    virtual ~CAtlModule();
    CAtlModule(const CAtlModule&) = delete;
    CAtlModule& operator=(const CAtlModule&) = delete;

    virtual LONG Lock() noexcept;
    virtual LONG Unlock() noexcept;
    virtual LONG GetLockCount() noexcept;
    virtual HRESULT GetGlobalInterfaceTable(IGlobalInterfaceTable** table) noexcept;
    virtual HRESULT AddCommonReplacements(IRegistrarBase* registrar) noexcept;

    // Runs and frees the termination callbacks, releases the global interface table, deletes the lock.
    void Term() noexcept;

    IGlobalInterfaceTable* m_globalInterfaceTable;
    GUID m_libraryId;
};

template <class T> class CAtlModuleT : public CAtlModule
{
};

// Checks a module's configuration at compile time; there is nothing to hold.
template <bool Valid, class T> class CAtlValidateModuleConfiguration
{
    static_assert(Valid, "module configuration");
};

template <class T>
class CAtlDllModuleT : public CAtlModuleT<T>, private CAtlValidateModuleConfiguration<true, T>
{
};

class CVelmountCopyMoveHandlerModule : public CAtlDllModuleT<CVelmountCopyMoveHandlerModule>
{
};

// Every wrapper reaches Lock and Unlock through this.
extern CAtlModule* g_module;

// One row per creatable class.
typedef HRESULT(WINAPI* CreatorFunction)(void* outer, REFIID iid, void** out);
struct ObjectMapEntry
{
    const CLSID* m_classId;
    HRESULT(WINAPI* m_updateRegistry)(BOOL registering);
    HRESULT(WINAPI* m_getClassObject)(void* creator, REFIID iid, void** out);
    HRESULT(WINAPI* m_createInstance)(void* outer, REFIID iid, void** out);
    IUnknown** m_factoryCache; // holds the class object as EncodePointer made it, or null
    LPCWSTR(WINAPI* m_getDescription)();
    const void*(WINAPI* m_getCategoryMap)();
    void(WINAPI* m_objectMain)(bool starting);
};

// The record beside the module that owns the object map.
struct ComModuleStateRecord
{
    UINT m_structSize; // the record's size once m_objectMapLock stands; 0 before and after
    HINSTANCE m_typeLibInstance;
    ObjectMapEntry** m_objectMapFirst;
    ObjectMapEntry** m_objectMapLast; // one past the last pointer; null pointers in between are skipped
    CRITICAL_SECTION m_objectMapLock;
};
extern ComModuleStateRecord ComModuleState;

// The record of the library's own module handle and the modules its resources come from.
struct CAtlBaseModule
{
    UINT m_structSize;
    HINSTANCE m_instance;
    HINSTANCE m_resourceInstance;
    CRITICAL_SECTION m_resourceLock;
    HINSTANCE* m_resourceModules; // further resource modules; nothing adds one
    int m_resourceModuleCount;
};
extern CAtlBaseModule g_baseModule;

// Set when a critical section of the three records couldn't be initialised: the library then refuses to load.
extern BYTE g_initFailed;

// For registration: the library's own handle, the source of its type library, the run of every row's
// m_updateRegistry (stopping at the first failure), and the module's common replacements.
HINSTANCE ModuleInstance();
HINSTANCE TypeLibraryInstance();
HRESULT UpdateObjectMapRegistry(BOOL registering);
HRESULT AddModuleReplacements(IRegistrarBase* registrar);
