#include "module/RegistryScript.h"

#include "foundation/Hresult.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

// The script language, as the tokeniser and ProcessBlock read it:
// - Whitespace is space, tab, CR and LF. A token is quoted ('...', with '' for one quote) or bare (up to the
//   next whitespace: '=', '{' and '}' inside a bare token are ordinary characters).
// - Keywords (ForceRemove, Delete, NoRemove, Val, in any case), '=', '{' and '}' are recognised on the
//   token's text after the quotes are gone, so quoting protects nothing.
// - Script: Root+. Root: rootname '{' Item* '}'. Item: [ForceRemove|Delete] [NoRemove] Entry.
//   Entry: Val name = type value | keyname [= type value] [{ Item* }].

namespace
{
const REGSAM KEY_READ_WRITE = 0x2001F;
// LOAD_LIBRARY_AS_IMAGE_RESOURCE with LOAD_LIBRARY_AS_DATAFILE_EXCLUSIVE; systems before Vista know only
// LOAD_LIBRARY_AS_DATAFILE.
const DWORD LOAD_AS_IMAGE_RESOURCE = 0x60;
const DWORD LOAD_AS_DATAFILE = 0x2;
const REGSAM VIEW_BITS = 0x300;

HKEY PredefinedKey(LONG value)
{
    return reinterpret_cast<HKEY>(static_cast<LONG_PTR>(value));
}

struct RootName
{
    LPCWSTR name;
    LONG handle;
};
// Short names first, then the long ones, each in the same order.
const RootName ROOTS[] = {
    {TEXT("HKCR"), static_cast<LONG>(0x80000000)},
    {TEXT("HKCU"), static_cast<LONG>(0x80000001)},
    {TEXT("HKLM"), static_cast<LONG>(0x80000002)},
    {TEXT("HKU"), static_cast<LONG>(0x80000003)},
    {TEXT("HKPD"), static_cast<LONG>(0x80000004)},
    {TEXT("HKDD"), static_cast<LONG>(0x80000006)},
    {TEXT("HKCC"), static_cast<LONG>(0x80000005)},
    {TEXT("HKEY_CLASSES_ROOT"), static_cast<LONG>(0x80000000)},
    {TEXT("HKEY_CURRENT_USER"), static_cast<LONG>(0x80000001)},
    {TEXT("HKEY_LOCAL_MACHINE"), static_cast<LONG>(0x80000002)},
    {TEXT("HKEY_USERS"), static_cast<LONG>(0x80000003)},
    {TEXT("HKEY_PERFORMANCE_DATA"), static_cast<LONG>(0x80000004)},
    {TEXT("HKEY_DYN_DATA"), static_cast<LONG>(0x80000006)},
    {TEXT("HKEY_CURRENT_CONFIG"), static_cast<LONG>(0x80000005)},
};

// Keys whose whole tree ForceRemove and Delete never take away, whatever a script says.
const LPCWSTR NEVER_DELETE[] = {
    TEXT("AppID"),    TEXT("CLSID"),     TEXT("Component Categories"),
    TEXT("FileType"), TEXT("Interface"), TEXT("Hardware"),
    TEXT("Mime"),     TEXT("SAM"),       TEXT("SECURITY"),
    TEXT("SYSTEM"),   TEXT("Software"),  TEXT("TypeLib"),
};

HKEY LookupRoot(LPCWSTR name)
{
    for (const RootName& root : ROOTS)
        if (lstrcmpiW(name, root.name) == 0)
            return PredefinedKey(root.handle);
    return nullptr;
}

bool IsNeverDelete(LPCWSTR name)
{
    for (LPCWSTR kept : NEVER_DELETE)
        if (lstrcmpiW(name, kept) == 0)
            return true;
    return false;
}

bool IsWhitespace(WCHAR c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool HasBackslash(LPCWSTR text)
{
    for (; *text; ++text)
        if (*text == '\\')
            return true;
    return false;
}

bool IsKeyword(LPCWSTR token, LPCWSTR keyword)
{
    return lstrcmpiW(token, keyword) == 0;
}
bool IsBlockOpen(LPCWSTR token)
{
    return token[0] == '{' && token[1] == 0;
}

void SkipWhitespace(ScriptParser& parser)
{
    while (IsWhitespace(*parser.m_cursor))
        ++parser.m_cursor;
}

int HexDigit(WCHAR c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return 0;
}

// A stack buffer for the common small case, the heap beyond it; never throws.
template <typename T, size_t StackBytes> class ScratchBuffer
{
public:
    explicit ScratchBuffer(size_t count)
    {
        if (count * sizeof(T) <= StackBytes)
            m_data = m_stack;
        else
            m_data = m_heap = static_cast<T*>(std::malloc(count * sizeof(T)));
    }
    ~ScratchBuffer() { std::free(m_heap); }
    ScratchBuffer(const ScratchBuffer&) = delete;
    ScratchBuffer& operator=(const ScratchBuffer&) = delete;
    T* Get() const { return m_data; }

private:
    T m_stack[StackBytes / sizeof(T)];
    T* m_heap = nullptr;
    T* m_data = nullptr;
};

// A parent handle lent to DeleteKeyTree and DeleteChildKey for the length of one block.
class BorrowedKey
{
public:
    explicit BorrowedKey(HKEY handle) { m_key.Attach(handle, 0); }
    ~BorrowedKey() { m_key.Detach(); }
    const RegistryKey& Get() const { return m_key; }

private:
    RegistryKey m_key;
};

// Counts the block levels of one run; past the limit the run fails however deep inside recovering levels.
class BlockLevel
{
public:
    explicit BlockLevel(ScriptParser& parser) : m_parser(parser)
    {
        if (++m_parser.m_blockDepth > MAX_SCRIPT_BLOCK_DEPTH)
            m_parser.m_tooDeep = TRUE;
    }
    ~BlockLevel() { --m_parser.m_blockDepth; }
    bool TooDeep() const { return m_parser.m_blockDepth > MAX_SCRIPT_BLOCK_DEPTH; }

private:
    ScriptParser& m_parser;
};

typedef LSTATUS(WINAPI* DeleteKeyExFunction)(HKEY, LPCWSTR, REGSAM, DWORD);
// Looked up once per process; two racing first calls store the same values.
volatile bool g_deleteKeyExLookedUp = false;
DeleteKeyExFunction g_deleteKeyEx = nullptr;

// Walks every root block of the text at the cursor without touching the registry, only to find out whether
// one nests deeper than a script may, so that such a script registers nothing at all. A malformed text ends
// the walk early: the run itself reports it, as it would without the guard.
bool ScriptTooDeep(ScriptParser& parser, LPWSTR token)
{
    parser.m_tooDeep = FALSE;
    parser.m_blockDepth = 0;
    for (;;)
    {
        if (FAILED(ReadToken(parser, token)) || !LookupRoot(token) || FAILED(ReadToken(parser, token)) ||
            token[0] != '{')
            break;
        ProcessBlock(parser, token, nullptr, FALSE, TRUE);
        if (parser.m_tooDeep)
            break;
        SkipWhitespace(parser);
        if (!*parser.m_cursor)
            break;
    }
    const bool tooDeep = parser.m_tooDeep != FALSE;
    parser.m_tooDeep = FALSE;
    parser.m_blockDepth = 0;
    return tooDeep;
}
} // namespace

HRESULT CRegObject::QueryInterface(REFIID, void**)
{
    return E_NOTIMPL;
}

HRESULT CRegObject::AddReplacement(LPCOLESTR name, LPCOLESTR value)
{
    if (!name || !value)
        return E_INVALIDARG;
    return m_replacements.AddPair(name, value) ? S_OK : E_OUTOFMEMORY;
}

HRESULT CRegObject::ClearReplacements()
{
    return m_replacements.ClearPairs();
}

CRegObject::~CRegObject()
{
    m_replacements.ClearPairs();
}

LONG RegistryKey::OpenKey(HKEY parent, LPCWSTR name, REGSAM access)
{
    HKEY opened = nullptr;
    LONG error = RegOpenKeyExW(parent, name, 0, access, &opened);
    if (error != ERROR_SUCCESS)
        return error;
    LONG closed = Close();
    m_handle = opened;
    m_accessBits = access & VIEW_BITS;
    return closed;
}

LONG RegistryKey::Close()
{
    LONG error = ERROR_SUCCESS;
    if (m_handle)
        error = RegCloseKey(m_handle);
    m_handle = nullptr;
    m_accessBits = 0;
    return error;
}

void RegistryKey::Attach(HKEY handle, REGSAM access)
{
    Close();
    m_handle = handle;
    m_accessBits = access & VIEW_BITS;
}

HKEY RegistryKey::Detach()
{
    HKEY handle = m_handle;
    m_handle = nullptr;
    m_accessBits = 0;
    return handle;
}

HRESULT ReadToken(ScriptParser& parser, LPWSTR token)
{
    SkipWhitespace(parser);
    LPCWSTR at = parser.m_cursor;
    if (!*at)
        return DISP_E_EXCEPTION;
    int length = 0;
    if (*at == '\'')
    {
        ++at;
        for (;;)
        {
            if (!*at)
            {
                parser.m_cursor = at;
                return DISP_E_EXCEPTION;
            }
            if (*at == '\'')
            {
                if (at[1] != '\'')
                    break;
                ++at; // the first of a doubled quote; the second is copied
            }
            if (length + 2 >= SCRIPT_TOKEN_CHARS)
            {
                parser.m_cursor = at;
                return DISP_E_EXCEPTION;
            }
            token[length++] = *at++;
        }
        token[length] = 0;
        parser.m_cursor = at + 1;
        return S_OK;
    }
    while (*at && !IsWhitespace(*at))
    {
        if (length + 2 >= SCRIPT_TOKEN_CHARS)
        {
            parser.m_cursor = at;
            return DISP_E_EXCEPTION;
        }
        token[length++] = *at++;
    }
    token[length] = 0;
    parser.m_cursor = at;
    return S_OK;
}

HRESULT SkipValueClause(ScriptParser& parser, LPWSTR token)
{
    if (token[0] != '=')
        return S_OK;
    WCHAR scratch[SCRIPT_TOKEN_CHARS];
    HRESULT hr = ReadToken(parser, token);
    if (SUCCEEDED(hr))
        hr = ReadToken(parser, scratch);
    if (SUCCEEDED(hr))
        hr = ReadToken(parser, token);
    return hr;
}

HRESULT WriteValue(ScriptParser& parser, HKEY key, LPCWSTR valueName, LPWSTR token)
{
    WCHAR value[SCRIPT_TOKEN_CHARS];
    HRESULT hr = ReadToken(parser, value);
    if (FAILED(hr))
        return hr;
    WCHAR type;
    if (lstrcmpiW(value, TEXT("S")) == 0)
        type = 's';
    else if (lstrcmpiW(value, TEXT("M")) == 0)
        type = 'm';
    else if (lstrcmpiW(value, TEXT("D")) == 0)
        type = 'd';
    else if (lstrcmpiW(value, TEXT("B")) == 0)
        type = 'b';
    else
        return DISP_E_EXCEPTION;
    hr = ReadToken(parser, value);
    if (FAILED(hr))
        return hr;

    const int length = lstrlenW(value);
    LONG error = ERROR_SUCCESS;
    switch (type)
    {
    case 's':
        error = RegSetValueExW(key, valueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(value),
                               static_cast<DWORD>((length + 1) * sizeof(WCHAR)));
        break;
    case 'd':
    {
        ULONG number = 0;
        hr = VarUI4FromStr(value, 0, 0, &number);
        if (FAILED(hr))
            return hr;
        DWORD data = number;
        error =
            RegSetValueExW(key, valueName, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&data), sizeof(data));
        break;
    }
    case 'b':
    {
        if (length % 2)
            return E_FAIL;
        const size_t bytes = static_cast<size_t>(length) / 2;
        ScratchBuffer<BYTE, 256> data(bytes ? bytes : 1);
        if (!data.Get())
            return E_FAIL;
        std::memset(data.Get(), 0, bytes ? bytes : 1);
        for (int i = 0; i < length; ++i)
            data.Get()[i / 2] |= static_cast<BYTE>(HexDigit(value[i]) << (i % 2 ? 0 : 4));
        error = RegSetValueExW(key, valueName, 0, REG_BINARY, data.Get(), static_cast<DWORD>(bytes));
        break;
    }
    case 'm':
    {
        ScratchBuffer<WCHAR, 256> list(static_cast<size_t>(length) + 2);
        if (!list.Get())
            return E_OUTOFMEMORY;
        LPWSTR out = list.Get();
        for (int i = 0; i < length; ++i)
        {
            if (value[i] == '\\' && value[i + 1] == '0')
            {
                *out++ = 0;
                ++i;
            }
            else
                *out++ = value[i];
        }
        *out++ = 0;
        *out = 0;
        // The list ends at its first empty string, which is counted; "\0\0" inside a token cuts it there.
        DWORD bytes = 0;
        for (LPCWSTR item = list.Get();;)
        {
            int itemLength = lstrlenW(item);
            bytes += static_cast<DWORD>((itemLength + 1) * sizeof(WCHAR));
            if (itemLength == 0)
                break;
            item += itemLength + 1;
        }
        error =
            RegSetValueExW(key, valueName, 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(list.Get()), bytes);
        break;
    }
    }
    if (error != ERROR_SUCCESS)
        return HresultFromWin32(error);
    return ReadToken(parser, token);
}

LONG DeleteChildKey(const RegistryKey& parent, LPCWSTR name)
{
    if (!g_deleteKeyExLookedUp)
    {
        HMODULE advapi = GetModuleHandleW(TEXT("Advapi32.dll"));
        FARPROC found = advapi ? GetProcAddress(advapi, "RegDeleteKeyExW") : nullptr;
        g_deleteKeyEx = reinterpret_cast<DeleteKeyExFunction>(reinterpret_cast<void (*)(void)>(found));
        g_deleteKeyExLookedUp = true;
    }
    if (g_deleteKeyEx)
        return g_deleteKeyEx(parent.m_handle, name, parent.m_accessBits, 0);
    return RegDeleteKeyW(parent.m_handle, name);
}

LONG DeleteKeyTree(const RegistryKey& parent, LPCWSTR name)
{
    RegistryKey local;
    LONG error = local.OpenKey(parent.m_handle, name, parent.m_accessBits | KEY_READ_WRITE);
    if (error != ERROR_SUCCESS)
        return error;
    WCHAR child[256];
    DWORD size = 256;
    FILETIME written;
    // Index 0 again after each deletion: the child that stood there is gone.
    while (RegEnumKeyExW(local.m_handle, 0, child, &size, nullptr, nullptr, nullptr, &written) ==
           ERROR_SUCCESS)
    {
        error = DeleteKeyTree(local, child);
        if (error != ERROR_SUCCESS)
            return error;
        size = 256;
    }
    local.Close();
    return DeleteChildKey(parent, name);
}

HRESULT ProcessBlock(ScriptParser& parser, LPWSTR token, HKEY parent, BOOL registering, BOOL recovering)
{
    BlockLevel level(parser);
    if (level.TooDeep())
        return DISP_E_EXCEPTION;
    WCHAR valueName[SCRIPT_TOKEN_CHARS];
    WCHAR keyName[MAX_PATH];
    RegistryKey key;
    BorrowedKey parentKey(parent);

    HRESULT hr = ReadToken(parser, token);
    if (FAILED(hr))
        return hr;
    if (token[0] == '}')
        return S_OK;
    for (;;)
    {
        bool noRemove = false;
        bool afterItem = false; // an item that goes straight to the block test (unregistered Val)
        const bool isDelete = IsKeyword(token, TEXT("Delete"));
        bool done = false;    // the item is complete up to the block opener test
        bool keyItem = false; // the item opened or created `key`, which a block may follow
        if (isDelete || IsKeyword(token, TEXT("ForceRemove")))
        {
            if (FAILED(hr = ReadToken(parser, token)))
                return hr;
            if (registering)
            {
                if (HasBackslash(token))
                    return DISP_E_EXCEPTION;
                if (!IsNeverDelete(token))
                    DeleteKeyTree(parentKey.Get(), token); // a missing or stubborn tree is no failure
                if (isDelete)
                {
                    if (FAILED(hr = ReadToken(parser, token)) || FAILED(hr = SkipValueClause(parser, token)))
                        return hr;
                    done = true;
                }
            }
        }
        if (!done && IsKeyword(token, TEXT("NoRemove")))
        {
            noRemove = true;
            if (FAILED(hr = ReadToken(parser, token)))
                return hr;
        }
        if (!done && IsKeyword(token, TEXT("Val")))
        {
            if (FAILED(hr = ReadToken(parser, valueName)) || FAILED(hr = ReadToken(parser, token)))
                return hr;
            if (token[0] != '=')
                return DISP_E_EXCEPTION;
            if (registering)
            {
                if (FAILED(hr = WriteValue(parser, parent, valueName, token)))
                    return hr;
                done = true;
            }
            else
            {
                if (!recovering && !noRemove)
                {
                    RegistryKey writer;
                    LONG error = writer.OpenKey(parent, nullptr, KEY_WRITE);
                    if (error != ERROR_SUCCESS)
                        return HresultFromWin32(error);
                    error = RegDeleteValueW(writer.m_handle, valueName);
                    if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND)
                        return HresultFromWin32(error);
                }
                if (FAILED(hr = SkipValueClause(parser, token)))
                    return hr;
                afterItem = true;
            }
        }
        if (!done && !afterItem)
        {
            if (HasBackslash(token))
                return DISP_E_EXCEPTION;
            if (registering)
            {
                LONG error = key.OpenKey(parent, token, KEY_READ_WRITE);
                if (error != ERROR_SUCCESS)
                    error = key.OpenKey(parent, token, KEY_READ);
                if (error != ERROR_SUCCESS)
                {
                    HKEY created = nullptr;
                    error = RegCreateKeyExW(parent, token, 0, nullptr, 0, KEY_READ_WRITE, nullptr, &created,
                                            nullptr);
                    if (error != ERROR_SUCCESS)
                        return HresultFromWin32(error);
                    key.Attach(created, KEY_READ_WRITE);
                }
                if (FAILED(hr = ReadToken(parser, token)))
                    return hr;
                if (token[0] == '=' && FAILED(hr = WriteValue(parser, key.m_handle, nullptr, token)))
                    return hr;
                done = true;
                keyItem = true;
            }
            else
            {
                LONG status = recovering ? ERROR_FILE_NOT_FOUND : key.OpenKey(parent, token, KEY_READ);
                const BOOL innerRecovering = status != ERROR_SUCCESS;
                int nameLength = 0;
                for (; token[nameLength] && nameLength < MAX_PATH - 1; ++nameLength)
                    keyName[nameLength] = token[nameLength];
                keyName[nameLength] = 0;
                if (FAILED(hr = ReadToken(parser, token)) || FAILED(hr = SkipValueClause(parser, token)))
                    return hr;
                if (IsBlockOpen(token))
                {
                    hr = ProcessBlock(parser, token, key.m_handle, FALSE, innerRecovering);
                    // A level that began recovering shrugs off what failed below it; too deep a nesting
                    // ends the run wherever it shows.
                    if (FAILED(hr) && (!innerRecovering || parser.m_tooDeep))
                        return hr;
                    if (FAILED(hr = ReadToken(parser, token)))
                        return hr;
                }
                if (status != ERROR_FILE_NOT_FOUND)
                {
                    if (status != ERROR_SUCCESS)
                        return HresultFromWin32(status);
                    DWORD subKeys = 0;
                    if (RegQueryInfoKeyW(key.m_handle, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr,
                                         nullptr, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
                        subKeys = 0;
                    LONG error = key.Close();
                    if (error != ERROR_SUCCESS)
                        return HresultFromWin32(error);
                    if (!noRemove && subKeys == 0)
                    {
                        error = DeleteChildKey(parentKey.Get(), keyName);
                        if (error != ERROR_SUCCESS)
                            return HresultFromWin32(error);
                    }
                }
                afterItem = true;
            }
        }
        if (done && registering && IsBlockOpen(token))
        {
            // A block belongs to a key item; behind a value or a Delete there is no key to hold it.
            if (!keyItem)
                return DISP_E_EXCEPTION;
            if (FAILED(hr = ProcessBlock(parser, token, key.m_handle, TRUE, FALSE)) ||
                FAILED(hr = ReadToken(parser, token)))
                return hr;
        }
        if (token[0] == '}')
            return S_OK;
    }
}

HRESULT RunScript(ScriptParser& parser, LPCWSTR source, BOOL registering)
{
    LPWSTR expanded = nullptr;
    HRESULT hr = ExpandScript(parser, source, &expanded);
    if (FAILED(hr))
        return hr;
    std::unique_ptr<WCHAR, void (*)(WCHAR*)> owned(expanded, [](WCHAR* text) { CoTaskMemFree(text); });
    parser.m_cursor = expanded;
    if (!*expanded)
        return S_OK;

    WCHAR token[SCRIPT_TOKEN_CHARS];
    if (ScriptTooDeep(parser, token))
        return DISP_E_EXCEPTION;
    parser.m_cursor = expanded;
    for (;;)
    {
        if (FAILED(hr = ReadToken(parser, token)))
            return hr;
        HKEY root = LookupRoot(token);
        if (!root)
            return DISP_E_EXCEPTION;
        if (FAILED(hr = ReadToken(parser, token)))
            return hr;
        if (token[0] != '{')
            return DISP_E_EXCEPTION;
        LPCWSTR blockStart = parser.m_cursor;
        hr = ProcessBlock(parser, token, root, registering, FALSE);
        if (FAILED(hr))
        {
            if (registering)
            {
                // Undo the root block in progress by one unregister pass over the same text.
                parser.m_cursor = blockStart;
                ProcessBlock(parser, token, root, FALSE, FALSE);
            }
            return hr;
        }
        SkipWhitespace(parser);
        if (!*parser.m_cursor)
            return S_OK;
    }
}

HRESULT RunScriptResource(CRegObject* registrar, LPCWSTR modulePath, UINT resourceId, LPCWSTR resourceType,
                          BOOL registering)
{
    HMODULE library = LoadLibraryExW(modulePath, nullptr, LOAD_AS_IMAGE_RESOURCE);
    if (!library)
        library = LoadLibraryExW(modulePath, nullptr, LOAD_AS_DATAFILE);
    if (!library)
        return HresultFromLastError();
    struct LibraryHolder
    {
        HMODULE handle;
        ~LibraryHolder() { FreeLibrary(handle); }
    } holder{library};

    HRSRC resource = FindResourceW(library, MAKEINTRESOURCEW(resourceId), resourceType);
    if (!resource)
        return HresultFromLastError();
    HGLOBAL loaded = LoadResource(library, resource);
    if (!loaded)
        return HresultFromLastError();
    DWORD size = SizeofResource(library, resource);
    auto bytes = static_cast<LPCSTR>(LockResource(loaded));
    if (size >= 0x7FFFFFFF)
        return E_OUTOFMEMORY;
    ScratchBuffer<WCHAR, 1024> text(static_cast<size_t>(size) + 1);
    if (!text.Get())
        return E_OUTOFMEMORY;
    // Decoded in the thread's code page, which registration has set to the system's default locale.
    int written = MultiByteToWideChar(CP_THREAD_ACP, 0, bytes, static_cast<int>(size), text.Get(),
                                      static_cast<int>(size));
    if (written == 0)
        return HresultFromLastError();
    text.Get()[written] = 0;

    ScriptParser parser;
    parser.m_registrar = registrar;
    return RunScript(parser, text.Get(), registering);
}
