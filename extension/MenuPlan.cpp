#include "extension/MenuPlan.h"

#include <memory>

namespace
{
const LONG KEY_CTRL = 0x01;
const LONG KEY_SHIFT = 0x02;

const WCHAR QUICK_COPY_TEXT[] = TEXT("Velmount Quick Copy");
const WCHAR QUICK_MOVE_TEXT[] = TEXT("Velmount Quick Move");
const WCHAR QUICK_DELETE_TEXT[] = TEXT("Velmount Quick Delete");

// Inserts in order; position and command id advance together over every insertion, separators included.
class PlanWriter
{
public:
    PlanWriter(const MenuRequest& request, MenuPlan& plan)
        : m_request(request), m_plan(plan), m_position(request.indexMenu), m_id(request.idCmdFirst)
    {
    }

    LONG Offset() const { return static_cast<LONG>(m_position - m_request.indexMenu); }

    void Separator() { Insert(MenuStepKind::Separator, WideString()); }

    // Records the command under the item's offset, then inserts it.
    LONG Item(const WideString& caption, LONG operation)
    {
        LONG offset = Offset();
        Record(static_cast<UINT>(offset), operation);
        Insert(MenuStepKind::Item, caption);
        return offset;
    }

    void Record(UINT number, LONG operation)
    {
        m_plan.commands.push_back(MenuCommandEntry{number, operation, m_request.target.key});
    }

    // The caption scan over everything above the insertion point: the entries that were there and what this
    // call has inserted, in the order of their positions. Each match gets a record; returns whether anything
    // matched. Below the insertion point only the entries read from the menu can answer, so the walk goes
    // from one of them to the next (at most the menu's count of them), never through every position up to a
    // huge indexMenu.
    bool RecordMatches(const CustomMenuItem& item)
    {
        bool matched = false;
        UINT from = 0;
        while (const ExistingMenuEntry* entry = FirstEntryFrom(from))
        {
            matched |= RecordMatch(item, entry->text, FOREIGN_MENU_ENTRY);
            from = entry->position + 1; // below indexMenu, so no wrap
        }
        for (const MenuStep& step : m_plan.steps) // a separator's caption is empty, as the menu gives it
            matched |= RecordMatch(item, step.caption, step.commandId - m_request.idCmdFirst);
        return matched;
    }

    UINT CommandIdAt(LONG offset) const { return m_request.idCmdFirst + static_cast<UINT>(offset); }
    UINT Used() const { return m_id - m_request.idCmdFirst; }

private:
    void Insert(MenuStepKind kind, const WideString& caption)
    {
        m_plan.steps.push_back(MenuStep{m_position, kind, m_id, caption});
        ++m_position;
        ++m_id;
    }

    // Compares the caption as GetMenuStringW gives it (at most 259 units, empty for a separator).
    bool RecordMatch(const CustomMenuItem& item, const WideString& caption, UINT number)
    {
        if (CompareText(caption.Left(MENU_TEXT_CAPACITY - 1), item.m_text) != 0)
            return false;
        Record(number, item.m_operation);
        return true;
    }

    // The menu's entry at the lowest position from `from` up to the insertion point (the first read of
    // that position), or null.
    const ExistingMenuEntry* FirstEntryFrom(UINT from) const
    {
        const ExistingMenuEntry* first = nullptr;
        for (const ExistingMenuEntry& entry : m_request.existingItems)
            if (entry.position >= from && entry.position < m_request.indexMenu &&
                (!first || entry.position < first->position))
                first = &entry;
        return first;
    }

    const MenuRequest& m_request;
    MenuPlan& m_plan;
    UINT m_position;
    UINT m_id;
};
} // namespace

DefaultChoice DecideDefaultChoice(const MenuRequest& request)
{
    DefaultChoice decision;
    const LONG mask = request.m_shellItemMask;
    switch (request.m_dropEffect)
    {
    case 0:
        if (mask & 1)
        {
            decision.mayPrompt = 0;
            if ((request.m_keyState & KEY_CTRL) || request.m_shellDefaultItem == 1)
                decision.defaultChoice = 1;
        }
        if (mask & 2)
        {
            decision.mayPrompt = 0;
            if ((request.m_keyState & KEY_SHIFT) || request.m_shellDefaultItem == 2)
                decision.defaultChoice = 2;
        }
        decision.proceed = decision.defaultChoice != 0;
        break;
    case 1:
        if (mask == 1)
        {
            decision.defaultChoice = 1;
            decision.proceed = true;
        }
        break;
    case 2:
        if (mask == 2)
        {
            decision.defaultChoice = 2;
            decision.proceed = true;
        }
        break;
    default:
        break;
    }
    if (request.m_itemContext || request.m_backgroundContext)
        decision.proceed = true;
    return decision;
}

MenuPlan BuildMenuPlan(const MenuRequest& request, LONG defaultChoice, LONG mayPrompt)
{
    MenuPlan plan;
    PlanWriter writer(request, plan);
    const MenuTarget& target = request.target;
    const LONG mask = request.m_shellItemMask;

    const bool addCopy = (mask & 1) && (target.ci || target.cu);
    const bool moveOffered = (mask & 2) && target.mi;
    const bool addMove = moveOffered && request.m_sameDrive;
    const bool addDelete = request.m_itemContext && target.di && request.m_useApi &&
                           !target.mountPath.IsEmpty() && request.isRootFolder == 0;
    const LONG total = request.customCount + (addCopy ? 1 : 0) + (addMove ? 1 : 0) + (addDelete ? 1 : 0);

    // The FMI group. A caption already in the menu inserts nothing, and then no separator opens the group:
    // the matched entry stands where the group would have begun.
    bool groupOpened = false;
    for (const CustomMenuItem& item : request.customItems)
    {
        if (writer.RecordMatches(item))
        {
            groupOpened = true;
            continue;
        }
        if (!groupOpened && total > 0)
        {
            writer.Separator();
            groupOpened = true;
        }
        writer.Item(item.m_text, item.m_operation);
    }

    if (request.customCount == 0 || total > request.customCount)
        writer.Separator();
    if (addCopy)
        plan.quickCopyOffset = writer.Item(QUICK_COPY_TEXT, OP_QUICK_COPY);
    if (addMove)
        plan.quickMoveOffset = writer.Item(QUICK_MOVE_TEXT, OP_QUICK_MOVE);
    else if (moveOffered)
    {
        // A move across drives never makes the extension's move the default, and never asks.
        if (defaultChoice == 2)
            defaultChoice = 0;
        mayPrompt = 0;
    }
    if (addDelete)
        plan.quickDeleteOffset = writer.Item(QUICK_DELETE_TEXT, OP_QUICK_DELETE);
    if (total > 0)
        writer.Separator();

    if (defaultChoice == 1 && plan.quickCopyOffset)
        plan.quickItem = writer.CommandIdAt(*plan.quickCopyOffset);
    else if (defaultChoice == 2 && plan.quickMoveOffset)
        plan.quickItem = writer.CommandIdAt(*plan.quickMoveOffset);

    const bool drop = !request.m_itemContext && !request.m_backgroundContext;
    if (target.defaultAction == 0)
    {
        if (mayPrompt && drop && (defaultChoice == 1 || defaultChoice == 2))
            plan.chooserOperation = static_cast<UINT>(defaultChoice);
    }
    else if (target.defaultAction != 1)
        plan.defaultItem = plan.quickItem;

    plan.result = writer.Used();
    return plan;
}

ChooserResolution ResolveChooser(const MenuPlan& plan, const ChooserOutcome& outcome)
{
    ChooserResolution resolution;
    if (outcome.dialogResult == 1 && outcome.choice == 2)
        return resolution; // the file manager's own default stays
    // The service was chosen, or the question was dismissed: the Quick item becomes the default either
    // way; after a dismissal InvokeCommand sees the flag and lets the drop come to nothing.
    resolution.defaultItem = plan.quickItem;
    resolution.chooserCancelled = (outcome.dialogResult == 1 && outcome.choice == 1) ? 0 : 1;
    return resolution;
}

int ParseCustomMenuItems(const WideString& menuItemsText, NodeList<CustomMenuItem*>& items)
{
    int position = 0;
    // Runs of newlines count as one and an empty token marks the end, so no line is ever empty here.
    for (WideString line = menuItemsText.Tokenize(TEXT("\n"), position); !line.IsEmpty();
         line = menuItemsText.Tokenize(TEXT("\n"), position))
    {
        int equals = -1;
        for (int i = 0; i < line.GetLength(); ++i)
        {
            if (line[i] == TEXT('='))
            {
                equals = i;
                break;
            }
        }
        if (equals <= 0 || equals + 1 >= line.GetLength())
            continue;
        WideString value = line.Mid(equals + 1);
        LONG code = _wtoi(value);
        if (code == 0)
            continue;
        auto item = std::make_unique<CustomMenuItem>();
        item->m_text = line.Left(equals);
        item->m_operation = code;
        items.AddTail(item.get());
        item.release();
    }
    return static_cast<int>(items.GetCount());
}

void AddMenuCommand(NodeList<MenuCommandEntry*>& commands, UINT position, LONG operation,
                    const WideString& key)
{
    auto entry = std::make_unique<MenuCommandEntry>();
    entry->m_position = position;
    entry->m_operation = operation;
    entry->m_key.SetText(key.GetString(), key.GetLength());
    commands.AddTail(entry.get());
    entry.release();
}
