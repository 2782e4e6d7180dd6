// A temporary managed drive: a drive letter backed by a fresh, empty folder, where tests lay out folders,
// files and marker files through the ordinary file calls. Host: the stand-in's drive mapping. Windows and
// Wine: a DOS device defined for the letter (DefineDosDeviceW), as `subst` does.
#pragma once

#include "foundation/WideString.h"
#include "platform/Win32.h"

namespace TestSupport
{
class ManagedDrive
{
public:
    explicit ManagedDrive(WCHAR letter = TEXT('V'));
    ~ManagedDrive();
    ManagedDrive(const ManagedDrive&) = delete;
    ManagedDrive& operator=(const ManagedDrive&) = delete;

    // "V:\" followed by the relative path.
    WideString Path(LPCWSTR relative) const;
    // Creates the folder and any missing folder above it.
    void MakeFolder(LPCWSTR relative) const;
    // Creates or replaces a file with exactly these bytes (creating its folders).
    void WriteFile(LPCWSTR relative, const void* bytes, DWORD size) const;
    // Writes the marker of a folder ("" for the top): the text as UTF-16LE, no BOM, no terminator.
    void WriteMarker(LPCWSTR folderRelative, LPCWSTR text) const;
    void DeleteFile(LPCWSTR relative) const;

private:
    WCHAR m_letter;
    WideString m_backing; // where the drive's folder lies, in the platform's own form
};
} // namespace TestSupport
