#include "extension/DriveMarker.h"
#include "extension/CopyMoveExtension.h"

#include <memory>

namespace
{
// A flag is set by a value whose first character is 'T' ("T", "True"); nothing clears it again.
void SetFlagFrom(const WideString& value, LONG& flag)
{
    if (value[0] == TEXT('T'))
        flag = 1;
}

// Closes the marker's handle on every way out of a read, the raised ones included.
class MarkerHandle
{
public:
    explicit MarkerHandle(HANDLE handle) noexcept : m_handle(handle) {}
    ~MarkerHandle() { Close(); }
    MarkerHandle(const MarkerHandle&) = delete;
    MarkerHandle& operator=(const MarkerHandle&) = delete;
    HANDLE Get() const noexcept { return m_handle; }
    void Close() noexcept
    {
        if (m_handle != INVALID_HANDLE_VALUE)
            CloseHandle(m_handle);
        m_handle = INVALID_HANDLE_VALUE;
    }

private:
    HANDLE m_handle;
};
} // namespace

DriveInfo* ParseDriveMarker(LPCWSTR folderPath, WideString markerText)
{
    std::unique_ptr<DriveInfo> record(new DriveInfo);
    record->folderPath = folderPath;
    int position = 0;
    for (WideString token = markerText.Tokenize(TEXT("|"), position); !token.IsEmpty();
         token = markerText.Tokenize(TEXT("|"), position))
    {
        int equals = -1;
        for (int i = 0; i < token.GetLength(); ++i)
        {
            if (token[i] == TEXT('='))
            {
                equals = i;
                break;
            }
        }
        // No '=', or '=' first: no key. Nothing behind '=': no value. Either way the token is skipped.
        if (equals <= 0)
            continue;
        WideString key = token.Left(equals);
        WideString value = token.Mid(equals + 1);
        if (value.IsEmpty())
            continue;
        if (key == TEXT("K"))
            record->key = value;
        else if (key == TEXT("CI"))
            SetFlagFrom(value, record->ci);
        else if (key == TEXT("CU"))
            SetFlagFrom(value, record->cu);
        else if (key == TEXT("MI"))
            SetFlagFrom(value, record->mi);
        else if (key == TEXT("DI"))
            SetFlagFrom(value, record->di);
        else if (key == TEXT("DA"))
            record->defaultAction = _wtoi(value);
        else if (key == TEXT("RM"))
        {
            value.MakeLower();
            record->relativeMarkerPath = value;
        }
        else if (key == TEXT("FMI"))
            record->menuItemsText = value;
    }
    return record.release();
}

int LastBackslash(const WideString& path) noexcept
{
    const WCHAR* text = path.GetString();
    for (int i = path.GetLength(); i-- > 0;)
        if (text[i] == TEXT('\\'))
            return i;
    return -1;
}

WideString FolderOfPath(LPCWSTR path)
{
    WideString folder(path);
    const int lastBackslash = LastBackslash(folder);
    if (lastBackslash < 0)
        AtlThrow(E_INVALIDARG);
    return folder.Left(lastBackslash);
}

DriveInfo* CVelmountCopyMoveExtension::ReadDriveMarker(WideString folderPath)
{
    folderPath.MakeLower();
    WideString markerPath;
    markerPath.Format(DRIVE_MARKER_PATH_FORMAT, folderPath.GetString());

    if (!PathFileExistsW(markerPath))
        return nullptr;
    MarkerHandle file(CreateFileW(markerPath, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, 0, nullptr));
    if (file.Get() == INVALID_HANDLE_VALUE)
        return nullptr;

    // One read into a cleared buffer: an odd byte count thus ends in a unit whose high byte is 0, and the
    // text stops at the first U+0000 or at the buffer's end (4096 units, not 4095).
    WCHAR buffer[DRIVE_MARKER_READ_BYTES / sizeof(WCHAR)] = {};
    DWORD bytesRead = 0;
    if (!ReadFile(file.Get(), buffer, DRIVE_MARKER_READ_BYTES, &bytesRead, nullptr))
        return nullptr;
    int units = 0;
    while (units < static_cast<int>(DRIVE_MARKER_READ_BYTES / sizeof(WCHAR)) && buffer[units] != 0)
        ++units;

    std::unique_ptr<DriveInfo> record(ParseDriveMarker(folderPath, WideString(buffer, units)));

    // A folder of another drive than the target's is returned as read: not completed and not cached.
    if (m_targetDrive && m_targetDrive->key != record->key)
    {
        m_driveRecords.AddTail(record.get());
        return record.release();
    }

    markerPath.MakeLower();
    int markerLength = markerPath.GetLength();
    int relativeLength = record->relativeMarkerPath.GetLength();
    record->mountPath =
        relativeLength > markerLength ? WideString() : markerPath.Left(markerLength - relativeLength);
    WideString relativeFolder = FolderOfPath(record->relativeMarkerPath);
    record->isRoot = relativeFolder.IsEmpty() || relativeFolder == TEXT("\\") ? 1 : 0;

    m_driveRecords.AddTail(record.get());
    DriveInfo* completed = record.release();
    m_driveCache.SetAt(folderPath, completed);
    return completed;
}

bool CVelmountCopyMoveExtension::FindDriveForItem(LPCWSTR itemPath, DriveInfo*& record)
{
    WideString folder = FolderOfPath(itemPath);
    WideString cacheKey = folder;
    cacheKey.MakeLower();
    if (m_driveCache.Lookup(cacheKey, record))
        return true;
    record = ReadDriveMarker(folder);
    return record != nullptr;
}

bool CVelmountCopyMoveExtension::IsOnSameDrive(LPCWSTR itemPath, DriveInfo* drive)
{
    if (!drive)
        return false;
    WideString folder = FolderOfPath(itemPath);
    WideString cacheKey = folder;
    cacheKey.MakeLower();
    DriveInfo* cached = nullptr;
    if (m_driveCache.Lookup(cacheKey, cached) && cached->key == drive->key)
        return true;
    DriveInfo* read = ReadDriveMarker(folder);
    return read && read->key == drive->key;
}
