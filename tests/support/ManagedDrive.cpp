#include "tests/support/ManagedDrive.h"

#include <stdexcept>
#include <string>

namespace TestSupport
{
WideString ManagedDrive::Path(LPCWSTR relative) const
{
    WCHAR root[] = {m_letter, TEXT(':'), TEXT('\\'), 0};
    WideString path(root);
    path.Append(relative);
    return path;
}

void ManagedDrive::MakeFolder(LPCWSTR relative) const
{
    WideString path = Path(relative);
    for (int i = 3; i <= path.GetLength(); ++i)
    {
        if (i == path.GetLength() || path[i] == TEXT('\\'))
        {
            WideString level = path.Left(i);
            if (!CreateDirectoryW(level, nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
                throw std::runtime_error(std::string("CreateDirectoryW failed, error ") +
                                         std::to_string(GetLastError()));
        }
    }
}

void ManagedDrive::WriteFile(LPCWSTR relative, const void* bytes, DWORD size) const
{
    WideString path = Path(relative);
    int lastBackslash = -1;
    for (int i = 0; i < path.GetLength(); ++i)
        if (path[i] == TEXT('\\'))
            lastBackslash = i;
    if (lastBackslash > 2)
        MakeFolder(path.Mid(3, lastBackslash - 3));
    HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        throw std::runtime_error(std::string("CreateFileW failed, error ") + std::to_string(GetLastError()));
    DWORD written = 0;
    BOOL ok = size == 0 || ::WriteFile(file, bytes, size, &written, nullptr);
    CloseHandle(file);
    if (!ok || written != size)
        throw std::runtime_error(std::string("WriteFile failed, error ") + std::to_string(GetLastError()));
}

void ManagedDrive::WriteMarker(LPCWSTR folderRelative, LPCWSTR text) const
{
    WideString relative(folderRelative);
    if (!relative.IsEmpty())
        relative.Append(TEXT("\\"));
    relative.Append(TEXT(".Velmount"));
    WriteFile(relative, text, static_cast<DWORD>(TextLength(text) * sizeof(WCHAR)));
}

void ManagedDrive::DeleteFile(LPCWSTR relative) const
{
    if (!::DeleteFileW(Path(relative)))
        throw std::runtime_error(std::string("DeleteFileW failed, error ") + std::to_string(GetLastError()));
}
} // namespace TestSupport
