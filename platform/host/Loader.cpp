#include "platform/host/Loader.h"
#include "platform/host/ControlFiles.h"
#include "platform/host/Kernel.h"
#include "platform/host/Threads.h"
#include "platform/host/Utf8.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace
{
typedef BOOL(WINAPI* DllEntry)(HINSTANCE instance, DWORD reason, LPVOID reserved);

// One library that LoadLibrary(Ex)W mapped. Objects the program was linked with (the program itself, the
// stand-in) are never unloaded and need no record.
struct LoadedModule
{
    void* handle = nullptr;
    LONG references = 0;
    bool attached = false; // DllMain got DLL_PROCESS_ATTACH and is owed a DLL_PROCESS_DETACH
    bool pinned = false;
};

// The loader lock: held across DllMain, as on Windows, so an entry point may itself load libraries.
std::recursive_mutex& LoaderLock()
{
    static std::recursive_mutex lock;
    return lock;
}

std::map<HMODULE, LoadedModule>& Modules()
{
    static std::map<HMODULE, LoadedModule> modules;
    return modules;
}

HMODULE BaseOf(const void* address)
{
    Dl_info info;
    if (!address || !dladdr(address, &info))
        return nullptr;
    return static_cast<HMODULE>(info.dli_fbase);
}

HMODULE MainModule()
{
    return BaseOf(reinterpret_cast<const void*>(getauxval(AT_ENTRY)));
}

std::string MainProgramPath()
{
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0)
        return std::string();
    return std::string(path, static_cast<size_t>(length));
}

bool HostPath(LPCWSTR path, std::string& host)
{
    if (!path || !*path)
        return false;
    char translated[4096];
    if (VmHostTranslatePath(path, translated, sizeof(translated)) && translated[0])
    {
        host = translated;
        return true;
    }
    host = VmHost::Utf8(path);
    return true;
}

HMODULE BaseOfHandle(void* handle)
{
    struct link_map* map = nullptr;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0 || !map)
        return nullptr;
    return BaseOf(map->l_ld);
}

// The base of an object this process already has mapped under `path`, if any (the program itself cannot
// be opened again with dlopen).
HMODULE AlreadyMapped(const std::string& path)
{
    char resolved[4096];
    std::string wanted = realpath(path.c_str(), resolved) ? std::string(resolved) : path;
    if (wanted == MainProgramPath())
        return MainModule();
    return nullptr;
}

HMODULE Load(LPCWSTR path, DWORD flags)
{
    std::string host;
    if (!HostPath(path, host))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::lock_guard<std::recursive_mutex> guard(LoaderLock());
    if (HMODULE program = AlreadyMapped(host))
        return program;
    void* handle = dlopen(host.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle)
    {
        SetLastError(access(host.c_str(), F_OK) == 0 ? ERROR_BAD_EXE_FORMAT : ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    HMODULE base = BaseOfHandle(handle);
    if (!base)
    {
        dlclose(handle);
        SetLastError(ERROR_BAD_EXE_FORMAT);
        return nullptr;
    }
    LoadedModule& module = Modules()[base];
    if (module.handle)
        dlclose(handle); // one dlopen reference per record; the record counts the rest
    else
        module.handle = handle;
    ++module.references;

    bool asData = (flags & (DONT_RESOLVE_DLL_REFERENCES | LOAD_LIBRARY_AS_DATAFILE |
                            LOAD_LIBRARY_AS_IMAGE_RESOURCE | LOAD_LIBRARY_AS_DATAFILE_EXCLUSIVE)) != 0;
    if (!asData && !module.attached)
    {
        auto entry = reinterpret_cast<DllEntry>(dlsym(module.handle, "DllMain"));
        module.attached = true;
        if (entry && !entry(reinterpret_cast<HINSTANCE>(base), DLL_PROCESS_ATTACH, nullptr))
        {
            // A refused attach is followed by the detach, and the library goes.
            entry(reinterpret_cast<HINSTANCE>(base), DLL_PROCESS_DETACH, nullptr);
            module.attached = false;
            if (--module.references == 0)
            {
                void* mapped = module.handle;
                Modules().erase(base);
                dlclose(mapped);
            }
            SetLastError(ERROR_DLL_INIT_FAILED);
            return nullptr;
        }
    }
    return base;
}
} // namespace

HMODULE LoadLibraryW(LPCWSTR lpLibFileName)
{
    return Load(lpLibFileName, 0);
}

HMODULE LoadLibraryExW(LPCWSTR lpLibFileName, HANDLE hFile, DWORD dwFlags)
{
    if (hFile)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Load(lpLibFileName, dwFlags);
}

BOOL FreeLibrary(HMODULE module)
{
    if (!module)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::recursive_mutex> guard(LoaderLock());
    auto found = Modules().find(module);
    if (found == Modules().end())
    {
        // The program and the objects it was linked with stay for the life of the process.
        if (BaseOf(module) == module)
            return TRUE;
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    LoadedModule& loaded = found->second;
    if (--loaded.references > 0 || loaded.pinned)
        return TRUE;
    if (loaded.attached)
    {
        loaded.attached = false;
        if (auto entry = reinterpret_cast<DllEntry>(dlsym(loaded.handle, "DllMain")))
            entry(reinterpret_cast<HINSTANCE>(module), DLL_PROCESS_DETACH, nullptr);
    }
    void* handle = loaded.handle;
    Modules().erase(found);
    dlclose(handle);
    return TRUE;
}

BOOL GetModuleHandleExW(DWORD flags, LPCWSTR moduleName, HMODULE* module)
{
    if (!module)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *module = nullptr;
    HMODULE base = nullptr;
    if (!moduleName)
        base = MainModule();
    else if (flags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS)
        base = BaseOf(reinterpret_cast<const void*>(moduleName));
    else
    {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    if (!base)
    {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return FALSE;
    }
    std::lock_guard<std::recursive_mutex> guard(LoaderLock());
    auto found = Modules().find(base);
    if (found != Modules().end())
    {
        if (flags & GET_MODULE_HANDLE_EX_FLAG_PIN)
            found->second.pinned = true;
        else if (!(flags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT))
            ++found->second.references;
    }
    *module = base;
    return TRUE;
}

FARPROC GetProcAddress(HMODULE hModule, LPCSTR lpProcName)
{
    if (!lpProcName || reinterpret_cast<UINT_PTR>(lpProcName) <= 0xFFFF)
    {
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    void* symbol = nullptr;
    {
        std::lock_guard<std::recursive_mutex> guard(LoaderLock());
        auto found = Modules().find(hModule ? hModule : MainModule());
        if (found != Modules().end())
            symbol = dlsym(found->second.handle, lpProcName);
        else
        {
            void* self = dlopen(nullptr, RTLD_NOW);
            symbol = self ? dlsym(self, lpProcName) : nullptr;
            if (self)
                dlclose(self);
        }
    }
    if (!symbol)
    {
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    return reinterpret_cast<FARPROC>(symbol);
}

DWORD GetModuleFileNameW(HMODULE hModule, LPWSTR lpFilename, DWORD nSize)
{
    std::string path;
    HMODULE base = hModule ? hModule : MainModule();
    if (base == MainModule())
        path = MainProgramPath();
    else
    {
        Dl_info info;
        if (!dladdr(reinterpret_cast<const void*>(base), &info) || info.dli_fbase != base || !info.dli_fname)
        {
            SetLastError(ERROR_MOD_NOT_FOUND);
            return 0;
        }
        char resolved[4096];
        path = realpath(info.dli_fname, resolved) ? std::string(resolved) : std::string(info.dli_fname);
    }
    if (!lpFilename || nSize == 0)
    {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::u16string wide = VmHost::Utf16(path);
    DWORD length = static_cast<DWORD>(wide.size());
    // As on Windows: a short buffer gets what fits, terminated, the buffer size returned and
    // ERROR_INSUFFICIENT_BUFFER set.
    if (length >= nSize)
    {
        std::memcpy(lpFilename, wide.data(), (nSize - 1) * sizeof(WCHAR));
        lpFilename[nSize - 1] = 0;
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return nSize;
    }
    std::memcpy(lpFilename, wide.c_str(), (length + 1) * sizeof(WCHAR));
    SetLastError(ERROR_SUCCESS);
    return length;
}

BOOL IsDebuggerPresent(void)
{
    return FALSE;
}
