#include "module/Registration.h"

#include "foundation/AtlException.h"
#include "foundation/Hresult.h"
#include "module/ComModule.h"
#include "module/RegistryScript.h"
#include "module/TypeLibrary.h"

BYTE g_perUserRegistration = 0;

namespace
{
const WCHAR CLASS_ID_TEXT[] = TEXT("{7031db56-aef0-4a42-b4c9-bfdf2abe4765}");
const WCHAR HANDLER_NAME[] = TEXT("Velmount.CopyMove");
const WCHAR APPROVED_LIST_KEY[] =
    TEXT("Software\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\Approved");
const WCHAR APPLICATION_ID_TEXT[] = TEXT("{f9f6b9ec-8d85-45a4-96c5-b13ae720edd2}");
const WCHAR PER_USER_SWITCH[] = TEXT("user");
// Scripts are single-byte text decoded in the thread's code page: the same bytes must mean the same keys on
// every system, whatever the caller's locale.
const LCID REGISTRATION_LOCALE = LOCALE_SYSTEM_DEFAULT;
// Escaping doubles every quote, so the path can grow to twice its 260 characters.
const int ESCAPED_PATH_CHARS = 2 * MAX_PATH;

// Writes the handler into the approved list; only a key that can't be opened for writing refuses.
HRESULT ApproveHandler()
{
    if (!IsVersion51OrLater())
        return S_OK;
    HKEY approved = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, APPROVED_LIST_KEY, 0, KEY_SET_VALUE, &approved) != ERROR_SUCCESS)
        return E_ACCESSDENIED;
    // A list that accepts the key but not the value only costs the user a prompt; registration goes on.
    RegSetValueExW(approved, CLASS_ID_TEXT, 0, REG_SZ, reinterpret_cast<const BYTE*>(HANDLER_NAME),
                   sizeof(HANDLER_NAME));
    RegCloseKey(approved);
    return S_OK;
}

void WithdrawHandler()
{
    if (!IsVersion51OrLater())
        return;
    HKEY approved = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, APPROVED_LIST_KEY, 0, KEY_SET_VALUE, &approved) != ERROR_SUCCESS)
        return;
    RegDeleteValueW(approved, CLASS_ID_TEXT);
    RegCloseKey(approved);
}

// Holds the thread in the registration locale for its lifetime.
class RegistrationLocale
{
public:
    RegistrationLocale() : m_saved(GetThreadLocale()) { SetThreadLocale(REGISTRATION_LOCALE); }
    ~RegistrationLocale() { SetThreadLocale(m_saved); }
    RegistrationLocale(const RegistrationLocale&) = delete;
    RegistrationLocale& operator=(const RegistrationLocale&) = delete;

private:
    LCID m_saved;
};

const RegistryReplacement APPLICATION_ID_PAIRS[] = {
    {TEXT("APPID"), APPLICATION_ID_TEXT},
    {nullptr, nullptr},
};

// The steps that write the library's keys, behind the approved step, in the registration locale.
HRESULT RegisterScriptsAndTypeLibrary()
{
    RegistrationLocale locale;
    HRESULT hr = ApplyRegistryResource(ModuleInstance(), IDR_APPID_SCRIPT, TRUE, APPLICATION_ID_PAIRS);
    if (SUCCEEDED(hr))
        hr = UpdateObjectMapRegistry(TRUE);
    if (SUCCEEDED(hr))
        hr = RegisterModuleTypeLibrary(TypeLibraryInstance(), nullptr);
    return hr;
}

void NotifyShell()
{
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
}

HRESULT Unregister()
{
    WithdrawHandler();
    HRESULT hr;
    {
        RegistrationLocale locale;
        hr = UpdateObjectMapRegistry(FALSE);
        if (SUCCEEDED(hr))
            hr = UnregisterModuleTypeLibrary(TypeLibraryInstance());
        if (SUCCEEDED(hr))
            hr = ApplyRegistryResource(ModuleInstance(), IDR_APPID_SCRIPT, FALSE, APPLICATION_ID_PAIRS);
    }
    OutputDebugStringW(TEXT("Velmount Copy Extension : DllUnregisterServer"));
    return hr;
}

// The registrar's map is cleared on every way out, also when a pair can't be added.
class ReplacementScope
{
public:
    explicit ReplacementScope(CRegObject& registrar) : m_registrar(registrar) {}
    ~ReplacementScope() { m_registrar.ClearReplacements(); }
    ReplacementScope(const ReplacementScope&) = delete;
    ReplacementScope& operator=(const ReplacementScope&) = delete;

private:
    CRegObject& m_registrar;
};
} // namespace

BOOL IsVersion51OrLater()
{
    OSVERSIONINFOEXW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    version.dwMajorVersion = 5;
    version.dwMinorVersion = 1;
    version.wServicePackMajor = 0;
    ULONGLONG conditions = 0;
    conditions = VerSetConditionMask(conditions, VER_MAJORVERSION, VER_GREATER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_MINORVERSION, VER_GREATER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&version, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR,
                              conditions);
}

HRESULT ApplyRegistryResource(HINSTANCE module, UINT resourceId, BOOL registering,
                              const RegistryReplacement* replacements)
{
    CRegObject registrar;
    ReplacementScope scope(registrar);
    if (replacements)
        for (const RegistryReplacement* pair = replacements; pair->name; ++pair)
            if (pair->value)
                registrar.AddReplacement(pair->name, pair->value);

    HRESULT hr = AddModuleReplacements(&registrar);
    if (FAILED(hr))
        return hr;

    WCHAR path[MAX_PATH];
    DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    if (length == 0)
        return HresultFromLastError();
    if (length == MAX_PATH)
        return HresultFromWin32(ERROR_INSUFFICIENT_BUFFER);

    // The tokeniser reads '' as one quote; the script puts %MODULE% between quotes.
    WCHAR escaped[ESCAPED_PATH_CHARS];
    int written = 0;
    for (const WCHAR* at = path; *at && written < ESCAPED_PATH_CHARS - 1; ++at)
    {
        escaped[written++] = *at;
        if (*at == '\'' && written < ESCAPED_PATH_CHARS - 1)
            escaped[written++] = '\'';
    }
    escaped[written] = 0;

    if (FAILED(registrar.AddReplacement(TEXT("Module"), escaped)) ||
        FAILED(registrar.AddReplacement(TEXT("Module_Raw"), escaped)))
        return E_OUTOFMEMORY;
    return RunScriptResource(&registrar, path, resourceId, TEXT("REGISTRY"), registering);
}

STDAPI DllRegisterServer()
{
    return ComWall(
        []() -> HRESULT
        {
            if (FAILED(ApproveHandler()))
                return E_ACCESSDENIED;
            HRESULT hr = RegisterScriptsAndTypeLibrary();
            if (hr == S_OK)
                NotifyShell();
            OutputDebugStringW(TEXT("Velmount Copy Extension : DllRegisterServer"));
            return hr;
        });
}

STDAPI DllUnregisterServer()
{
    return ComWall([]() -> HRESULT { return Unregister(); });
}

STDAPI DllInstall(BOOL install, LPCWSTR commandLine)
{
    return ComWall(
        [&]() -> HRESULT
        {
            OutputDebugStringW(TEXT("Velmount Copy Extension : DllInstall"));
            // Five characters take in the terminator: only the whole word switches, in any case.
            if (commandLine && _wcsnicmp(commandLine, PER_USER_SWITCH, 5) == 0)
                g_perUserRegistration = 1;
            if (!install)
                return Unregister();
            if (FAILED(ApproveHandler()))
            {
                Unregister();
                return E_ACCESSDENIED;
            }
            HRESULT hr = RegisterScriptsAndTypeLibrary();
            if (hr == S_OK)
                NotifyShell();
            OutputDebugStringW(TEXT("Velmount Copy Extension : DllRegisterServer"));
            // Only the installer's call takes back what a failed registration left; its own result is
            // dropped.
            if (FAILED(hr))
                Unregister();
            return hr;
        });
}
