#ifdef _WIN32
#include "tests/support/ManagedDrive.h"

#include <stdexcept>

namespace TestSupport
{
namespace
{
void RemoveTree(const WideString& folder)
{
    WideString pattern = folder;
    pattern.Append(TEXT("\\*"));
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(pattern, &found);
    if (search != INVALID_HANDLE_VALUE)
    {
        do
        {
            WideString name(found.cFileName);
            if (name == TEXT(".") || name == TEXT(".."))
                continue;
            WideString path = folder;
            path.Append(TEXT("\\"));
            path.Append(name);
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(path);
            else
                DeleteFileW(path);
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(folder);
}
} // namespace

ManagedDrive::ManagedDrive(WCHAR letter) : m_letter(letter)
{
    WCHAR temp[MAX_PATH];
    if (!GetTempPathW(MAX_PATH, temp))
        throw std::runtime_error("GetTempPathW failed");
    WCHAR name[64];
    wsprintfW(name, TEXT("velmount-drive-%lu-%lu"), GetCurrentProcessId(), GetTickCount());
    m_backing = temp;
    m_backing.Append(name);
    if (!CreateDirectoryW(m_backing, nullptr))
        throw std::runtime_error("CreateDirectoryW failed");
    WCHAR device[] = {letter, TEXT(':'), 0};
    if (!DefineDosDeviceW(0, device, m_backing))
        throw std::runtime_error("DefineDosDeviceW failed");
}

ManagedDrive::~ManagedDrive()
{
    WCHAR device[] = {m_letter, TEXT(':'), 0};
    DefineDosDeviceW(DDD_REMOVE_DEFINITION | DDD_EXACT_MATCH_ON_REMOVE, device, m_backing);
    RemoveTree(m_backing);
}
} // namespace TestSupport
#endif
