// The object the file manager creates for one context menu or drop menu. It captures the selection
// (Initialize), recognises managed drives (DriveMarker.cpp), builds the menu (MenuEdge.cpp) and turns a
// chosen command into a job (Invocation.cpp). Reference counting and interface lookup come from the COM
// wrapper around it; this class holds the behaviour and leaves IUnknown's three methods to that wrapper.
#pragma once

#include "extension/DriveMarker.h"
#include "foundation/NodeList.h"
#include "foundation/WideString.h"
#include "platform/Win32.h"

struct MenuCommandEntry;
struct CustomMenuItem;

// The library's instance handle as the entry function last got it; resources load through it.
extern HINSTANCE g_moduleInstance;

// Bitmap resource put beside the extension's menu items.
constexpr WORD IDB_MENU_BITMAP = 205;
// Where the per-user setting lives: HKLM\<this>\<user SID>, value "Use".
#define VELMOUNT_EXTENSIONS_KEY TEXT("Software\\Morvenlith\\Velmount\\Extensions")
// Path buffers: a dropped path (terminator included), the folder of pidlFolder, the SID text.
constexpr UINT SELECTED_PATH_CAPACITY = 260;
constexpr UINT FOLDER_PATH_CAPACITY = 8192 / sizeof(WCHAR);
constexpr UINT SID_BUFFER_CAPACITY = 256;
constexpr UINT SID_TEXT_LIMIT = 64;

// GetModifierKeys bits.
constexpr LONG MODIFIER_CONTROL = 0x01;
constexpr LONG MODIFIER_SHIFT = 0x02;
constexpr LONG MODIFIER_ALT = 0x04;
constexpr LONG MODIFIER_DELETE = 0x08;
constexpr LONG MODIFIER_LEFT_BUTTON = 0x10;
constexpr LONG MODIFIER_RIGHT_BUTTON = 0x20;

class CVelmountCopyMoveExtension : public IShellExtInit, public IContextMenu2
{
public:
    CVelmountCopyMoveExtension() noexcept;
    virtual ~CVelmountCopyMoveExtension();
    CVelmountCopyMoveExtension(const CVelmountCopyMoveExtension&) = delete;
    CVelmountCopyMoveExtension& operator=(const CVelmountCopyMoveExtension&) = delete;

    // Gives back what the object holds: drive records, the cache, the bitmap, the menu records. Run by the
    // wrapper's destructor before the members go; running it again finds nothing left to release.
    void FinalRelease() noexcept;

    // IShellExtInit
    HRESULT STDMETHODCALLTYPE Initialize(PCIDLIST_ABSOLUTE pidlFolder, IDataObject* pdtobj,
                                         HKEY hkeyProgID) override;

    // IContextMenu / IContextMenu2
    HRESULT STDMETHODCALLTYPE QueryContextMenu(HMENU hmenu, UINT indexMenu, UINT idCmdFirst, UINT idCmdLast,
                                               UINT uFlags) override;
    HRESULT STDMETHODCALLTYPE InvokeCommand(CMINVOKECOMMANDINFO* pici) override;
    HRESULT STDMETHODCALLTYPE GetCommandString(UINT_PTR idCmd, UINT uType, UINT* pReserved, CHAR* pszName,
                                               UINT cchMax) override;
    HRESULT STDMETHODCALLTYPE HandleMenuMsg(UINT uMsg, WPARAM wParam, LPARAM lParam) override;

    // Selection capture helpers.
    static bool GetUserSidString(LPWSTR text);
    static DWORD ReadUseValue(LPCWSTR subKey, LPCWSTR sidText);
    static LONG GetDropEffect(IDataObject* pdtobj);
    static LONG GetModifierKeys();

    // Drive recognition (DriveMarker.cpp). Raised failures travel up to the COM method that called them.
    DriveInfo* ReadDriveMarker(WideString folderPath);
    bool FindDriveForItem(LPCWSTR itemPath, DriveInfo*& record);
    bool IsOnSameDrive(LPCWSTR itemPath, DriveInfo* drive);

    // The selection check before a menu is built: settles m_sameDrive and, for items, m_targetDrive.
    HRESULT ValidateSelection();

    NodeList<WideString> m_selectedFiles;
    DriveCache m_driveCache;
    WideString m_targetFolder;
    DriveInfo* m_targetDrive;
    LONG m_dropEffect;
    LONG m_shellDefaultItem;
    LONG m_shellItemMask;
    LONG m_keyState;
    LONG m_quickCopyPos;
    LONG m_quickMovePos;
    LONG m_quickDeletePos;
    LONG m_chooserCancelled;
    LONG m_itemContext;
    LONG m_backgroundContext;
    LONG m_useApi;
    LONG m_sameDrive;
    DWORD m_sessionId;
    DWORD m_processId;
    HBITMAP m_menuBitmap;
    NodeList<MenuCommandEntry*> m_menuCommands;
    NodeList<CustomMenuItem*> m_customItems;

private:
    HRESULT InitializeSelection(PCIDLIST_ABSOLUTE pidlFolder, IDataObject* pdtobj);

    // Every record that ReadDriveMarker made, cached or not: a replaced or uncached record stays valid for
    // m_targetDrive and the callers until the object ends.
    NodeList<DriveInfo*> m_driveRecords;
};
