#include "platform/host/Registry.h"
#include "platform/host/ControlRegistry.h"
#include "platform/host/Kernel.h"
#include "platform/host/Utf8.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace
{
typedef std::u16string Text;

struct Value
{
    Text name;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
};

struct Key
{
    Text name;
    Key* parent = nullptr;
    bool deleted = false;
    std::vector<Value> values; // in the order of their creation, as Windows enumerates them
    std::map<Text, std::shared_ptr<Key>> children; // by folded name: the enumeration order
};
typedef std::shared_ptr<Key> KeyPtr;

Text Fold(const Text& text)
{
    Text out = text;
    for (auto& c : out)
        if (c >= u'a' && c <= u'z')
            c = static_cast<char16_t>(c - 32);
    return out;
}

// One open key. For HKEY_CLASSES_ROOT and the keys below it, `user` and `machine` are the two sides of the
// merged view; everywhere else only `machine` is used.
struct OpenKey
{
    KeyPtr user;
    KeyPtr machine;
    bool merged = false;
    REGSAM access = KEY_ALL_ACCESS;
};

std::recursive_mutex g_lock;
KeyPtr g_machine, g_currentUser, g_users;
std::map<ULONG_PTR, OpenKey> g_handles;
ULONG_PTR g_nextHandle = 0x1000;

KeyPtr NewKey(const Text& name, Key* parent)
{
    auto key = std::make_shared<Key>();
    key->name = name;
    key->parent = parent;
    return key;
}

void MarkDeleted(Key& key)
{
    key.deleted = true;
    for (auto& child : key.children)
        MarkDeleted(*child.second);
}

void EnsureHives()
{
    if (!g_machine)
    {
        g_machine = NewKey(u"HKEY_LOCAL_MACHINE", nullptr);
        g_currentUser = NewKey(u"HKEY_CURRENT_USER", nullptr);
        g_users = NewKey(u"HKEY_USERS", nullptr);
    }
}

KeyPtr Child(const KeyPtr& key, const Text& name)
{
    if (!key)
        return nullptr;
    auto found = key->children.find(Fold(name));
    return found == key->children.end() ? nullptr : found->second;
}

KeyPtr Walk(KeyPtr key, const std::vector<Text>& parts)
{
    for (const auto& part : parts)
    {
        key = Child(key, part);
        if (!key)
            return nullptr;
    }
    return key;
}

KeyPtr WalkCreate(KeyPtr key, const std::vector<Text>& parts, bool& created)
{
    created = false;
    for (const auto& part : parts)
    {
        KeyPtr next = Child(key, part);
        if (!next)
        {
            next = NewKey(part, key.get());
            key->children[Fold(part)] = next;
            created = true;
        }
        key = next;
    }
    return key;
}

// Splits a sub-key path. Windows refuses a leading backslash and takes empty parts elsewhere as errors too;
// a trailing backslash is tolerated.
bool Split(LPCWSTR subKey, std::vector<Text>& parts)
{
    parts.clear();
    if (!subKey || !subKey[0])
        return true;
    if (subKey[0] == u'\\')
        return false;
    Text part;
    for (const WCHAR* p = subKey;; ++p)
    {
        if (*p == u'\\' || *p == 0)
        {
            if (part.empty() && *p != 0)
                return false;
            if (!part.empty())
                parts.push_back(part);
            part.clear();
            if (*p == 0)
                break;
        }
        else
            part += *p;
    }
    for (const auto& name : parts)
        if (name.size() > 255)
            return false;
    return true;
}

const std::vector<Text>& ClassesPath()
{
    static const std::vector<Text> path = {u"Software", u"Classes"};
    return path;
}

// Resolves a handle (predefined or opened) into an OpenKey. Returns an error code.
LONG Resolve(HKEY hKey, OpenKey& out)
{
    EnsureHives();
    LONG_PTR value = reinterpret_cast<LONG_PTR>(hKey);
    out = OpenKey();
    switch (static_cast<LONG>(value))
    {
    case static_cast<LONG>(0x80000000):
    {
        bool created;
        out.merged = true;
        out.user = Walk(g_currentUser, ClassesPath());
        out.machine = WalkCreate(g_machine, ClassesPath(), created);
        return ERROR_SUCCESS;
    }
    case static_cast<LONG>(0x80000001):
        out.machine = g_currentUser;
        return ERROR_SUCCESS;
    case static_cast<LONG>(0x80000002):
        out.machine = g_machine;
        return ERROR_SUCCESS;
    case static_cast<LONG>(0x80000003):
        out.machine = g_users;
        return ERROR_SUCCESS;
    default:
        break;
    }
    auto found = g_handles.find(static_cast<ULONG_PTR>(value));
    if (found == g_handles.end())
        return ERROR_INVALID_HANDLE;
    out = found->second;
    if ((!out.user || out.user->deleted) && (!out.machine || out.machine->deleted))
        return ERROR_KEY_DELETED;
    if (out.user && out.user->deleted)
        out.user = nullptr;
    if (out.machine && out.machine->deleted)
        out.machine = nullptr;
    return ERROR_SUCCESS;
}

bool IsPredefined(HKEY hKey)
{
    LONG low = static_cast<LONG>(reinterpret_cast<LONG_PTR>(hKey));
    return low >= static_cast<LONG>(0x80000000) && low <= static_cast<LONG>(0x80000003) &&
           reinterpret_cast<LONG_PTR>(hKey) == static_cast<LONG_PTR>(low);
}

HKEY NewHandle(const OpenKey& key)
{
    ULONG_PTR value = g_nextHandle;
    g_nextHandle += 4;
    g_handles[value] = key;
    return reinterpret_cast<HKEY>(value);
}

// The key that takes writes: in the merged view the user's when it exists.
KeyPtr WriteSide(const OpenKey& key)
{
    return key.user ? key.user : key.machine;
}

Value* FindValue(const KeyPtr& key, LPCWSTR name)
{
    if (!key)
        return nullptr;
    Text wanted = Fold(name ? Text(name) : Text());
    for (auto& value : key->values)
        if (Fold(value.name) == wanted)
            return &value;
    return nullptr;
}

Value* FindValueMerged(const OpenKey& key, LPCWSTR name)
{
    if (Value* value = FindValue(key.user, name))
        return value;
    return FindValue(key.machine, name);
}

std::vector<std::pair<Text, KeyPtr>> MergedChildren(const OpenKey& key)
{
    std::map<Text, KeyPtr> all;
    if (key.machine)
        for (auto& child : key.machine->children)
            all[child.first] = child.second;
    if (key.user)
        for (auto& child : key.user->children)
            all[child.first] = child.second;
    return std::vector<std::pair<Text, KeyPtr>>(all.begin(), all.end());
}

LONG OpenPath(const OpenKey& base, const std::vector<Text>& parts, OpenKey& out)
{
    out = OpenKey();
    out.merged = base.merged;
    out.user = base.user ? Walk(base.user, parts) : nullptr;
    out.machine = base.machine ? Walk(base.machine, parts) : nullptr;
    if (!out.user && !out.machine)
        return ERROR_FILE_NOT_FOUND;
    return ERROR_SUCCESS;
}

bool IsStringType(DWORD type)
{
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

DWORD TypeFlag(DWORD type)
{
    switch (type)
    {
    case REG_NONE:
        return RRF_RT_REG_NONE;
    case REG_SZ:
        return RRF_RT_REG_SZ;
    case REG_EXPAND_SZ:
        return RRF_RT_REG_EXPAND_SZ;
    case REG_BINARY:
        return RRF_RT_REG_BINARY;
    case REG_DWORD:
        return RRF_RT_REG_DWORD;
    case REG_MULTI_SZ:
        return RRF_RT_REG_MULTI_SZ;
    case REG_QWORD:
        return RRF_RT_REG_QWORD;
    default:
        return 0;
    }
}

LONG CopyData(const Value& value, LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData, bool terminate)
{
    std::vector<BYTE> data = value.data;
    if (terminate && IsStringType(value.type))
    {
        // A string stored without its terminator is handed out with one, as RegGetValueW does.
        size_t units = data.size() / 2;
        bool ends = units > 0 && data[units * 2 - 1] == 0 && data[units * 2 - 2] == 0;
        if (data.size() % 2)
            data.push_back(0);
        if (!ends)
            data.insert(data.end(), {0, 0});
    }
    if (lpType)
        *lpType = value.type;
    if (!lpcbData)
        return lpData ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
    DWORD size = static_cast<DWORD>(data.size());
    if (lpData)
    {
        if (*lpcbData < size)
        {
            *lpcbData = size;
            return ERROR_MORE_DATA;
        }
        if (size)
            std::memcpy(lpData, data.data(), size);
    }
    *lpcbData = size;
    return ERROR_SUCCESS;
}

LONG DeleteKey(HKEY hKey, LPCWSTR lpSubKey)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    OpenKey base;
    LONG error = Resolve(hKey, base);
    if (error)
        return error;
    if (!lpSubKey)
        return ERROR_INVALID_PARAMETER;
    std::vector<Text> parts;
    if (!Split(lpSubKey, parts))
        return ERROR_BAD_PATHNAME;
    OpenKey target;
    error = OpenPath(base, parts, target);
    if (error)
        return error;
    KeyPtr key = target.user ? target.user : target.machine;
    if (!key->parent)
        return ERROR_ACCESS_DENIED; // a hive's root
    if (parts.empty() && IsPredefined(hKey))
        return ERROR_ACCESS_DENIED;
    if (!key->children.empty())
        return ERROR_ACCESS_DENIED;
    Key* parent = key->parent;
    KeyPtr keep = key;
    parent->children.erase(Fold(key->name));
    MarkDeleted(*keep);
    return ERROR_SUCCESS;
}
} // namespace

LSTATUS RegOpenKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD, REGSAM samDesired, PHKEY phkResult)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if (!phkResult)
        return ERROR_INVALID_PARAMETER;
    *phkResult = nullptr;
    OpenKey base;
    LONG error = Resolve(hKey, base);
    if (error)
        return error;
    std::vector<Text> parts;
    if (!Split(lpSubKey, parts))
        return ERROR_BAD_PATHNAME;
    OpenKey opened;
    error = OpenPath(base, parts, opened);
    if (error)
        return error;
    opened.access = samDesired & ~static_cast<REGSAM>(KEY_WOW64_64KEY | KEY_WOW64_32KEY);
    if (opened.access & MAXIMUM_ALLOWED)
        opened.access = KEY_ALL_ACCESS;
    *phkResult = NewHandle(opened);
    return ERROR_SUCCESS;
}

LSTATUS RegCreateKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD, LPWSTR, DWORD, REGSAM samDesired,
                        LPSECURITY_ATTRIBUTES, PHKEY phkResult, LPDWORD lpdwDisposition)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if (!phkResult || !lpSubKey)
        return ERROR_INVALID_PARAMETER;
    *phkResult = nullptr;
    OpenKey base;
    LONG error = Resolve(hKey, base);
    if (error)
        return error;
    std::vector<Text> parts;
    if (!Split(lpSubKey, parts))
        return ERROR_BAD_PATHNAME;
    OpenKey opened;
    bool created = false;
    if (OpenPath(base, parts, opened) != ERROR_SUCCESS)
    {
        if (!(base.access & KEY_CREATE_SUB_KEY))
            return ERROR_ACCESS_DENIED;
        // In the merged view a new key goes where its parent lives only in the user's classes, else to the
        // machine's.
        KeyPtr side = base.user && !base.machine ? base.user : base.machine;
        if (!side)
            side = base.user;
        opened = OpenKey();
        opened.merged = base.merged;
        KeyPtr made = WalkCreate(side, parts, created);
        (side == base.user ? opened.user : opened.machine) = made;
    }
    opened.access = samDesired & ~static_cast<REGSAM>(KEY_WOW64_64KEY | KEY_WOW64_32KEY);
    if (opened.access & MAXIMUM_ALLOWED)
        opened.access = KEY_ALL_ACCESS;
    *phkResult = NewHandle(opened);
    if (lpdwDisposition)
        *lpdwDisposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return ERROR_SUCCESS;
}

LSTATUS RegCloseKey(HKEY hKey)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if (IsPredefined(hKey))
        return ERROR_SUCCESS;
    return g_handles.erase(reinterpret_cast<ULONG_PTR>(hKey)) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

LSTATUS RegGetValueW(HKEY hkey, LPCWSTR lpSubKey, LPCWSTR lpValue, DWORD dwFlags, LPDWORD pdwType,
                     PVOID pvData, LPDWORD pcbData)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if ((pvData && !pcbData) || !(dwFlags & RRF_RT_ANY))
        return ERROR_INVALID_PARAMETER;
    DWORD capacity = pcbData ? *pcbData : 0;
    auto zero = [&]()
    {
        if ((dwFlags & RRF_ZEROONFAILURE) && pvData && capacity)
            std::memset(pvData, 0, capacity);
    };
    OpenKey base;
    LONG error = Resolve(hkey, base);
    if (error)
        return zero(), error;
    OpenKey key = base;
    if (lpSubKey && lpSubKey[0])
    {
        std::vector<Text> parts;
        if (!Split(lpSubKey, parts))
            return zero(), ERROR_BAD_PATHNAME;
        error = OpenPath(base, parts, key);
        if (error)
            return zero(), error;
    }
    else if (!(base.access & KEY_QUERY_VALUE))
        return zero(), ERROR_ACCESS_DENIED;
    Value* value = FindValueMerged(key, lpValue);
    if (!value)
        return zero(), ERROR_FILE_NOT_FOUND;
    if (!(TypeFlag(value->type) & dwFlags))
        return zero(), ERROR_UNSUPPORTED_TYPE;
    if ((value->type == REG_DWORD && value->data.size() != 4 && !(dwFlags & RRF_RT_REG_BINARY)) ||
        (value->type == REG_QWORD && value->data.size() != 8 && !(dwFlags & RRF_RT_REG_BINARY)))
        return zero(), ERROR_DATATYPE_MISMATCH;
    error = CopyData(*value, pdwType, static_cast<LPBYTE>(pvData), pcbData, true);
    if (error)
        zero();
    return error;
}

LSTATUS RegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData,
                         LPDWORD lpcbData)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if (lpReserved || (lpData && !lpcbData))
        return ERROR_INVALID_PARAMETER;
    OpenKey key;
    LONG error = Resolve(hKey, key);
    if (error)
        return error;
    if (!(key.access & KEY_QUERY_VALUE))
        return ERROR_ACCESS_DENIED;
    Value* value = FindValueMerged(key, lpValueName);
    if (!value)
        return ERROR_FILE_NOT_FOUND;
    return CopyData(*value, lpType, lpData, lpcbData, false);
}

LSTATUS RegSetValueExW(HKEY hKey, LPCWSTR lpValueName, DWORD, DWORD dwType, const BYTE* lpData, DWORD cbData)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    OpenKey key;
    LONG error = Resolve(hKey, key);
    if (error)
        return error;
    if (!(key.access & KEY_SET_VALUE))
        return ERROR_ACCESS_DENIED;
    if (!lpData && cbData)
        return ERROR_NOACCESS;
    KeyPtr side = WriteSide(key);
    Value* value = FindValue(side, lpValueName);
    if (!value)
    {
        side->values.push_back(Value());
        value = &side->values.back();
        value->name = lpValueName ? Text(lpValueName) : Text();
    }
    value->type = dwType;
    value->data.assign(lpData, lpData + cbData);
    return ERROR_SUCCESS;
}

LSTATUS RegDeleteValueW(HKEY hKey, LPCWSTR lpValueName)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    OpenKey key;
    LONG error = Resolve(hKey, key);
    if (error)
        return error;
    if (!(key.access & KEY_SET_VALUE))
        return ERROR_ACCESS_DENIED;
    for (KeyPtr side : {key.user, key.machine})
    {
        if (Value* value = FindValue(side, lpValueName))
        {
            side->values.erase(side->values.begin() + (value - side->values.data()));
            return ERROR_SUCCESS;
        }
    }
    return ERROR_FILE_NOT_FOUND;
}

LSTATUS RegDeleteKeyW(HKEY hKey, LPCWSTR lpSubKey)
{
    return DeleteKey(hKey, lpSubKey);
}
LSTATUS RegDeleteKeyExW(HKEY hKey, LPCWSTR lpSubKey, REGSAM, DWORD)
{
    return DeleteKey(hKey, lpSubKey);
}

LSTATUS RegEnumKeyExW(HKEY hKey, DWORD dwIndex, LPWSTR lpName, LPDWORD lpcchName, LPDWORD lpReserved,
                      LPWSTR lpClass, LPDWORD lpcchClass, FILETIME* lpftLastWriteTime)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if (!lpName || !lpcchName || lpReserved)
        return ERROR_INVALID_PARAMETER;
    OpenKey key;
    LONG error = Resolve(hKey, key);
    if (error)
        return error;
    if (!(key.access & KEY_ENUMERATE_SUB_KEYS))
        return ERROR_ACCESS_DENIED;
    auto children = MergedChildren(key);
    if (dwIndex >= children.size())
        return ERROR_NO_MORE_ITEMS;
    const Text& name = children[dwIndex].second->name;
    if (*lpcchName < name.size() + 1)
        return ERROR_MORE_DATA;
    std::memcpy(lpName, name.c_str(), (name.size() + 1) * sizeof(WCHAR));
    *lpcchName = static_cast<DWORD>(name.size());
    if (lpClass && lpcchClass && *lpcchClass)
        lpClass[0] = 0;
    if (lpcchClass)
        *lpcchClass = 0;
    if (lpftLastWriteTime)
        *lpftLastWriteTime = FILETIME{0, 0};
    return ERROR_SUCCESS;
}

LSTATUS RegEnumValueW(HKEY hKey, DWORD dwIndex, LPWSTR lpValueName, LPDWORD lpcchValueName,
                      LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if (!lpValueName || !lpcchValueName || lpReserved)
        return ERROR_INVALID_PARAMETER;
    OpenKey key;
    LONG error = Resolve(hKey, key);
    if (error)
        return error;
    if (!(key.access & KEY_QUERY_VALUE))
        return ERROR_ACCESS_DENIED;
    std::vector<const Value*> values;
    if (key.user)
        for (auto& value : key.user->values)
            values.push_back(&value);
    if (key.machine)
        for (auto& value : key.machine->values)
            if (!FindValue(key.user, value.name.c_str()))
                values.push_back(&value);
    if (dwIndex >= values.size())
        return ERROR_NO_MORE_ITEMS;
    const Value& value = *values[dwIndex];
    if (*lpcchValueName < value.name.size() + 1)
        return ERROR_MORE_DATA;
    std::memcpy(lpValueName, value.name.c_str(), (value.name.size() + 1) * sizeof(WCHAR));
    *lpcchValueName = static_cast<DWORD>(value.name.size());
    return CopyData(value, lpType, lpData, lpcbData, false);
}

LSTATUS RegQueryInfoKeyW(HKEY hKey, LPWSTR lpClass, LPDWORD lpcchClass, LPDWORD, LPDWORD lpcSubKeys,
                         LPDWORD lpcbMaxSubKeyLen, LPDWORD lpcbMaxClassLen, LPDWORD lpcValues,
                         LPDWORD lpcbMaxValueNameLen, LPDWORD lpcbMaxValueLen, LPDWORD lpcbSecurityDescriptor,
                         FILETIME* lpftLastWriteTime)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    OpenKey key;
    LONG error = Resolve(hKey, key);
    if (error)
        return error;
    auto children = MergedChildren(key);
    DWORD maxSub = 0, values = 0, maxName = 0, maxData = 0;
    for (auto& child : children)
        maxSub = std::max<DWORD>(maxSub, static_cast<DWORD>(child.second->name.size()));
    for (KeyPtr side : {key.user, key.machine})
    {
        if (!side)
            continue;
        for (auto& value : side->values)
        {
            if (side == key.machine && FindValue(key.user, value.name.c_str()))
                continue;
            ++values;
            maxName = std::max<DWORD>(maxName, static_cast<DWORD>(value.name.size()));
            maxData = std::max<DWORD>(maxData, static_cast<DWORD>(value.data.size()));
        }
    }
    if (lpClass && lpcchClass && *lpcchClass)
        lpClass[0] = 0;
    if (lpcchClass)
        *lpcchClass = 0;
    if (lpcSubKeys)
        *lpcSubKeys = static_cast<DWORD>(children.size());
    if (lpcbMaxSubKeyLen)
        *lpcbMaxSubKeyLen = maxSub;
    if (lpcbMaxClassLen)
        *lpcbMaxClassLen = 0;
    if (lpcValues)
        *lpcValues = values;
    if (lpcbMaxValueNameLen)
        *lpcbMaxValueNameLen = maxName;
    if (lpcbMaxValueLen)
        *lpcbMaxValueLen = maxData;
    if (lpcbSecurityDescriptor)
        *lpcbSecurityDescriptor = 0;
    if (lpftLastWriteTime)
        *lpftLastWriteTime = FILETIME{0, 0};
    return ERROR_SUCCESS;
}

// ---- Test control: reset, .reg import and export ----

namespace
{
// "HKEY_LOCAL_MACHINE\\a\\b" -> root handle and the rest.
bool SplitRoot(const std::string& path, HKEY& root, std::string& rest)
{
    static const struct
    {
        const char* name;
        HKEY key;
    } roots[] = {{"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
                 {"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
                 {"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
                 {"HKEY_USERS", HKEY_USERS},
                 {"HKLM", HKEY_LOCAL_MACHINE},
                 {"HKCU", HKEY_CURRENT_USER},
                 {"HKCR", HKEY_CLASSES_ROOT}};
    size_t slash = path.find('\\');
    std::string head = path.substr(0, slash);
    rest = slash == std::string::npos ? std::string() : path.substr(slash + 1);
    for (auto& candidate : roots)
    {
        if (head == candidate.name)
        {
            root = candidate.key;
            return true;
        }
    }
    return false;
}

std::string Quote(const Text& text)
{
    std::string out = "\"";
    for (char c : VmHost::Utf8(text))
    {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

void ExportKey(const Key& key, const std::string& path, std::string& out)
{
    out += "\r\n[" + path + "]\r\n";
    for (auto& value : key.values)
    {
        out += value.name.empty() ? std::string("@") : Quote(value.name);
        out += "=";
        if (value.type == REG_SZ)
        {
            Text text(reinterpret_cast<const char16_t*>(value.data.data()), value.data.size() / 2);
            while (!text.empty() && text.back() == 0)
                text.pop_back();
            out += Quote(text);
        }
        else if (value.type == REG_DWORD && value.data.size() == 4)
        {
            char buffer[16];
            DWORD number;
            std::memcpy(&number, value.data.data(), 4);
            std::snprintf(buffer, sizeof(buffer), "dword:%08x", number);
            out += buffer;
        }
        else
        {
            char buffer[16];
            if (value.type == REG_BINARY)
                out += "hex:";
            else
            {
                std::snprintf(buffer, sizeof(buffer), "hex(%x):", value.type);
                out += buffer;
            }
            for (size_t i = 0; i < value.data.size(); ++i)
            {
                std::snprintf(buffer, sizeof(buffer), i ? ",%02x" : "%02x", value.data[i]);
                out += buffer;
            }
        }
        out += "\r\n";
    }
    for (auto& child : key.children)
        ExportKey(*child.second, path + "\\" + VmHost::Utf8(child.second->name), out);
}

bool ParseQuoted(const std::string& line, size_t& at, std::string& out)
{
    if (at >= line.size() || line[at] != '"')
        return false;
    out.clear();
    for (++at; at < line.size(); ++at)
    {
        if (line[at] == '\\' && at + 1 < line.size())
            out += line[++at];
        else if (line[at] == '"')
        {
            ++at;
            return true;
        }
        else
            out += line[at];
    }
    return false;
}
} // namespace

void VmHostRegistryReset(void)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    for (KeyPtr hive : {g_machine, g_currentUser, g_users})
        if (hive)
            for (auto& child : hive->children)
                MarkDeleted(*child.second);
    g_machine = g_currentUser = g_users = nullptr;
    EnsureHives();
}

BOOL VmHostRegistryImport(const char* regText)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if (!regText)
        return FALSE;
    std::string text = regText;
    // A line ending in a backslash goes on in the next one (long hex values); a string value never ends so,
    // since its closing quote comes last.
    std::string joined;
    size_t from = 0;
    while (from < text.size())
    {
        size_t end = text.find('\n', from);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(from, end - from);
        from = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!joined.empty() && joined.back() == '\\')
        {
            joined.pop_back();
            line.erase(0, line.find_first_not_of(" \t") == std::string::npos ? line.size()
                                                                             : line.find_first_not_of(" \t"));
            joined += line;
        }
        else
            joined += (joined.empty() ? "" : "\n") + line;
    }
    HKEY current = nullptr;
    size_t start = 0;
    bool ok = true, sawHeader = false;
    while (start < joined.size() && ok)
    {
        size_t end = joined.find('\n', start);
        if (end == std::string::npos)
            end = joined.size();
        std::string line = joined.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == ';')
            continue;
        if (!sawHeader)
        {
            sawHeader = true;
            if (line == "Windows Registry Editor Version 5.00" ||
                line == "\xEF\xBB\xBFWindows Registry Editor Version 5.00")
                continue;
            ok = false;
            break;
        }
        if (line[0] == '[')
        {
            if (current)
                RegCloseKey(current), current = nullptr;
            bool remove = line.size() > 1 && line[1] == '-';
            std::string path = line.substr(remove ? 2 : 1, line.size() - (remove ? 3 : 2));
            HKEY root;
            std::string rest;
            if (line.back() != ']' || !SplitRoot(path, root, rest))
            {
                ok = false;
                break;
            }
            Text sub = VmHost::Utf16(rest);
            if (remove)
            {
                // Deletes the key with everything below it.
                std::vector<Text> parts;
                OpenKey base, target;
                if (Split(sub.c_str(), parts) && Resolve(root, base) == ERROR_SUCCESS &&
                    OpenPath(base, parts, target) == ERROR_SUCCESS && !parts.empty())
                {
                    for (KeyPtr side : {target.user, target.machine})
                        if (side && side->parent)
                        {
                            side->parent->children.erase(Fold(side->name));
                            MarkDeleted(*side);
                        }
                }
                continue;
            }
            if (RegCreateKeyExW(root, sub.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &current,
                                nullptr) != ERROR_SUCCESS)
                ok = false;
            continue;
        }
        if (!current)
        {
            ok = false;
            break;
        }
        size_t at = 0;
        std::string name;
        if (line[0] == '@')
            at = 1;
        else if (!ParseQuoted(line, at, name))
        {
            ok = false;
            break;
        }
        if (at >= line.size() || line[at] != '=')
        {
            ok = false;
            break;
        }
        ++at;
        Text wideName = VmHost::Utf16(name);
        std::string data = line.substr(at);
        if (data == "-")
        {
            RegDeleteValueW(current, wideName.c_str());
            continue;
        }
        if (!data.empty() && data[0] == '"')
        {
            std::string value;
            size_t pos = 0;
            if (!ParseQuoted(data, pos, value))
            {
                ok = false;
                break;
            }
            Text wide = VmHost::Utf16(value);
            RegSetValueExW(current, wideName.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(wide.c_str()),
                           static_cast<DWORD>((wide.size() + 1) * sizeof(WCHAR)));
        }
        else if (data.compare(0, 6, "dword:") == 0)
        {
            DWORD number = static_cast<DWORD>(std::strtoul(data.c_str() + 6, nullptr, 16));
            RegSetValueExW(current, wideName.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                           4);
        }
        else if (data.compare(0, 3, "hex") == 0)
        {
            DWORD type = REG_BINARY;
            size_t colon = data.find(':');
            if (colon == std::string::npos)
            {
                ok = false;
                break;
            }
            if (data[3] == '(')
                type = static_cast<DWORD>(std::strtoul(data.c_str() + 4, nullptr, 16));
            std::vector<BYTE> bytes;
            for (size_t p = colon + 1; p < data.size();)
            {
                while (p < data.size() && (data[p] == ',' || data[p] == ' '))
                    ++p;
                if (p >= data.size())
                    break;
                char* stop = nullptr;
                bytes.push_back(static_cast<BYTE>(std::strtoul(data.c_str() + p, &stop, 16)));
                p = static_cast<size_t>(stop - data.c_str());
            }
            RegSetValueExW(current, wideName.c_str(), 0, type, bytes.data(),
                           static_cast<DWORD>(bytes.size()));
        }
        else
            ok = false;
    }
    if (current)
        RegCloseKey(current);
    return ok ? TRUE : FALSE;
}

DWORD VmHostRegistryExport(const char* rootPath, char* out, DWORD size)
{
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    std::string text = "Windows Registry Editor Version 5.00\r\n";
    HKEY root;
    std::string rest;
    if (rootPath && SplitRoot(rootPath, root, rest))
    {
        OpenKey base, target;
        std::vector<Text> parts;
        Text sub = VmHost::Utf16(rest);
        if (Resolve(root, base) == ERROR_SUCCESS && Split(sub.c_str(), parts) &&
            OpenPath(base, parts, target) == ERROR_SUCCESS)
        {
            KeyPtr key = target.user ? target.user : target.machine;
            ExportKey(*key, rootPath, text);
        }
    }
    text += "\r\n";
    if (out && size)
    {
        size_t copy = std::min<size_t>(text.size(), size - 1);
        std::memcpy(out, text.data(), copy);
        out[copy] = 0;
    }
    return static_cast<DWORD>(text.size());
}
