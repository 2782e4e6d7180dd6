// The marker file of a managed folder (".Velmount": UTF-16 KEY=VALUE tokens divided by '|') and the record
// that one read of it gives. Reading, caching and the same-drive test are operations of the extension object
// (CopyMoveExtension.h); parsing and the path helper are plain functions.
#pragma once

#include "foundation/BinMap.h"
#include "foundation/WideString.h"
#include "platform/Win32.h"

// What one marker file says about one folder.
struct DriveInfo
{
    WideString folderPath; // the folder whose marker was read, lower-cased
    WideString key;        // K: names the service's pipe; equal keys mean one drive
    LONG ci = 0;           // CI, CU, MI, DI: set by a value starting with 'T', never cleared
    LONG cu = 0;
    LONG mi = 0;
    LONG di = 0;
    LONG defaultAction = 0;        // DA: policy for the menu's default item
    WideString relativeMarkerPath; // RM, lower-cased: the marker's path below the mount
    WideString mountPath;          // worked out on completion: the marker path less the length of RM
    WideString menuItemsText;      // FMI: the service's own menu items, opaque here
    LONG isRoot = 0;               // worked out on completion: the folder is the top of its mount
};

// Lower-cased folder path (as given to ReadDriveMarker) -> record. The object owns the records, not the map.
typedef BinMap<DriveInfo*> DriveCache;

// The marker's name in its folder, and what one read of it may take.
#define DRIVE_MARKER_PATH_FORMAT TEXT("%s\\.Velmount")
constexpr DWORD DRIVE_MARKER_READ_BYTES = 8192;

// A new record from marker text; rejects nothing. Raises only for want of memory.
DriveInfo* ParseDriveMarker(LPCWSTR folderPath, WideString markerText);

// The path up to, not including, its last backslash, in the same case. Raises E_INVALIDARG for a path
// without a backslash.
WideString FolderOfPath(LPCWSTR path);
// Where FolderOfPath cuts: the index of the last backslash, -1 without one.
int LastBackslash(const WideString& path) noexcept;
