#include "extension/CopyMoveExtension.h"
#include "extension/DropFiles.h"
#include "extension/MenuPlan.h"

namespace
{
// Unlocks and releases a CF_HDROP medium on every way out, the raised ones included.
class LockedMedium
{
public:
    explicit LockedMedium(STGMEDIUM& medium) noexcept : m_medium(medium) {}
    ~LockedMedium()
    {
        if (m_locked)
            GlobalUnlock(m_medium.hGlobal);
        ReleaseStgMedium(&m_medium);
    }
    LockedMedium(const LockedMedium&) = delete;
    LockedMedium& operator=(const LockedMedium&) = delete;
    void* Lock() noexcept
    {
        void* memory = GlobalLock(m_medium.hGlobal);
        m_locked = memory != nullptr;
        return memory;
    }

private:
    STGMEDIUM& m_medium;
    bool m_locked = false;
};

FORMATETC HGlobalFormat(CLIPFORMAT format)
{
    FORMATETC request = {format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    return request;
}

bool KeyIsDown(SHORT state)
{
    return state < 0;
}
} // namespace

CVelmountCopyMoveExtension::CVelmountCopyMoveExtension() noexcept
    : m_targetDrive(nullptr), m_dropEffect(0), m_shellDefaultItem(0), m_shellItemMask(0), m_keyState(0),
      m_quickCopyPos(-1), m_quickMovePos(-1), m_quickDeletePos(-1), m_chooserCancelled(0), m_itemContext(0),
      m_backgroundContext(0), m_useApi(0), m_sameDrive(0), m_sessionId(0), m_processId(0),
      m_menuBitmap(nullptr)
{
}

CVelmountCopyMoveExtension::~CVelmountCopyMoveExtension()
{
    FinalRelease();
}

void CVelmountCopyMoveExtension::FinalRelease() noexcept
{
    // The records: those in the cache and those that never got there or were replaced.
    for (POSITION position = m_driveRecords.GetHeadPosition(); position;)
        delete m_driveRecords.GetNext(position);
    m_driveRecords.RemoveAll();
    m_targetDrive = nullptr;
    m_driveCache.RemoveAll();

    if (m_menuBitmap)
    {
        DeleteObject(m_menuBitmap);
        m_menuBitmap = nullptr;
    }
    for (POSITION position = m_menuCommands.GetHeadPosition(); position;)
        delete m_menuCommands.GetNext(position);
    m_menuCommands.RemoveAll();
    for (POSITION position = m_customItems.GetHeadPosition(); position;)
        delete m_customItems.GetNext(position);
    m_customItems.RemoveAll();
}

HRESULT CVelmountCopyMoveExtension::Initialize(PCIDLIST_ABSOLUTE pidlFolder, IDataObject* pdtobj, HKEY)
{
    // A failure raised below (a marker that can't be completed, no memory) means the shell can't use this
    // handler here, as for any folder that isn't managed.
    try
    {
        return InitializeSelection(pidlFolder, pdtobj);
    }
    catch (...)
    {
        return E_INVALIDARG;
    }
}

HRESULT CVelmountCopyMoveExtension::InitializeSelection(PCIDLIST_ABSOLUTE pidlFolder, IDataObject* pdtobj)
{
    WCHAR sidText[SID_BUFFER_CAPACITY] = {};
    OutputDebugStringW(TEXT("Velmount Copy Extension : Initialize 2019.12.14.1"));
    if (!GetUserSidString(sidText))
        return E_INVALIDARG;

    // A second Initialize takes a new bitmap; the old one would otherwise be lost.
    HBITMAP bitmap =
        static_cast<HBITMAP>(LoadImageW(g_moduleInstance, MAKEINTRESOURCEW(IDB_MENU_BITMAP), IMAGE_BITMAP,
                                        GetSystemMetrics(SM_CXSMICON), GetSystemMetrics(SM_CYSMICON), 0));
    if (m_menuBitmap)
        DeleteObject(m_menuBitmap);
    m_menuBitmap = bitmap;

    m_processId = GetCurrentProcessId();
    DWORD session = 0;
    ProcessIdToSessionId(m_processId, &session);
    m_sessionId = session;

    if (!pidlFolder)
    {
        m_itemContext = 1;
        m_useApi = ReadUseValue(VELMOUNT_EXTENSIONS_KEY, sidText) != 0 ? 1 : 0;
    }
    else
    {
        if (ReadUseValue(VELMOUNT_EXTENSIONS_KEY, sidText) != 0)
            m_useApi = 1;
        else
        {
            m_useApi = 0;
            if (pdtobj)
                return E_INVALIDARG;
        }

        WCHAR folder[FOLDER_PATH_CAPACITY] = {};
        if (!SHGetPathFromIDListW(pidlFolder, folder))
            return E_INVALIDARG;
        m_targetFolder = folder;

        try
        {
            m_targetDrive = ReadDriveMarker(m_targetFolder);
        }
        catch (...)
        {
            // The read released what it held; the folder counts as one without a usable marker.
            m_targetDrive = nullptr;
            throw;
        }
        if (!m_targetDrive)
            return E_INVALIDARG;

        m_dropEffect = GetDropEffect(pdtobj);
        m_keyState = GetModifierKeys();
    }

    if (pdtobj)
    {
        FORMATETC request = HGlobalFormat(CF_HDROP);
        STGMEDIUM medium = {};
        if (FAILED(pdtobj->GetData(&request, &medium)))
            return E_INVALIDARG;
        LockedMedium hold(medium);
        const BYTE* block = static_cast<const BYTE*>(hold.Lock());
        if (!block)
            return E_INVALIDARG;
        // One pass over the block instead of DragQueryFileW per index, which walks the list from its start
        // each time: a selection of 100,000 files took minutes that way. A block that doesn't hold a whole
        // list counts as no list at all.
        if (!ReadDropFiles(block, GlobalSize(medium.hGlobal), m_selectedFiles))
            return E_INVALIDARG;
    }
    else if (m_targetDrive)
    {
        m_backgroundContext = 1;
    }

    if (!m_selectedFiles.IsEmpty())
        return S_OK;
    return m_backgroundContext ? S_OK : E_FAIL;
}

bool CVelmountCopyMoveExtension::GetUserSidString(LPWSTR text)
{
    text[0] = 0;
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
    {
        OutputDebugStringW(TEXT("OpenProcessToken failed\n"));
        return false;
    }
    DWORD size = 0;
    if (!GetTokenInformation(token, TokenUser, nullptr, 0, &size) &&
        GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    {
        OutputDebugStringW(TEXT("GetTokenInformation 1 failed\n"));
        CloseHandle(token);
        return false;
    }
    BYTE* record = static_cast<BYTE*>(HeapAlloc(GetProcessHeap(), 0, size ? size : 1));
    bool found = false;
    if (record && GetTokenInformation(token, TokenUser, record, size, &size))
    {
        LPWSTR sidText = nullptr;
        if (ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(record)->User.Sid, &sidText))
        {
            UINT length = 0;
            while (length + 1 < SID_TEXT_LIMIT && sidText[length])
            {
                text[length] = sidText[length];
                ++length;
            }
            text[length] = 0;
            LocalFree(sidText);
            found = true;
        }
    }
    if (record)
        HeapFree(GetProcessHeap(), 0, record);
    CloseHandle(token);
    return found;
}

DWORD CVelmountCopyMoveExtension::ReadUseValue(LPCWSTR subKey, LPCWSTR sidText)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, subKey, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return 0;
    DWORD value = 0;
    DWORD type = 0;
    DWORD size = sizeof(value);
    if (RegGetValueW(key, sidText, TEXT("Use"), RRF_RT_REG_DWORD, &type, &value, &size) != ERROR_SUCCESS)
        value = 0;
    RegCloseKey(key);
    return value;
}

LONG CVelmountCopyMoveExtension::GetDropEffect(IDataObject* pdtobj)
{
    if (!pdtobj)
        return 0;
    // Which format to ask for is decided by the system clipboard; the value comes from the data object.
    UINT format = RegisterClipboardFormatW(TEXT("Preferred DropEffect"));
    if (format && IsClipboardFormatAvailable(format))
    {
        FORMATETC request = HGlobalFormat(static_cast<CLIPFORMAT>(format));
        if (pdtobj->QueryGetData(&request) != S_OK)
            return 0;
    }
    else
    {
        format = RegisterClipboardFormatW(TEXT("Performed DropEffect"));
        if (!format || !IsClipboardFormatAvailable(format))
            return 0;
        FORMATETC request = HGlobalFormat(static_cast<CLIPFORMAT>(format));
        if (pdtobj->QueryGetData(&request) != S_OK)
            return 0;
    }

    DWORD value = 0;
    FORMATETC request = HGlobalFormat(static_cast<CLIPFORMAT>(format));
    STGMEDIUM medium = {};
    if (SUCCEEDED(pdtobj->GetData(&request, &medium)))
    {
        if (medium.hGlobal && GlobalSize(medium.hGlobal) >= sizeof(DWORD))
        {
            if (const DWORD* data = static_cast<const DWORD*>(GlobalLock(medium.hGlobal)))
            {
                value = *data;
                GlobalUnlock(medium.hGlobal);
            }
        }
        ReleaseStgMedium(&medium);
    }
    if (value & 1)
        return 1;
    if (value & 2)
        return 2;
    return static_cast<LONG>(value & 4);
}

LONG CVelmountCopyMoveExtension::GetModifierKeys()
{
    LONG keys = 0;
    if (KeyIsDown(GetKeyState(VK_CONTROL)))
        keys |= MODIFIER_CONTROL;
    if (KeyIsDown(GetKeyState(VK_SHIFT)))
        keys |= MODIFIER_SHIFT;
    if (KeyIsDown(GetKeyState(VK_DELETE)))
        keys |= MODIFIER_DELETE;
    if (KeyIsDown(GetKeyState(VK_MENU)))
        keys |= MODIFIER_ALT;
    if (KeyIsDown(GetAsyncKeyState(VK_LBUTTON)))
        keys |= MODIFIER_LEFT_BUTTON;
    if (KeyIsDown(GetAsyncKeyState(VK_RBUTTON)))
        keys |= MODIFIER_RIGHT_BUTTON;
    return keys;
}
