#include "platform/host/OleAut.h"
#include "platform/host/Files.h"
#include "platform/host/Kernel.h"
#include "platform/host/Registry.h"
#include "platform/host/Resources.h"
#include "platform/host/SingleInterface.h"
#if __has_include("platform/host/Loader.h")
#include "platform/host/Loader.h"
#define VM_HAVE_LOADER 1
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// ---- BSTR: a 32-bit byte length in front of the text, a terminator behind it ----

BSTR SysAllocStringLen(const OLECHAR* text, UINT length)
{
    if (length > 0x3FFFFFF0u)
        return nullptr;
    auto block = static_cast<BYTE*>(std::malloc(sizeof(DWORD) + (length + 1) * sizeof(OLECHAR)));
    if (!block)
        return nullptr;
    DWORD bytes = length * sizeof(OLECHAR);
    std::memcpy(block, &bytes, sizeof(bytes));
    auto out = reinterpret_cast<BSTR>(block + sizeof(DWORD));
    if (text)
        std::memcpy(out, text, bytes);
    else
        std::memset(out, 0, bytes);
    out[length] = 0;
    return out;
}

BSTR SysAllocString(const OLECHAR* text)
{
    if (!text)
        return nullptr;
    UINT length = 0;
    while (text[length])
        ++length;
    return SysAllocStringLen(text, length);
}

void SysFreeString(BSTR text)
{
    if (text)
        std::free(reinterpret_cast<BYTE*>(text) - sizeof(DWORD));
}

UINT SysStringLen(BSTR text)
{
    if (!text)
        return 0;
    DWORD bytes;
    std::memcpy(&bytes, reinterpret_cast<BYTE*>(text) - sizeof(DWORD), sizeof(bytes));
    return bytes / sizeof(OLECHAR);
}

// ---- Numbers ----

namespace
{
bool IsBlank(OLECHAR c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
} // namespace

HRESULT VarUI4FromStr(OLECHAR* text, LCID, ULONG, ULONG* out)
{
    if (!text || !out)
        return E_INVALIDARG;
    const OLECHAR* at = text;
    while (IsBlank(*at))
        ++at;
    bool negative = false;
    if (*at == '+' || *at == '-')
        negative = *at++ == '-';
    ULONGLONG value = 0;
    bool digits = false;
    bool overflow = false;
    if (at[0] == '&' && (at[1] == 'H' || at[1] == 'h' || at[1] == 'O' || at[1] == 'o'))
    {
        const int base = (at[1] == 'H' || at[1] == 'h') ? 16 : 8;
        at += 2;
        for (;; ++at)
        {
            int digit = -1;
            if (*at >= '0' && *at <= '9')
                digit = *at - '0';
            else if (base == 16 && *at >= 'A' && *at <= 'F')
                digit = *at - 'A' + 10;
            else if (base == 16 && *at >= 'a' && *at <= 'f')
                digit = *at - 'a' + 10;
            if (digit < 0 || digit >= base)
                break;
            digits = true;
            value = value * base + static_cast<ULONGLONG>(digit);
            overflow = overflow || value > 0xFFFFFFFFull;
        }
    }
    else
    {
        for (; *at >= '0' && *at <= '9'; ++at)
        {
            digits = true;
            value = value * 10 + static_cast<ULONGLONG>(*at - '0');
            overflow = overflow || value > 0xFFFFFFFFull;
        }
        if (*at == '.')
        {
            ++at;
            // Round half to even on the first fraction digit and whatever follows it.
            int first = -1;
            bool restNonZero = false;
            for (; *at >= '0' && *at <= '9'; ++at)
            {
                digits = true;
                if (first < 0)
                    first = *at - '0';
                else if (*at != '0')
                    restNonZero = true;
            }
            if (first > 5 || (first == 5 && (restNonZero || (value & 1))))
                ++value;
            overflow = overflow || value > 0xFFFFFFFFull;
        }
    }
    while (IsBlank(*at))
        ++at;
    if (!digits || *at)
        return DISP_E_TYPEMISMATCH;
    if (overflow || (negative && value != 0))
        return DISP_E_OVERFLOW;
    *out = static_cast<ULONG>(value);
    return S_OK;
}

// ---- Type libraries ----

namespace
{
typedef std::u16string Text;

const DWORD MSFT_MAGIC = 0x5446534D; // "MSFT"
const DWORD MSFT_VERSION = 0x00010002;
const size_t HEADER_BYTES = 0x54;
const size_t SEGMENT_COUNT = 15;
const size_t TYPEINFO_BYTES = 0x64;
enum Segment
{
    SEG_TYPEINFO = 0,
    SEG_GUID = 5,
    SEG_NAME = 7,
    SEG_STRING = 8,
};

struct TypeEntry
{
    GUID guid = {};
    TYPEKIND kind = TKIND_ENUM;
    WORD flags = 0;
    Text name;
};

class Reader
{
public:
    explicit Reader(const std::vector<BYTE>& data) : m_data(data) {}
    bool Dword(size_t at, DWORD& out) const
    {
        if (at > m_data.size() || m_data.size() - at < 4)
            return false;
        std::memcpy(&out, m_data.data() + at, 4);
        return true;
    }
    bool Bytes(size_t at, void* out, size_t count) const
    {
        if (at > m_data.size() || m_data.size() - at < count)
            return false;
        std::memcpy(out, m_data.data() + at, count);
        return true;
    }

private:
    const std::vector<BYTE>& m_data;
};

class HostTypeLib final : public SingleInterface<HostTypeLib, ITypeLib, IID_ITypeLib>
{
public:
    UINT STDMETHODCALLTYPE GetTypeInfoCount() override { return static_cast<UINT>(m_types.size()); }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, ITypeInfo** info) override
    {
        if (info)
            *info = nullptr;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoType(UINT index, TYPEKIND* kind) override
    {
        if (!kind)
            return E_INVALIDARG;
        if (index >= m_types.size())
            return TYPE_E_ELEMENTNOTFOUND;
        *kind = m_types[index].kind;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoOfGuid(REFGUID, ITypeInfo** info) override
    {
        if (info)
            *info = nullptr;
        return TYPE_E_ELEMENTNOTFOUND;
    }
    HRESULT STDMETHODCALLTYPE GetLibAttr(TLIBATTR** attr) override
    {
        if (!attr)
            return E_INVALIDARG;
        *attr = new (std::nothrow) TLIBATTR(m_attr);
        return *attr ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT STDMETHODCALLTYPE GetTypeComp(ITypeComp** comp) override
    {
        if (comp)
            *comp = nullptr;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetDocumentation(INT index, BSTR* name, BSTR* doc, DWORD* helpContext,
                                               BSTR* helpFile) override
    {
        const Text* names[3] = {nullptr, nullptr, nullptr};
        if (index == -1)
        {
            names[0] = &m_name;
            names[1] = m_hasDoc ? &m_doc : nullptr;
            names[2] = m_hasHelpFile ? &m_helpFile : nullptr;
        }
        else if (index >= 0 && static_cast<size_t>(index) < m_types.size())
            names[0] = &m_types[static_cast<size_t>(index)].name;
        else
            return TYPE_E_ELEMENTNOTFOUND;
        BSTR* outs[3] = {name, doc, helpFile};
        for (int i = 0; i < 3; ++i)
            if (outs[i])
                *outs[i] = names[i]
                               ? SysAllocStringLen(names[i]->c_str(), static_cast<UINT>(names[i]->size()))
                               : nullptr;
        if (helpContext)
            *helpContext = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE IsName(LPOLESTR, ULONG, BOOL* found) override
    {
        if (found)
            *found = FALSE;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE FindName(LPOLESTR, ULONG, ITypeInfo**, MEMBERID*, USHORT* found) override
    {
        if (found)
            *found = 0;
        return E_NOTIMPL;
    }
    void STDMETHODCALLTYPE ReleaseTLibAttr(TLIBATTR* attr) override { delete attr; }

    bool Parse(const std::vector<BYTE>& data);
    const std::vector<TypeEntry>& Types() const { return m_types; }
    const TLIBATTR& Attr() const { return m_attr; }
    const Text& Name() const { return m_hasDoc ? m_doc : m_name; }

private:
    friend class SingleInterface<HostTypeLib, ITypeLib, IID_ITypeLib>;
    ~HostTypeLib() = default;
    TLIBATTR m_attr = {};
    Text m_name, m_doc, m_helpFile;
    bool m_hasDoc = false, m_hasHelpFile = false;
    std::vector<TypeEntry> m_types;
};

// Names and strings are single-byte text in the library; the stand-in reads them as Latin-1.
bool ReadName(const Reader& reader, DWORD segment, DWORD offset, Text& out)
{
    DWORD length;
    if (!reader.Dword(segment + offset + 8, length))
        return false;
    length &= 0xFF;
    std::vector<char> bytes(length);
    if (length && !reader.Bytes(segment + offset + 12, bytes.data(), length))
        return false;
    out.assign(bytes.begin(), bytes.end());
    for (auto& c : out)
        c = static_cast<char16_t>(static_cast<unsigned char>(c));
    return true;
}

bool ReadString(const Reader& reader, DWORD segment, DWORD offset, Text& out)
{
    WORD length;
    if (!reader.Bytes(segment + offset, &length, 2))
        return false;
    std::vector<char> bytes(length);
    if (length && !reader.Bytes(segment + offset + 2, bytes.data(), length))
        return false;
    out.clear();
    for (char c : bytes)
        out += static_cast<char16_t>(static_cast<unsigned char>(c));
    return true;
}

bool HostTypeLib::Parse(const std::vector<BYTE>& data)
{
    Reader reader(data);
    DWORD header[HEADER_BYTES / 4];
    if (!reader.Bytes(0, header, sizeof(header)) || header[0] != MSFT_MAGIC || header[1] != MSFT_VERSION)
        return false;
    const DWORD posGuid = header[2], lcid = header[3], varFlags = header[5], version = header[6],
                flags = header[7], typeCount = header[8], helpString = header[9], nameOffset = header[14],
                helpFile = header[15];
    size_t segmentsAt = HEADER_BYTES + ((varFlags & 0x100) ? 4 : 0) + static_cast<size_t>(typeCount) * 4;
    DWORD segments[SEGMENT_COUNT][4];
    if (typeCount > 0x10000 || !reader.Bytes(segmentsAt, segments, sizeof(segments)))
        return false;
    const DWORD guids = segments[SEG_GUID][0], names = segments[SEG_NAME][0],
                strings = segments[SEG_STRING][0];

    if (!reader.Bytes(guids + posGuid, &m_attr.guid, sizeof(GUID)))
        return false;
    m_attr.lcid = lcid;
    m_attr.syskind = static_cast<SYSKIND>(varFlags & 0xF);
    m_attr.wMajorVerNum = static_cast<WORD>(version & 0xFFFF);
    m_attr.wMinorVerNum = static_cast<WORD>(version >> 16);
    m_attr.wLibFlags = static_cast<WORD>(flags);
    if (!ReadName(reader, names, nameOffset, m_name))
        return false;
    m_hasDoc = helpString != 0xFFFFFFFF && ReadString(reader, strings, helpString, m_doc);
    m_hasHelpFile = helpFile != 0xFFFFFFFF && ReadString(reader, strings, helpFile, m_helpFile);

    for (DWORD i = 0; i < typeCount; ++i)
    {
        DWORD info[TYPEINFO_BYTES / 4];
        if (!reader.Bytes(segments[SEG_TYPEINFO][0] + i * TYPEINFO_BYTES, info, sizeof(info)))
            return false;
        TypeEntry entry;
        entry.kind = static_cast<TYPEKIND>(info[0] & 0xF);
        entry.flags = static_cast<WORD>(info[12]);
        if (info[11] != 0xFFFFFFFF && !reader.Bytes(guids + info[11], &entry.guid, sizeof(GUID)))
            return false;
        if (!ReadName(reader, names, info[13], entry.name))
            return false;
        m_types.push_back(entry);
    }
    return true;
}

// A host path, as the loader hands out for libraries outside the mapped drives (GetModuleFileNameW).
bool ReadHostFileBytes(LPCOLESTR path, std::vector<BYTE>& out)
{
    std::string host;
    for (const OLECHAR* at = path; *at; ++at)
    {
        if (*at >= 0x80)
            return false; // the loader's host paths of this build are ASCII
        host += static_cast<char>(*at);
    }
    FILE* file = std::fopen(host.c_str(), "rb");
    if (!file)
        return false;
    out.clear();
    BYTE chunk[4096];
    size_t read = 0;
    while ((read = std::fread(chunk, 1, sizeof(chunk), file)) > 0 && out.size() <= (64u << 20))
        out.insert(out.end(), chunk, chunk + read);
    const bool ok = !std::ferror(file) && out.size() <= (64u << 20);
    std::fclose(file);
    return ok;
}

bool ReadFileBytes(LPCOLESTR path, std::vector<BYTE>& out)
{
    if (path[0] == '/')
        return ReadHostFileBytes(path, out);
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    out.clear();
    BYTE chunk[4096];
    DWORD read = 0;
    bool ok = true;
    while ((ok = ReadFile(file, chunk, sizeof(chunk), &read, nullptr) != FALSE) && read)
    {
        out.insert(out.end(), chunk, chunk + read);
        if (out.size() > (64u << 20))
        {
            ok = false;
            break;
        }
    }
    CloseHandle(file);
    return ok;
}

// Resource 1 of type TYPELIB of a module, or the file itself when it is a .tlb.
bool ReadTypeLibBytes(LPCOLESTR path, std::vector<BYTE>& out)
{
#ifdef VM_HAVE_LOADER
    if (HMODULE module = LoadLibraryExW(path, nullptr, LOAD_LIBRARY_AS_DATAFILE))
    {
        bool found = false;
        if (HRSRC resource = FindResourceW(module, MAKEINTRESOURCEW(1), u"TYPELIB"))
        {
            HGLOBAL loaded = LoadResource(module, resource);
            auto bytes = static_cast<const BYTE*>(LockResource(loaded));
            DWORD size = SizeofResource(module, resource);
            if (bytes && size)
            {
                out.assign(bytes, bytes + size);
                found = true;
            }
        }
        FreeLibrary(module);
        if (found)
            return true;
    }
#endif
    return ReadFileBytes(path, out) && out.size() >= 4 && std::memcmp(out.data(), "MSFT", 4) == 0;
}

Text GuidText(const GUID& guid)
{
    char text[40];
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1,
                  guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3],
                  guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
    return Text(text, text + std::strlen(text));
}

Text Ascii(const char* text)
{
    return Text(text, text + std::strlen(text));
}

Text Hex(DWORD value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%x", value);
    return Ascii(text);
}

Text VersionText(WORD major, WORD minor)
{
    return Hex(major) + u"." + Hex(minor);
}

LONG SetText(HKEY root, const Text& path, LPCWSTR valueName, const Text& value)
{
    HKEY key = nullptr;
    LONG error = RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    if (error)
        return error;
    error = RegSetValueExW(key, valueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                           static_cast<DWORD>((value.size() + 1) * sizeof(WCHAR)));
    RegCloseKey(key);
    return error;
}

LONG DeleteTree(HKEY root, const Text& path)
{
    HKEY key = nullptr;
    LONG error = RegOpenKeyExW(root, path.c_str(), 0, KEY_ALL_ACCESS, &key);
    if (error)
        return error;
    WCHAR child[256];
    DWORD size = 256;
    while (RegEnumKeyExW(key, 0, child, &size, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS)
    {
        if (DeleteTree(key, child) != ERROR_SUCCESS)
            break;
        size = 256;
    }
    RegCloseKey(key);
    return RegDeleteKeyW(root, path.c_str());
}

bool HasSubKeys(HKEY root, const Text& path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &key))
        return false;
    DWORD count = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr, nullptr,
                     nullptr, nullptr);
    RegCloseKey(key);
    return count != 0;
}

const Text PS_DISPATCH = u"{00020420-0000-0000-C000-000000000046}";
const Text PS_AUTOMATION = u"{00020424-0000-0000-C000-000000000046}";

bool RegistersInterface(const TypeEntry& type)
{
    return type.kind == TKIND_DISPATCH ||
           (type.kind == TKIND_INTERFACE && (type.flags & (TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDUAL)));
}

HRESULT Register(HKEY root, const Text& prefix, ITypeLib* library, LPCOLESTR path, LPCOLESTR helpDir)
{
    if (!library || !path)
        return E_INVALIDARG;
    TLIBATTR* attr = nullptr;
    HRESULT hr = library->GetLibAttr(&attr);
    if (FAILED(hr))
        return hr;
    const TLIBATTR libAttr = *attr;
    library->ReleaseTLibAttr(attr);
    BSTR name = nullptr, doc = nullptr;
    library->GetDocumentation(-1, &name, &doc, nullptr, nullptr);
    Text title = doc ? Text(doc) : (name ? Text(name) : Text());
    SysFreeString(name);
    SysFreeString(doc);

    const Text libId = GuidText(libAttr.guid);
    const Text versionKey =
        prefix + u"TypeLib\\" + libId + u"\\" + VersionText(libAttr.wMajorVerNum, libAttr.wMinorVerNum);
    const Text platform = libAttr.syskind == SYS_WIN64 ? u"win64" : u"win32";
    Text directory;
    if (helpDir)
        directory = helpDir;
    else
    {
        directory = path;
        size_t cut = directory.find_last_of(u"\\/");
        directory = cut == Text::npos ? Text() : directory.substr(0, cut);
    }
    LONG error = SetText(root, versionKey, nullptr, title);
    if (!error)
        error = SetText(root, versionKey + u"\\" + Hex(libAttr.lcid) + u"\\" + platform, nullptr, path);
    if (!error)
    {
        char flags[16];
        std::snprintf(flags, sizeof(flags), "%u", static_cast<unsigned>(libAttr.wLibFlags));
        error = SetText(root, versionKey + u"\\FLAGS", nullptr, Ascii(flags));
    }
    if (!error)
        error = SetText(root, versionKey + u"\\HELPDIR", nullptr, directory);
    if (error)
        return TYPE_E_REGISTRYACCESS;

    // Interfaces are known only of the libraries this stand-in loaded.
    auto* host = dynamic_cast<HostTypeLib*>(library);
    for (const TypeEntry& type : host ? host->Types() : std::vector<TypeEntry>())
    {
        if (!RegistersInterface(type))
            continue;
        const Text key = prefix + u"Interface\\" + GuidText(type.guid);
        const Text& proxy =
            (type.kind == TKIND_DISPATCH && !(type.flags & TYPEFLAG_FDUAL)) ? PS_DISPATCH : PS_AUTOMATION;
        error = SetText(root, key, nullptr, type.name);
        if (!error)
            error = SetText(root, key + u"\\ProxyStubClsid", nullptr, proxy);
        if (!error)
            error = SetText(root, key + u"\\ProxyStubClsid32", nullptr, proxy);
        if (!error)
            error = SetText(root, key + u"\\TypeLib", nullptr, libId);
        if (!error)
            error = SetText(root, key + u"\\TypeLib", u"Version",
                            VersionText(libAttr.wMajorVerNum, libAttr.wMinorVerNum));
        if (error)
            return TYPE_E_REGISTRYACCESS;
    }
    return S_OK;
}

HRESULT Unregister(HKEY root, const Text& prefix, REFGUID libId, WORD major, WORD minor, LCID lcid,
                   SYSKIND syskind)
{
    const Text libKey = prefix + u"TypeLib\\" + GuidText(libId);
    const Text versionKey = libKey + u"\\" + VersionText(major, minor);
    const Text platformKey =
        versionKey + u"\\" + Hex(lcid) + u"\\" + (syskind == SYS_WIN64 ? u"win64" : u"win32");
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, platformKey.c_str(), 0, KEY_READ, &key))
        return TYPE_E_REGISTRYACCESS;
    WCHAR path[1024];
    DWORD size = sizeof(path);
    DWORD type = 0;
    LONG error = RegQueryValueExW(key, nullptr, nullptr, &type, reinterpret_cast<LPBYTE>(path), &size);
    RegCloseKey(key);
    // The interfaces come from the library at its registered path; without it only the TypeLib keys go.
    ITypeLib* library = nullptr;
    if (!error && type == REG_SZ && LoadTypeLib(path, &library) == S_OK)
    {
        for (const TypeEntry& entry : dynamic_cast<HostTypeLib*>(library)->Types())
            if (RegistersInterface(entry))
                DeleteTree(root, prefix + u"Interface\\" + GuidText(entry.guid));
        library->Release();
    }
    DeleteTree(root, versionKey);
    if (!HasSubKeys(root, libKey))
        RegDeleteKeyW(root, libKey.c_str());
    return S_OK;
}
} // namespace

HRESULT LoadTypeLib(LPCOLESTR file, ITypeLib** library)
{
    return LoadTypeLibEx(file, REGKIND_DEFAULT, library);
}

HRESULT LoadTypeLibEx(LPCOLESTR file, REGKIND kind, ITypeLib** library)
{
    if (!library)
        return E_INVALIDARG;
    *library = nullptr;
    if (!file)
        return E_INVALIDARG;
    std::vector<BYTE> data;
    if (!ReadTypeLibBytes(file, data))
        return TYPE_E_CANTLOADLIBRARY;
    auto* loaded = new (std::nothrow) HostTypeLib();
    if (!loaded)
        return E_OUTOFMEMORY;
    if (!loaded->Parse(data))
    {
        loaded->Release();
        return TYPE_E_CANTLOADLIBRARY;
    }
    if (kind == REGKIND_REGISTER)
    {
        HRESULT hr = RegisterTypeLib(loaded, file, nullptr);
        if (FAILED(hr))
        {
            loaded->Release();
            return hr;
        }
    }
    *library = loaded;
    return S_OK;
}

HRESULT RegisterTypeLib(ITypeLib* library, LPCOLESTR path, LPCOLESTR helpDir)
{
    return Register(HKEY_CLASSES_ROOT, Text(), library, path, helpDir);
}

HRESULT UnRegisterTypeLib(REFGUID libId, WORD major, WORD minor, LCID lcid, SYSKIND syskind)
{
    return Unregister(HKEY_CLASSES_ROOT, Text(), libId, major, minor, lcid, syskind);
}

HRESULT RegisterTypeLibForUser(ITypeLib* library, OLECHAR* path, OLECHAR* helpDir)
{
    return Register(HKEY_CURRENT_USER, u"Software\\Classes\\", library, path, helpDir);
}

HRESULT UnRegisterTypeLibForUser(REFGUID libId, WORD major, WORD minor, LCID lcid, SYSKIND syskind)
{
    return Unregister(HKEY_CURRENT_USER, u"Software\\Classes\\", libId, major, minor, lcid, syskind);
}
