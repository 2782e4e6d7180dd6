// The context menu at the platform's edge: read the menu and the object into a MenuRequest, let the plan
// decide, apply the plan to the menu in order, and put the chooser's question when the plan asks for it.
#include "extension/Chooser.h"
#include "extension/CopyMoveExtension.h"
#include "extension/MenuPlan.h"
#include "foundation/UnitSearch.h"

namespace
{
const UINT SHELL_COPY_COMMAND = 1;
const UINT SHELL_MOVE_COMMAND = 2;

// The items of a selection are nearly always siblings. An item whose folder is, letter for letter, that of an
// item already found on the drive gets the same answer from the cache; it is answered without the copies and
// the lookup, which were most of a large selection's menu.
class CheckedFolder
{
public:
    // The path's last backslash is where the remembered folder ends.
    bool Holds(const WideString& path) const noexcept
    {
        const int folder = m_folder.GetLength();
        if (!m_set || path.GetLength() <= folder)
            return false;
        const WCHAR* text = path.GetString();
        if (text[folder] != TEXT('\\') || !SameUnits(text, m_folder.GetString(), static_cast<size_t>(folder)))
            return false;
        return !FindUnit(reinterpret_cast<const BYTE*>(text + folder + 1),
                         reinterpret_cast<const BYTE*>(text + path.GetLength()), TEXT('\\'));
    }
    void Remember(const WideString& path)
    {
        const int length = LastBackslash(path);
        m_set = length >= 0;
        m_folder = m_set ? path.Left(length) : WideString();
    }

private:
    WideString m_folder;
    bool m_set = false;
};

// Does the menu hold the file manager's command `id`, and is it the default?
bool ProbeShellCommand(HMENU hmenu, UINT id, bool& isDefault)
{
    MENUITEMINFOW info{};
    info.cbSize = sizeof(info);
    info.fMask = MIIM_STATE;
    if (!GetMenuItemInfoW(hmenu, id, FALSE, &info))
        return false;
    isDefault = (info.fState & MFS_DEFAULT) != 0;
    return true;
}

// The entries above the insertion point, for the FMI caption scan. A position the menu refuses is left out.
void ReadExistingItems(HMENU hmenu, UINT indexMenu, std::vector<ExistingMenuEntry>& entries)
{
    // Positions past the menu's end hold nothing: the count bounds the walk, whatever indexMenu says (and the
    // plan's caption scan walks only the entries read here).
    int count = GetMenuItemCount(hmenu);
    UINT end =
        count < 0 ? indexMenu : (static_cast<UINT>(count) < indexMenu ? static_cast<UINT>(count) : indexMenu);
    for (UINT position = 0; position < end; ++position)
    {
        MENUITEMINFOW info{};
        info.cbSize = sizeof(info);
        info.fMask = MIIM_ID;
        if (!GetMenuItemInfoW(hmenu, position, TRUE, &info))
            continue;
        WCHAR text[MENU_TEXT_CAPACITY] = {};
        GetMenuStringW(hmenu, position, text, MENU_TEXT_CAPACITY, MF_BYPOSITION);
        entries.push_back(ExistingMenuEntry{position, info.wID, WideString(text)});
    }
}

void ApplySteps(HMENU hmenu, const MenuPlan& plan, HBITMAP bitmap)
{
    for (const MenuStep& step : plan.steps)
    {
        if (step.kind == MenuStepKind::Separator)
        {
            InsertMenuW(hmenu, step.position, MF_BYPOSITION | MF_SEPARATOR, 0, nullptr);
            continue;
        }
        InsertMenuW(hmenu, step.position, MF_BYPOSITION, step.commandId, step.caption);
        if (bitmap)
            SetMenuItemBitmaps(hmenu, step.position, MF_BYPOSITION, bitmap, bitmap);
    }
}
} // namespace

HRESULT CVelmountCopyMoveExtension::QueryContextMenu(HMENU hmenu, UINT indexMenu, UINT idCmdFirst, UINT,
                                                     UINT uFlags)
{
    return ComWall(
        [&]() -> HRESULT
        {
            OutputDebugStringW(TEXT("Velmount Copy Extension : QueryContextMenu"));
            if (uFlags & CMF_DEFAULTONLY)
                return 0;
            OutputDebugStringW(TEXT("Velmount Copy Extension : GetDefaultMenu"));

            m_shellDefaultItem = 0;
            m_shellItemMask = 0;
            if (hmenu && !m_backgroundContext)
            {
                bool isDefault = false;
                if (ProbeShellCommand(hmenu, SHELL_COPY_COMMAND, isDefault))
                {
                    m_shellItemMask |= 1;
                    if (isDefault)
                        m_shellDefaultItem = 1;
                }
                if (ProbeShellCommand(hmenu, SHELL_MOVE_COMMAND, isDefault))
                {
                    m_shellItemMask |= 2;
                    if (isDefault)
                        m_shellDefaultItem = 2;
                }
            }

            // The FMI items are gathered before anything else is decided, so they stay parsed even when a
            // later step adds nothing.
            LONG isRootFolder = 0;
            LONG customCount = 0;
            if (m_itemContext)
            {
                if (m_selectedFiles.GetCount() == 1 && PathIsDirectoryW(m_selectedFiles.GetHead()))
                {
                    // A folder's own marker: without one nothing is added, whatever its parent is.
                    DriveInfo* own = ReadDriveMarker(m_selectedFiles.GetHead());
                    if (!own)
                        return 0;
                    isRootFolder = own->isRoot;
                    customCount = ParseCustomMenuItems(own->menuItemsText, m_customItems);
                }
            }
            else if (m_backgroundContext)
            {
                if (!m_targetDrive)
                    return 0;
                isRootFolder = m_targetDrive->isRoot;
                customCount = ParseCustomMenuItems(m_targetDrive->menuItemsText, m_customItems);
            }

            MenuRequest request;
            request.indexMenu = indexMenu;
            request.idCmdFirst = idCmdFirst;
            request.m_shellItemMask = m_shellItemMask;
            request.m_shellDefaultItem = m_shellDefaultItem;
            request.m_dropEffect = m_dropEffect;
            request.m_keyState = m_keyState;
            request.m_itemContext = m_itemContext;
            request.m_backgroundContext = m_backgroundContext;
            request.m_useApi = m_useApi;
            request.customCount = customCount;
            request.isRootFolder = isRootFolder;

            // Hopeless drops end here, before any selected path touches the disk.
            const DefaultChoice decision = DecideDefaultChoice(request);
            if (!decision.proceed)
                return 0;
            if (ValidateSelection() != S_OK)
                return 0;

            request.m_sameDrive = m_sameDrive;
            request.target.key = m_targetDrive->key;
            request.target.ci = m_targetDrive->ci;
            request.target.cu = m_targetDrive->cu;
            request.target.mi = m_targetDrive->mi;
            request.target.di = m_targetDrive->di;
            request.target.defaultAction = m_targetDrive->defaultAction;
            request.target.mountPath = m_targetDrive->mountPath;
            for (POSITION position = m_customItems.GetHeadPosition(); position;)
                request.customItems.push_back(*m_customItems.GetNext(position));
            if (hmenu && !request.customItems.empty())
                ReadExistingItems(hmenu, indexMenu, request.existingItems);

            const MenuPlan plan = BuildMenuPlan(request, decision.defaultChoice, decision.mayPrompt);
            for (const MenuCommandEntry& command : plan.commands)
                AddMenuCommand(m_menuCommands, command.m_position, command.m_operation, command.m_key);
            ApplySteps(hmenu, plan, m_menuBitmap);
            if (plan.quickCopyOffset)
                m_quickCopyPos = *plan.quickCopyOffset;
            if (plan.quickMoveOffset)
                m_quickMovePos = *plan.quickMoveOffset;
            if (plan.quickDeleteOffset)
                m_quickDeletePos = *plan.quickDeleteOffset;

            // The default item is how the chooser's answer reaches the file manager; the call blocks until
            // the user has answered, and only then does the menu show.
            m_chooserCancelled = 0;
            std::optional<UINT> defaultItem = plan.defaultItem;
            if (plan.chooserOperation)
            {
                CopyMoveChooserDialog chooser(plan.chooserOperation, GetForegroundWindow());
                const LONG answer = ShowChooser(chooser, g_moduleInstance);
                const ChooserResolution resolution =
                    ResolveChooser(plan, ChooserOutcome{answer, chooser.m_choice});
                defaultItem = resolution.defaultItem;
                m_chooserCancelled = resolution.chooserCancelled;
            }
            if (defaultItem)
                SetMenuDefaultItem(hmenu, *defaultItem, 0);
            return static_cast<HRESULT>(plan.result);
        });
}

HRESULT CVelmountCopyMoveExtension::ValidateSelection()
{
    if (!m_itemContext)
    {
        // A drop from another drive is valid: it only clears m_sameDrive.
        CheckedFolder checked;
        for (POSITION position = m_selectedFiles.GetHeadPosition(); position;)
        {
            const WideString& path = m_selectedFiles.GetNext(position);
            if (checked.Holds(path))
                continue;
            if (!IsOnSameDrive(path, m_targetDrive))
            {
                m_sameDrive = 0;
                break;
            }
            m_sameDrive = 1;
            checked.Remember(path);
        }
        return m_targetDrive ? S_OK : E_INVALIDARG;
    }

    // Items get a menu only when they lie wholly on one managed drive: the first item's.
    if (m_selectedFiles.IsEmpty())
        return E_INVALIDARG;
    CheckedFolder checked;
    for (POSITION position = m_selectedFiles.GetHeadPosition(); position;)
    {
        const WideString& path = m_selectedFiles.GetNext(position);
        if (checked.Holds(path))
            continue;
        if (!m_targetDrive)
        {
            DriveInfo* record = nullptr;
            if (!FindDriveForItem(path, record))
                return E_INVALIDARG;
            m_targetDrive = record;
        }
        else if (!IsOnSameDrive(path, m_targetDrive))
            return E_INVALIDARG;
        checked.Remember(path);
    }
    m_sameDrive = 1;
    return S_OK;
}

// Neither verbs nor help texts are offered.
HRESULT CVelmountCopyMoveExtension::GetCommandString(UINT_PTR, UINT, UINT*, CHAR*, UINT)
{
    return E_NOTIMPL;
}

// No item is owner-drawn, so no menu message is ours.
HRESULT CVelmountCopyMoveExtension::HandleMenuMsg(UINT, WPARAM, LPARAM)
{
    return S_FALSE;
}
