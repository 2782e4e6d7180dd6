// What the extension adds to a context menu, decided without touching the menu: the edge reads the menu and
// the object into a MenuRequest, these functions compute a MenuPlan, and the edge applies it in order.
#pragma once

#include "foundation/NodeList.h"
#include "foundation/WideString.h"
#include "platform/Win32.h"

#include <optional>
#include <vector>

// Operation codes: what a command does, carried to the service as the request's kind. Codes from a marker's
// FMI text other than these pass through unread.
constexpr LONG OP_QUICK_COPY = 12;
constexpr LONG OP_QUICK_MOVE = 13;
constexpr LONG OP_QUICK_DELETE = 14;
constexpr LONG OP_QUIET = 51;

// The number recorded for an FMI caption that matched an entry this extension did not insert in the same
// call. The file manager sends a click on such an entry to whoever owns it, never to us, and a verb is at
// most 16 bits wide: the record documents that the caption was claimed and can never shadow one of our
// offsets (the first record holding a verb's number wins).
constexpr UINT FOREIGN_MENU_ENTRY = 0xFFFFFFFFu;

// Room that GetMenuStringW is given for a caption, terminator included.
constexpr int MENU_TEXT_CAPACITY = 260;

// One parsed FMI line: caption (never empty) and operation code (never 0).
struct CustomMenuItem
{
    WideString m_text;
    LONG m_operation = 0;
};

// One command that InvokeCommand can resolve: the number it will be found under, what it does, which drive.
struct MenuCommandEntry
{
    UINT m_position = 0;
    LONG m_operation = 0;
    WideString m_key;
};

// An entry already in the menu below the insertion point, as GetMenuItemInfoW and GetMenuStringW show it.
struct ExistingMenuEntry
{
    UINT position = 0;
    UINT wID = 0;
    WideString text;
};

// The parts of the target drive's record that decide the menu.
struct MenuTarget
{
    WideString key;
    LONG ci = 0;
    LONG cu = 0;
    LONG mi = 0;
    LONG di = 0;
    LONG defaultAction = 0;
    WideString mountPath;
};

struct MenuRequest
{
    UINT indexMenu = 0;
    UINT idCmdFirst = 0;
    std::vector<ExistingMenuEntry> existingItems;
    LONG m_shellItemMask = 0;
    LONG m_shellDefaultItem = 0;
    LONG m_dropEffect = 0;
    LONG m_keyState = 0;
    LONG m_itemContext = 0;
    LONG m_backgroundContext = 0;
    LONG m_useApi = 0;
    LONG m_sameDrive = 0;
    std::vector<CustomMenuItem> customItems;
    LONG customCount = 0;
    LONG isRootFolder = 0;
    MenuTarget target;
};

struct DefaultChoice
{
    bool proceed = false;
    LONG defaultChoice = 0; // the file manager's command a drop would run: 0 none, 1 copy, 2 move
    LONG mayPrompt = 1;
};

enum class MenuStepKind
{
    Separator,
    Item
};

// One insertion. A separator is inserted with command id 0 but still uses up `commandId`.
struct MenuStep
{
    UINT position = 0;
    MenuStepKind kind = MenuStepKind::Separator;
    UINT commandId = 0;
    WideString caption;
};

struct MenuPlan
{
    std::vector<MenuStep> steps;
    std::vector<MenuCommandEntry> commands;
    std::optional<LONG> quickCopyOffset;
    std::optional<LONG> quickMoveOffset;
    std::optional<LONG> quickDeleteOffset;
    // The command id of the Quick item named by the final defaultChoice, when that item stands in the menu.
    std::optional<UINT> quickItem;
    // What SetMenuDefaultItem gets when no chooser is raised.
    std::optional<UINT> defaultItem;
    // Non-zero: ask the user with this operation (1 copy, 2 move) before the default is settled.
    UINT chooserOperation = 0;
    UINT result = 0;
};

// The chooser's answer as the dialog reports it: DialogBoxParamW's result and the record's m_choice.
struct ChooserOutcome
{
    LONG dialogResult = 0;
    UINT choice = 0;
};

struct ChooserResolution
{
    std::optional<UINT> defaultItem;
    LONG chooserCancelled = 0;
};

DefaultChoice DecideDefaultChoice(const MenuRequest& request);
MenuPlan BuildMenuPlan(const MenuRequest& request, LONG defaultChoice, LONG mayPrompt);
ChooserResolution ResolveChooser(const MenuPlan& plan, const ChooserOutcome& outcome);

// Appends the items of one FMI text to `items`; returns the length of the whole list.
int ParseCustomMenuItems(const WideString& menuItemsText, NodeList<CustomMenuItem*>& items);
// Appends a new record with its own copy of the key.
void AddMenuCommand(NodeList<MenuCommandEntry*>& commands, UINT position, LONG operation,
                    const WideString& key);
