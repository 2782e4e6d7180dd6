#include "module/TypeLibrary.h"

#include "foundation/Hresult.h"
#include "module/Registration.h"

namespace
{
// GetModuleFileNameW fills at most MAX_PATH characters; the rest leaves room for an index text.
const int PATH_BUFFER_CHARS = 270;

typedef HRESULT(WINAPI* RegisterForUserFunction)(ITypeLib*, OLECHAR*, OLECHAR*);
typedef HRESULT(WINAPI* UnregisterForUserFunction)(REFGUID, WORD, WORD, LCID, SYSKIND);

// The per-user variant of a registration function, where the system has one and per-user mode is on.
FARPROC PerUserFunction(LPCSTR name)
{
    if (g_perUserRegistration != 1)
        return nullptr;
    HMODULE oleAutomation = GetModuleHandleW(TEXT("OLEAUT32.DLL"));
    return oleAutomation ? GetProcAddress(oleAutomation, name) : nullptr;
}

template <typename Function> Function AsFunction(FARPROC found)
{
    // Through the generic function type, which converts to any other without a warning.
    return reinterpret_cast<Function>(reinterpret_cast<void (*)(void)>(found));
}

// Releases what LoadModuleTypeLibrary handed out.
struct LoadedTypeLibrary
{
    BSTR path = nullptr;
    ITypeLib* library = nullptr;
    ~LoadedTypeLibrary()
    {
        if (library)
            library->Release();
        SysFreeString(path);
    }
};
} // namespace

HRESULT LoadModuleTypeLibrary(HINSTANCE module, LPCOLESTR index, BSTR* path, ITypeLib** library)
{
    if (!path || !library)
        return E_POINTER;
    *path = nullptr;
    *library = nullptr;

    WCHAR file[PATH_BUFFER_CHARS];
    DWORD length = GetModuleFileNameW(module, file, MAX_PATH);
    if (length == 0)
        return HresultFromLastError();
    if (length == MAX_PATH)
        return HresultFromWin32(ERROR_INSUFFICIENT_BUFFER);
    file[length] = 0;

    // The last dot of the file name; a dot in a folder's name doesn't count. The system's paths separate
    // folders with '\\'; '/', which Windows accepts as well, is the separator of the host build's paths.
    LPWSTR extension = nullptr;
    for (LPWSTR at = file; *at; at = CharNextW(at))
    {
        if (*at == '.')
            extension = at;
        else if (*at == '\\' || *at == '/')
            extension = nullptr;
    }
    if (!extension)
        extension = file + length;

    if (index)
    {
        int indexLength = lstrlenW(index);
        if (static_cast<int>(length) + indexLength >= PATH_BUFFER_CHARS)
            return E_FAIL;
        for (int i = 0; i <= indexLength; ++i)
            file[length + static_cast<DWORD>(i)] = index[i];
    }

    HRESULT hr = LoadTypeLib(file, library);
    if (FAILED(hr))
    {
        // No resource in the library itself: a .tlb file beside it.
        if ((extension - file) + 5 > MAX_PATH)
            return E_FAIL;
        const WCHAR tlb[] = TEXT(".tlb");
        for (int i = 0; i < 5; ++i)
            extension[i] = tlb[i];
        hr = LoadTypeLib(file, library);
        if (FAILED(hr))
            return hr;
    }
    *path = SysAllocString(file);
    if (!*path)
    {
        (*library)->Release();
        *library = nullptr;
        return E_OUTOFMEMORY;
    }
    return hr;
}

HRESULT RegisterModuleTypeLibrary(HINSTANCE module, LPCOLESTR index)
{
    LoadedTypeLibrary loaded;
    HRESULT hr = LoadModuleTypeLibrary(module, index, &loaded.path, &loaded.library);
    if (FAILED(hr))
        return hr;

    BSTR helpFile = nullptr;
    WCHAR helpDirectory[MAX_PATH];
    LPWSTR helpDir = nullptr;
    if (SUCCEEDED(loaded.library->GetDocumentation(-1, nullptr, nullptr, nullptr, &helpFile)) && helpFile)
    {
        // The folder of the help file, up to its last separator.
        int length = 0;
        for (; helpFile[length] && length < MAX_PATH - 1; ++length)
            helpDirectory[length] = helpFile[length];
        helpDirectory[length] = 0;
        LPWSTR cut = helpDirectory;
        for (LPWSTR at = helpDirectory; *at; at = CharNextW(at))
            if (*at == '\\' || *at == '/' || *at == ':')
                cut = CharNextW(at);
        *cut = 0;
        helpDir = helpDirectory;
    }

    if (auto forUser = AsFunction<RegisterForUserFunction>(PerUserFunction("RegisterTypeLibForUser")))
        hr = forUser(loaded.library, loaded.path, helpDir);
    else
        hr = RegisterTypeLib(loaded.library, loaded.path, helpDir);
    SysFreeString(helpFile);
    return hr;
}

HRESULT UnregisterModuleTypeLibrary(HINSTANCE module)
{
    LoadedTypeLibrary loaded;
    HRESULT hr = LoadModuleTypeLibrary(module, nullptr, &loaded.path, &loaded.library);
    if (FAILED(hr))
        return hr;
    TLIBATTR* attributes = nullptr;
    hr = loaded.library->GetLibAttr(&attributes);
    if (FAILED(hr))
        return hr;
    if (auto forUser = AsFunction<UnregisterForUserFunction>(PerUserFunction("UnRegisterTypeLibForUser")))
        hr = forUser(attributes->guid, attributes->wMajorVerNum, attributes->wMinorVerNum, attributes->lcid,
                     attributes->syskind);
    else
        hr = UnRegisterTypeLib(attributes->guid, attributes->wMajorVerNum, attributes->wMinorVerNum,
                               attributes->lcid, attributes->syskind);
    loaded.library->ReleaseTLibAttr(attributes);
    return hr;
}
