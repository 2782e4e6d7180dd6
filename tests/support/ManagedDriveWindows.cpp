#ifdef _WIN32
#include "tests/support/ManagedDrive.h"

#include <stdexcept>
#include <string>

namespace TestSupport
{
namespace
{
[[noreturn]] void Fail(const char* call)
{
    throw std::runtime_error(std::string(call) + " failed, error " + std::to_string(GetLastError()));
}

bool IsFolder(const WideString& path)
{
    DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool IsWine()
{
    HMODULE ntdll = GetModuleHandleW(TEXT("ntdll.dll"));
    return ntdll && GetProcAddress(ntdll, "wine_get_version");
}

void RemoveTree(const WideString& folder);

// Removes everything inside the folder, keeping the folder.
void EmptyFolder(const WideString& folder)
{
    WideString pattern = folder;
    pattern.Append(folder[folder.GetLength() - 1] == TEXT('\\') ? TEXT("*") : TEXT("\\*"));
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
}

void RemoveTree(const WideString& folder)
{
    EmptyFolder(folder);
    RemoveDirectoryW(folder);
}
} // namespace

ManagedDrive::ManagedDrive(WCHAR letter) : m_letter(letter)
{
    WCHAR temp[MAX_PATH];
    if (!GetTempPathW(MAX_PATH, temp))
        Fail("GetTempPathW");
    // A freshly booted Wine prefix names a temporary folder it has not made yet.
    CreateDirectoryW(temp, nullptr);
    WCHAR name[64];
    wsprintfW(name, TEXT("velmount-drive-%lu-%lu"), GetCurrentProcessId(), GetTickCount());
    m_backing = temp;
    m_backing.Append(name);
    if (!CreateDirectoryW(m_backing, nullptr))
        Fail("CreateDirectoryW");
    WCHAR device[] = {letter, TEXT(':'), 0};
    bool defined = DefineDosDeviceW(0, device, m_backing) != FALSE;
    if (defined && IsFolder(Path(TEXT(""))))
        return;

    // Wine opens files through the drive letters of its prefix only (a definition made here names nothing, or
    // fails for a letter the prefix has); its runner maps
    // the letter to a folder of the build instead (cmake/wine-run). That folder is never a user's drive, so
    // it may be emptied; on Windows a letter that is already taken is never touched.
    if (defined)
        DefineDosDeviceW(DDD_REMOVE_DEFINITION | DDD_EXACT_MATCH_ON_REMOVE, device, m_backing);
    RemoveDirectoryW(m_backing);
    m_backing = WideString();
    if (!IsWine() || !IsFolder(Path(TEXT(""))))
        throw std::runtime_error("the test drive letter cannot be mapped");
    EmptyFolder(Path(TEXT("")));
}

ManagedDrive::~ManagedDrive()
{
    if (m_backing.IsEmpty())
    {
        EmptyFolder(Path(TEXT("")));
        return;
    }
    WCHAR device[] = {m_letter, TEXT(':'), 0};
    DefineDosDeviceW(DDD_REMOVE_DEFINITION | DDD_EXACT_MATCH_ON_REMOVE, device, m_backing);
    EmptyFolder(m_backing);
    RemoveDirectoryW(m_backing);
}
} // namespace TestSupport
#endif
