#include "tests/module/RegistryDump.h"

#include <algorithm>
#include <cstdio>

std::string Narrow(const WCHAR* text)
{
    std::string out;
    for (; text && *text; ++text)
        out += *text < 0x80 ? static_cast<char>(*text) : '?';
    return out;
}

std::string GuidText(const GUID& guid)
{
    char text[40];
    std::snprintf(text, sizeof(text), "{%08lx-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}",
                  static_cast<unsigned long>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0],
                  guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6],
                  guid.Data4[7]);
    return text;
}

WText Widen(const std::string& text)
{
    return WText(text.begin(), text.end());
}

namespace
{
std::string Describe(DWORD type, const std::vector<BYTE>& data)
{
    char number[32];
    switch (type)
    {
    case REG_SZ:
    {
        WText text(reinterpret_cast<const WCHAR*>(data.data()), data.size() / sizeof(WCHAR));
        while (!text.empty() && text.back() == 0)
            text.pop_back();
        return "SZ:" + Narrow(text.c_str());
    }
    case REG_DWORD:
    {
        DWORD value = 0;
        if (data.size() == 4)
            std::copy(data.begin(), data.end(), reinterpret_cast<BYTE*>(&value));
        std::snprintf(number, sizeof(number), "DWORD:%lu", static_cast<unsigned long>(value));
        return number;
    }
    case REG_MULTI_SZ:
    {
        std::string out = "MULTI_SZ:";
        const WCHAR* at = reinterpret_cast<const WCHAR*>(data.data());
        size_t units = data.size() / sizeof(WCHAR);
        for (size_t i = 0; i < units; ++i)
            out += at[i] ? static_cast<char>(at[i]) : '|';
        return out;
    }
    default:
    {
        std::snprintf(number, sizeof(number), "TYPE%lu:", static_cast<unsigned long>(type));
        std::string out = type == REG_BINARY ? "BINARY:" : number;
        for (BYTE b : data)
        {
            std::snprintf(number, sizeof(number), "%02x", b);
            out += number;
        }
        return out;
    }
    }
}

void DumpInto(HKEY key, const std::string& relative, std::vector<std::string>& lines)
{
    lines.push_back(relative);
    for (DWORD index = 0;; ++index)
    {
        WCHAR name[512];
        DWORD nameSize = 512;
        BYTE data[4096];
        DWORD dataSize = sizeof(data);
        DWORD type = 0;
        if (RegEnumValueW(key, index, name, &nameSize, nullptr, &type, data, &dataSize) != ERROR_SUCCESS)
            break;
        std::string valueName = name[0] ? Narrow(name) : "@";
        lines.push_back(relative + " : " + valueName + " = " +
                        Describe(type, std::vector<BYTE>(data, data + dataSize)));
    }
    for (DWORD index = 0;; ++index)
    {
        WCHAR name[256];
        DWORD nameSize = 256;
        if (RegEnumKeyExW(key, index, name, &nameSize, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        HKEY child = nullptr;
        if (RegOpenKeyExW(key, name, 0, KEY_READ, &child) == ERROR_SUCCESS)
        {
            DumpInto(child, relative.empty() ? Narrow(name) : relative + "\\" + Narrow(name), lines);
            RegCloseKey(child);
        }
    }
}
} // namespace

std::vector<std::string> DumpKey(HKEY root, const WCHAR* path)
{
    std::vector<std::string> lines;
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, path, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return lines;
    DumpInto(key, "", lines);
    RegCloseKey(key);
    std::sort(lines.begin(), lines.end());
    return lines;
}

bool KeyExists(HKEY root, const WCHAR* path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, path, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return false;
    RegCloseKey(key);
    return true;
}

void DeleteTree(HKEY root, const WCHAR* path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, path, 0, KEY_READ | KEY_WRITE, &key) != ERROR_SUCCESS)
        return;
    for (;;)
    {
        WCHAR name[256];
        DWORD nameSize = 256;
        if (RegEnumKeyExW(key, 0, name, &nameSize, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        WText child = WText(path) + TEXT("\\") + name;
        size_t before = DumpKey(root, child.c_str()).size();
        DeleteTree(root, child.c_str());
        if (before && KeyExists(root, child.c_str()))
            break;
    }
    RegCloseKey(key);
    RegDeleteKeyW(root, path);
}

void SetString(HKEY root, const WCHAR* path, const WCHAR* valueName, const WCHAR* value)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(root, path, 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        return;
    if (value)
    {
        DWORD bytes = 0;
        while (value[bytes])
            ++bytes;
        RegSetValueExW(key, valueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(value),
                       (bytes + 1) * static_cast<DWORD>(sizeof(WCHAR)));
    }
    RegCloseKey(key);
}
