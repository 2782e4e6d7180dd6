// The registry script interpreter: one text drives both registration and unregistration of the keys and
// values it names. Tokens, roots, keywords and value types are described beside their readers in
// RegistryScript.cpp.
#pragma once

#include "module/ScriptExpansion.h"
#include "platform/Win32.h"

// The registrar contract that the module object's AddCommonReplacements speaks to.
struct IRegistrarBase : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE AddReplacement(LPCOLESTR name, LPCOLESTR value) = 0;
    virtual HRESULT STDMETHODCALLTYPE ClearReplacements() = 0;
};

// Lives on the caller's stack for one registration step; reference counting is a formality.
class CRegObject : public IRegistrarBase
{
public:
    CRegObject() = default;
    CRegObject(const CRegObject&) = delete;
    CRegObject& operator=(const CRegObject&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
    ULONG STDMETHODCALLTYPE Release() override { return 0; }
    HRESULT STDMETHODCALLTYPE AddReplacement(LPCOLESTR name, LPCOLESTR value) override;
    HRESULT STDMETHODCALLTYPE ClearReplacements() override;
    virtual ~CRegObject();

    ReplacementMap m_replacements;
};

// A registry handle with its owner's access bits (only the WOW64 view bits, 0x300, are kept).
class RegistryKey
{
public:
    RegistryKey() = default;
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;
    ~RegistryKey() { Close(); }

    // On failure returns the Windows error and leaves the object as it was; on success returns the result of
    // closing the handle it held before.
    LONG OpenKey(HKEY parent, LPCWSTR name, REGSAM access);
    LONG Close();
    // Takes over a handle that was opened elsewhere (created keys), or lends one without owning it.
    void Attach(HKEY handle, REGSAM access);
    HKEY Detach();

    HKEY m_handle = nullptr;
    REGSAM m_accessBits = 0;
    void* m_transaction = nullptr;
};

const int SCRIPT_TOKEN_CHARS = 4096;
// Nesting of blocks that a script may use; the system's own scripts need 7 at most.
const int MAX_SCRIPT_BLOCK_DEPTH = 32;

// Runs script resource `resourceId` of type `resourceType` from the library at `modulePath`.
HRESULT RunScriptResource(CRegObject* registrar, LPCWSTR modulePath, UINT resourceId, LPCWSTR resourceType,
                          BOOL registering);
HRESULT RunScript(ScriptParser& parser, LPCWSTR source, BOOL registering);
HRESULT ReadToken(ScriptParser& parser, LPWSTR token);
HRESULT SkipValueClause(ScriptParser& parser, LPWSTR token);
HRESULT ProcessBlock(ScriptParser& parser, LPWSTR token, HKEY parent, BOOL registering, BOOL recovering);
HRESULT WriteValue(ScriptParser& parser, HKEY key, LPCWSTR valueName, LPWSTR token);
LONG DeleteKeyTree(const RegistryKey& parent, LPCWSTR name);
LONG DeleteChildKey(const RegistryKey& parent, LPCWSTR name);
