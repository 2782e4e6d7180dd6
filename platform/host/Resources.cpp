#include "platform/host/Resources.h"
#include "platform/host/Kernel.h"

#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <mutex>
#include <string>
#include <sys/auxv.h>
#include <vector>

namespace
{
// A type or name: a number, or a string compared without regard to case (windres stores them in capitals).
struct ResourceId
{
    bool isNumber = false;
    WORD number = 0;
    std::u16string text;
};

struct ResourceEntry
{
    ResourceId type;
    ResourceId name;
    WORD language = 0;
    const BYTE* data = nullptr;
    DWORD size = 0;
};

struct ModuleResources
{
    HMODULE module;
    std::vector<ResourceEntry> entries;
};

std::mutex g_lock;
std::vector<ModuleResources>& Modules()
{
    static std::vector<ModuleResources>* modules = new std::vector<ModuleResources>;
    return *modules;
}

char16_t Upper(char16_t c)
{
    return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
}

// Reads one id of a RESOURCEHEADER at `at`; false when it runs past `end`.
bool ReadId(const BYTE*& at, const BYTE* end, ResourceId& id)
{
    if (at + 2 > end)
        return false;
    WORD first;
    std::memcpy(&first, at, 2);
    if (first == 0xFFFF)
    {
        if (at + 4 > end)
            return false;
        id.isNumber = true;
        std::memcpy(&id.number, at + 2, 2);
        at += 4;
        return true;
    }
    id.isNumber = false;
    id.text.clear();
    while (true)
    {
        if (at + 2 > end)
            return false;
        WORD unit;
        std::memcpy(&unit, at, 2);
        at += 2;
        if (!unit)
            return true;
        id.text += Upper(static_cast<char16_t>(unit));
    }
}

std::vector<ResourceEntry> Parse(const BYTE* res, DWORD size)
{
    std::vector<ResourceEntry> entries;
    const BYTE* at = res;
    const BYTE* end = res + size;
    while (at + 8 <= end)
    {
        DWORD dataSize, headerSize;
        std::memcpy(&dataSize, at, 4);
        std::memcpy(&headerSize, at + 4, 4);
        if (headerSize < 8 || static_cast<size_t>(end - at) < headerSize ||
            static_cast<size_t>(end - at) - headerSize < dataSize)
            break;
        const BYTE* field = at + 8;
        const BYTE* headerEnd = at + headerSize;
        ResourceEntry entry;
        if (!ReadId(field, headerEnd, entry.type) || !ReadId(field, headerEnd, entry.name))
            break;
        field = res + ((field - res + 3) & ~static_cast<ptrdiff_t>(3));
        // DataVersion (4), MemoryFlags (2), LanguageId (2), Version (4), Characteristics (4).
        if (field + 16 <= headerEnd)
            std::memcpy(&entry.language, field + 6, 2);
        entry.data = at + headerSize;
        entry.size = dataSize;
        // The first record of a .res file is an empty one that only marks the format.
        if (!(dataSize == 0 && entry.type.isNumber && entry.type.number == 0))
            entries.push_back(entry);
        size_t next = headerSize + dataSize;
        next = (next + 3) & ~static_cast<size_t>(3);
        if (static_cast<size_t>(end - at) < next)
            break;
        at += next;
    }
    return entries;
}

ResourceId IdOf(LPCWSTR value)
{
    ResourceId id;
    if (IS_INTRESOURCE(value))
    {
        id.isNumber = true;
        id.number = static_cast<WORD>(reinterpret_cast<ULONG_PTR>(value));
        return id;
    }
    if (value[0] == u'#')
    {
        // "#123" names the number 123.
        id.isNumber = true;
        unsigned number = 0;
        for (const WCHAR* p = value + 1; *p >= u'0' && *p <= u'9'; ++p)
            number = number * 10 + static_cast<unsigned>(*p - u'0');
        id.number = static_cast<WORD>(number);
        return id;
    }
    for (const WCHAR* p = value; *p; ++p)
        id.text += Upper(*p);
    return id;
}

bool Same(const ResourceId& a, const ResourceId& b)
{
    return a.isNumber == b.isNumber && (a.isNumber ? a.number == b.number : a.text == b.text);
}

HMODULE ModuleOf(const void* address)
{
    Dl_info info;
    if (!dladdr(address, &info))
        return nullptr;
    return static_cast<HMODULE>(info.dli_fbase);
}

HMODULE MainModule()
{
    return ModuleOf(reinterpret_cast<const void*>(getauxval(AT_ENTRY)));
}

HRSRC Find(HMODULE module, const ResourceId& type, const ResourceId& name, bool anyLanguage, WORD language)
{
    if (!module)
        module = MainModule();
    std::lock_guard<std::mutex> hold(g_lock);
    for (auto& candidate : Modules())
    {
        if (candidate.module != module)
            continue;
        const ResourceEntry* best = nullptr;
        for (auto& entry : candidate.entries)
        {
            if (!Same(entry.type, type) || !Same(entry.name, name))
                continue;
            if (!anyLanguage && entry.language != language)
                continue;
            if (!best || entry.language == 0x0409 || entry.language == 0)
                best = &entry;
        }
        if (best)
            return reinterpret_cast<HRSRC>(const_cast<ResourceEntry*>(best));
        SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return nullptr;
    }
    SetLastError(ERROR_RESOURCE_DATA_NOT_FOUND);
    return nullptr;
}
} // namespace

void VmHostRegisterModuleResources(const void* anchor, const void* res, DWORD size)
{
    HMODULE module = ModuleOf(anchor);
    std::vector<ResourceEntry> entries = Parse(static_cast<const BYTE*>(res), size);
    std::lock_guard<std::mutex> hold(g_lock);
    for (auto& candidate : Modules())
    {
        if (candidate.module == module)
        {
            candidate.entries = entries;
            return;
        }
    }
    Modules().push_back(ModuleResources{module, entries});
}

HRSRC FindResourceW(HMODULE hModule, LPCWSTR lpName, LPCWSTR lpType)
{
    if (!lpName || !lpType)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Find(hModule, IdOf(lpType), IdOf(lpName), true, 0);
}

HRSRC FindResourceExW(HMODULE hModule, LPCWSTR lpType, LPCWSTR lpName, WORD wLanguage)
{
    if (!lpName || !lpType)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Find(hModule, IdOf(lpType), IdOf(lpName), wLanguage == 0, wLanguage);
}

HGLOBAL LoadResource(HMODULE, HRSRC hResInfo)
{
    if (!hResInfo)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    // Resource data stays mapped with its module, so the handle is the data itself.
    return const_cast<BYTE*>(reinterpret_cast<const ResourceEntry*>(hResInfo)->data);
}

LPVOID LockResource(HGLOBAL hResData)
{
    return hResData;
}

DWORD SizeofResource(HMODULE, HRSRC hResInfo)
{
    if (!hResInfo)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return reinterpret_cast<const ResourceEntry*>(hResInfo)->size;
}

BOOL FreeResource(HGLOBAL)
{
    return FALSE;
}

// The system libraries whose calls the stand-in itself provides: asked for by name, they are the stand-in's
// own module, so GetProcAddress on that handle finds what the stand-in exports (and nothing it lacks).
namespace
{
bool IsSystemLibrary(LPCWSTR name)
{
    static const char* const LIBRARIES[] = {"kernel32", "advapi32", "oleaut32", "ole32",
                                            "user32",   "shell32",  "shlwapi",  "gdi32"};
    std::u16string folded;
    for (const WCHAR* p = name; *p; ++p)
        folded += static_cast<char16_t>((*p >= u'A' && *p <= u'Z') ? *p + 32 : *p);
    if (folded.size() > 4 && folded.compare(folded.size() - 4, 4, u".dll") == 0)
        folded.resize(folded.size() - 4);
    for (const char* library : LIBRARIES)
        if (folded == std::u16string(library, library + std::strlen(library)))
            return true;
    return false;
}
} // namespace

HMODULE GetModuleHandleW(LPCWSTR lpModuleName)
{
    if (!lpModuleName)
        return MainModule();
    if (IsSystemLibrary(lpModuleName))
        return ModuleOf(reinterpret_cast<const void*>(&GetModuleHandleW));
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}
