// The menu decisions without a menu: the drop table, the default-item table, the chooser outcomes, the FMI
// text and the separator rules, all over plain records.
#include "extension/MenuPlan.h"
#include "tests/support/ProgressRecorder.h"

#include <gtest/gtest.h>

#include <string>

using TestSupport::Narrow;

namespace
{
typedef std::vector<std::string> Lines;

const LONG CTRL = 0x01;
const LONG SHIFT = 0x02;

enum class Shape
{
    Items,
    Background,
    Drop
};

MenuRequest Request(Shape shape)
{
    MenuRequest request;
    request.indexMenu = 0;
    request.idCmdFirst = 100;
    request.m_itemContext = shape == Shape::Items;
    request.m_backgroundContext = shape == Shape::Background;
    request.m_useApi = 1;
    request.m_sameDrive = 1;
    request.target.key = TEXT("vm-77");
    request.target.mountPath = TEXT("x:");
    return request;
}

CustomMenuItem Fmi(LPCWSTR caption, LONG code)
{
    CustomMenuItem item;
    item.m_text = caption;
    item.m_operation = code;
    return item;
}

// The plan as lines: "position id caption" for items, "position (id) -" for separators.
Lines Steps(const MenuPlan& plan)
{
    Lines lines;
    for (const MenuStep& step : plan.steps)
    {
        if (step.kind == MenuStepKind::Separator)
            lines.push_back(std::to_string(step.position) + " (" + std::to_string(step.commandId) + ") -");
        else
            lines.push_back(std::to_string(step.position) + " " + std::to_string(step.commandId) + " " +
                            Narrow(step.caption));
    }
    return lines;
}

Lines Records(const MenuPlan& plan)
{
    Lines lines;
    for (const MenuCommandEntry& entry : plan.commands)
        lines.push_back(std::to_string(entry.m_position) + ", " + std::to_string(entry.m_operation) + ", " +
                        Narrow(entry.m_key));
    return lines;
}

// ---------------------------------------------------------------------------------------------------------
// The drop table: every row, with each key state that the row's Keys column admits.

// The key states a row admits, one bit per state: bit 0 neither, 1 Ctrl, 2 Shift, 3 both.
const unsigned ANY = 0xF, CTRL_HELD = 0xA, NO_CTRL = 0x5, SHIFT_HELD = 0xC, NO_SHIFT = 0x3,
               CTRL_NO_SHIFT = 0x2, NEITHER = 0x1;

struct DropRow
{
    LONG dropEffect;
    std::vector<LONG> masks;
    std::vector<LONG> shellDefaults;
    unsigned keys;
    LONG defaultChoice;
    LONG mayPrompt;
    bool proceed;
};

const std::vector<LONG> ANY_DEFAULT = {0, 1, 2};

const DropRow DROP_TABLE[] = {
    {0, {0}, {0}, ANY, 0, 1, false},
    {0, {1}, {1}, ANY, 1, 0, true},
    {0, {1}, {0}, CTRL_HELD, 1, 0, true},
    {0, {1}, {0}, NO_CTRL, 0, 0, false},
    {0, {2}, {2}, ANY, 2, 0, true},
    {0, {2}, {0}, SHIFT_HELD, 2, 0, true},
    {0, {2}, {0}, NO_SHIFT, 0, 0, false},
    {0, {3}, {2}, ANY, 2, 0, true},
    {0, {3}, {0, 1}, SHIFT_HELD, 2, 0, true},
    {0, {3}, {1}, NO_SHIFT, 1, 0, true},
    {0, {3}, {0}, CTRL_NO_SHIFT, 1, 0, true},
    {0, {3}, {0}, NEITHER, 0, 0, false},
    {1, {1}, ANY_DEFAULT, ANY, 1, 1, true},
    {1, {0, 2, 3}, ANY_DEFAULT, ANY, 0, 1, false},
    {2, {2}, ANY_DEFAULT, ANY, 2, 1, true},
    {2, {0, 1, 3}, ANY_DEFAULT, ANY, 0, 1, false},
    {4, {0, 1, 2, 3}, ANY_DEFAULT, ANY, 0, 1, false},
    // Effects no row names decide nothing.
    {3, {1}, {1}, ANY, 0, 1, false},
    {5, {1}, {1}, ANY, 0, 1, false},
    {8, {1}, {1}, ANY, 0, 1, false},
    {-1, {1}, {1}, ANY, 0, 1, false},
};

TEST(DecideDefaultChoice, DropTable)
{
    int checked = 0;
    for (const DropRow& row : DROP_TABLE)
        for (LONG mask : row.masks)
            for (LONG shellDefault : row.shellDefaults)
                for (LONG keys : {LONG(0), CTRL, SHIFT, LONG(CTRL | SHIFT)})
                {
                    if (!((row.keys >> keys) & 1))
                        continue;
                    MenuRequest request = Request(Shape::Drop);
                    request.m_dropEffect = row.dropEffect;
                    request.m_shellItemMask = mask;
                    request.m_shellDefaultItem = shellDefault;
                    request.m_keyState = keys | 0x3C; // the other modifier bits never count
                    DefaultChoice decision = DecideDefaultChoice(request);
                    SCOPED_TRACE("effect " + std::to_string(row.dropEffect) + " mask " +
                                 std::to_string(mask) + " default " + std::to_string(shellDefault) +
                                 " keys " + std::to_string(keys));
                    EXPECT_EQ(decision.defaultChoice, row.defaultChoice);
                    EXPECT_EQ(decision.mayPrompt, row.mayPrompt);
                    EXPECT_EQ(decision.proceed, row.proceed);
                    ++checked;
                }
    EXPECT_GT(checked, 60);
}

TEST(DecideDefaultChoice, ItemsAndBackgroundAlwaysGoOnButKeepTheChoice)
{
    for (Shape shape : {Shape::Items, Shape::Background})
    {
        MenuRequest request = Request(shape);
        request.m_shellItemMask = 3;
        DefaultChoice decision = DecideDefaultChoice(request);
        EXPECT_TRUE(decision.proceed);
        EXPECT_EQ(decision.defaultChoice, 0);
        EXPECT_EQ(decision.mayPrompt, 0);

        request.m_keyState = CTRL | SHIFT; // both held: the move wins
        EXPECT_EQ(DecideDefaultChoice(request).defaultChoice, 2);
    }
}

// ---------------------------------------------------------------------------------------------------------
// The default item: who may ask, and which Quick item becomes the default.

struct DefaultRow
{
    LONG mayPrompt;
    LONG defaultAction;
    Shape shape;
    LONG defaultChoice;
    enum
    {
        None,
        Chooser,
        Quick
    } outcome;
};

TEST(BuildMenuPlan, DefaultItemTable)
{
    const DefaultRow rows[] = {
        {0, 1, Shape::Drop, 1, DefaultRow::None},       {1, 1, Shape::Drop, 2, DefaultRow::None},
        {1, 1, Shape::Items, 1, DefaultRow::None},      {0, 0, Shape::Drop, 1, DefaultRow::None},
        {0, 0, Shape::Items, 2, DefaultRow::None},      {1, 0, Shape::Items, 1, DefaultRow::None},
        {1, 0, Shape::Background, 2, DefaultRow::None}, {1, 0, Shape::Drop, 1, DefaultRow::Chooser},
        {1, 0, Shape::Drop, 2, DefaultRow::Chooser},    {1, 0, Shape::Drop, 0, DefaultRow::None},
        {0, 2, Shape::Drop, 1, DefaultRow::Quick},      {1, 2, Shape::Drop, 2, DefaultRow::Quick},
        {0, -1, Shape::Items, 1, DefaultRow::Quick},    {0, 7, Shape::Background, 2, DefaultRow::Quick},
        {1, 2, Shape::Drop, 0, DefaultRow::None},       {0, -5, Shape::Items, 0, DefaultRow::None},
    };
    for (const DefaultRow& row : rows)
    {
        MenuRequest request = Request(row.shape);
        request.m_shellItemMask = 3;
        request.target.ci = request.target.mi = 1;
        request.target.defaultAction = row.defaultAction;
        MenuPlan plan = BuildMenuPlan(request, row.defaultChoice, row.mayPrompt);
        SCOPED_TRACE(testing::Message()
                     << "mayPrompt " << row.mayPrompt << " DA " << row.defaultAction << " shape "
                     << static_cast<int>(row.shape) << " choice " << row.defaultChoice);
        // Separator 100, Quick Copy 101, Quick Move 102, separator 103.
        std::optional<UINT> quick;
        if (row.defaultChoice == 1)
            quick = 101u;
        if (row.defaultChoice == 2)
            quick = 102u;
        EXPECT_EQ(plan.quickItem, quick);
        EXPECT_EQ(plan.chooserOperation, row.outcome == DefaultRow::Chooser ? UINT(row.defaultChoice) : 0u);
        EXPECT_EQ(plan.defaultItem, row.outcome == DefaultRow::Quick ? quick : std::nullopt);
    }
}

TEST(BuildMenuPlan, QuickItemAbsentFromTheMenuIsNeverTheDefault)
{
    // Items context on a drive without ci, cu or mi: a Quick item was chosen but stands nowhere.
    MenuRequest request = Request(Shape::Items);
    request.m_shellItemMask = 3;
    request.target.defaultAction = 2;
    request.target.di = 1;
    MenuPlan plan = BuildMenuPlan(request, 1, 0);
    EXPECT_FALSE(plan.quickItem);
    EXPECT_FALSE(plan.defaultItem);
    EXPECT_EQ(Steps(plan), (Lines{"0 (100) -", "1 101 Velmount Quick Delete", "2 (102) -"}));
}

// ---------------------------------------------------------------------------------------------------------
// The chooser's outcomes.

TEST(ResolveChooser, OutcomeTable)
{
    MenuPlan plan;
    plan.quickItem = 101u;
    struct
    {
        LONG dialogResult;
        UINT choice;
        std::optional<UINT> defaultItem;
        LONG cancelled;
    } rows[] = {
        {1, 1, 101u, 0},                          // "Use Velmount API"
        {1, 2, std::nullopt, 0},                  // "Use Default Explorer"
        {2, 0, 101u, 1},                          // "Cancel", Esc, the close box
        {-1, 0, 101u, 1},                         // could not be shown
        {0, 0, 101u, 1},         {1, 0, 101u, 1}, // ended without a choice: no service was chosen
    };
    for (const auto& row : rows)
    {
        ChooserResolution resolution = ResolveChooser(plan, ChooserOutcome{row.dialogResult, row.choice});
        EXPECT_EQ(resolution.defaultItem, row.defaultItem) << row.dialogResult << "/" << row.choice;
        EXPECT_EQ(resolution.chooserCancelled, row.cancelled) << row.dialogResult << "/" << row.choice;
    }

    MenuPlan withoutQuickItem; // "Move Files" with no Quick Move in the menu: no answer changes the default
    for (LONG result : {1, 2, -1})
        EXPECT_FALSE(ResolveChooser(withoutQuickItem, ChooserOutcome{result, 1}).defaultItem);
}

// ---------------------------------------------------------------------------------------------------------
// FMI text.

struct ParsedItem
{
    std::string caption;
    LONG code;
    bool operator==(const ParsedItem& other) const { return caption == other.caption && code == other.code; }
};

std::vector<ParsedItem> Parse(LPCWSTR text)
{
    NodeList<CustomMenuItem*> items;
    ParseCustomMenuItems(WideString(text), items);
    std::vector<ParsedItem> out;
    for (POSITION p = items.GetHeadPosition(); p;)
    {
        CustomMenuItem* item = items.GetNext(p);
        out.push_back(ParsedItem{Narrow(item->m_text), item->m_operation});
        delete item;
    }
    return out;
}

TEST(ParseCustomMenuItems, Lines)
{
    EXPECT_EQ(Parse(TEXT("Share link=51\nVersions=60")),
              (std::vector<ParsedItem>{{"Share link", 51}, {"Versions", 60}}));
    EXPECT_EQ(Parse(TEXT("=5\nCaption\nCaption=\nCaption=abc\nCaption=0\nOk=1")),
              (std::vector<ParsedItem>{{"Ok", 1}}));
    EXPECT_EQ(Parse(TEXT("A=7=9")), (std::vector<ParsedItem>{{"A", 7}}));
    EXPECT_EQ(Parse(TEXT("Minus=-3")), (std::vector<ParsedItem>{{"Minus", -3}}));
    EXPECT_EQ(Parse(TEXT("\n\nA=1\n\n\nB=2\n")), (std::vector<ParsedItem>{{"A", 1}, {"B", 2}}));
    EXPECT_EQ(Parse(TEXT("Spaced=  42x")), (std::vector<ParsedItem>{{"Spaced", 42}}));
    // A carriage return is no separator: it stays in the caption, or ends the number.
    EXPECT_EQ(Parse(TEXT("A\r=5\r\nB=6\r")), (std::vector<ParsedItem>{{"A\r", 5}, {"B", 6}}));
    EXPECT_TRUE(Parse(TEXT("")).empty());
    EXPECT_TRUE(Parse(TEXT("\n\n")).empty());
}

TEST(ParseCustomMenuItems, ReturnsTheWholeListLength)
{
    NodeList<CustomMenuItem*> items;
    EXPECT_EQ(ParseCustomMenuItems(WideString(TEXT("A=1\nB=2")), items), 2);
    EXPECT_EQ(ParseCustomMenuItems(WideString(TEXT("bad\nC=3")), items), 3);
    for (POSITION p = items.GetHeadPosition(); p;)
        delete items.GetNext(p);
}

TEST(AddMenuCommand, KeepsItsOwnCopyOfTheKey)
{
    NodeList<MenuCommandEntry*> commands;
    WideString key(TEXT("vm-77"));
    AddMenuCommand(commands, 3, OP_QUICK_DELETE, key);
    key.MakeLower();
    key.SetText(TEXT("other"), 5);
    MenuCommandEntry* entry = commands.GetHead();
    EXPECT_EQ(entry->m_position, 3u);
    EXPECT_EQ(entry->m_operation, OP_QUICK_DELETE);
    EXPECT_TRUE(entry->m_key == TEXT("vm-77"));
    delete entry;
}

// ---------------------------------------------------------------------------------------------------------
// Separators and the caption scan.

// How the FMI lines meet the entries above the insertion point: a match is someone else's entry (its record
// can never answer a verb), the rest go in between separators.
TEST(BuildMenuPlan, FmiGroupTable)
{
    typedef std::vector<ExistingMenuEntry> Entries;
    typedef std::vector<CustomMenuItem> Fmis;
    const std::string foreign = std::to_string(FOREIGN_MENU_ENTRY);
    const std::basic_string<WCHAR> x300(300, TEXT('x')), y259(259, TEXT('y'));
    const std::string inserted300 = " " + std::string(300, 'x');
    const struct
    {
        const char* what;
        UINT indexMenu, idCmdFirst;
        Entries existing;
        Fmis fmi;
        Lines steps, records;
        UINT result;
    } rows[] = {
        {"nothing to add still gets one separator", 3, 300, Entries{}, Fmis{}, Lines{"3 (300) -"}, Lines{},
         1},
        {"all lines matched leave only the closing separator", 2, 300,
         Entries{{0, 40, TEXT("Open")}, {1, 41, TEXT("New share")}}, Fmis{Fmi(TEXT("New share"), 51)},
         Lines{"2 (300) -"}, Lines{foreign + ", 51, vm-77"}, 1},
        // The second line matches the item the first inserted and is recorded under that item's offset; the
        // first record, which InvokeCommand finds first, keeps the first line's code.
        {"two lines with one caption insert one item", 1, 10, Entries{{0, 7, TEXT("Open")}},
         Fmis{Fmi(TEXT("Sync"), 60), Fmi(TEXT("Sync"), 61), Fmi(TEXT("Other"), 62)},
         Lines{"1 (10) -", "2 11 Sync", "3 12 Other", "4 (13) -"},
         Lines{"1, 60, vm-77", "1, 61, vm-77", "2, 62, vm-77"}, 4},
        // Position 1 is not listed (the menu refused it); a separator has an empty caption. The match opened
        // the group: "sync" (another case) goes in without a separator before it.
        {"every matching entry gets a record", 4, 10,
         Entries{{0, 5, TEXT("Sync")}, {2, 0, TEXT("")}, {3, 9, TEXT("Sync")}},
         Fmis{Fmi(TEXT("Sync"), 60), Fmi(TEXT("sync"), 61)}, Lines{"4 10 sync", "5 (11) -"},
         Lines{foreign + ", 60, vm-77", foreign + ", 60, vm-77", "0, 61, vm-77"}, 2},
        // The entry at position 0 lies behind the insertion point.
        {"index 0 leaves nothing to scan", 0, 100, Entries{{0, 5, TEXT("Sync")}}, Fmis{Fmi(TEXT("Sync"), 60)},
         Lines{"0 (100) -", "1 101 Sync", "2 (102) -"}, Lines{"1, 60, vm-77"}, 3},
        // The menu gives at most 259 units of a caption: two equal long captions never match, one cut to 259
        // units in the menu matches a line of exactly those units.
        {"captions compare as the menu shows them", 1, 100, Entries{{0, 5, WideString(y259.c_str())}},
         Fmis{Fmi(x300.c_str(), 60), Fmi(x300.c_str(), 61), Fmi(y259.c_str(), 62)},
         Lines{"1 (100) -", "2 101" + inserted300, "3 102" + inserted300, "4 (103) -"},
         Lines{"1, 60, vm-77", "2, 61, vm-77", foreign + ", 62, vm-77"}, 4},
        // The scan goes from entry to entry: a walk through every position below the index would not end in
        // the test's time.
        {"a huge index scans only the entries read", 0xFFFFFF00u, 300,
         Entries{{7, 5, TEXT("Sync")}, {2, 6, TEXT("Other")}},
         Fmis{Fmi(TEXT("Sync"), 60), Fmi(TEXT("New"), 61)}, Lines{"4294967040 300 New", "4294967041 (301) -"},
         Lines{foreign + ", 60, vm-77", "0, 61, vm-77"}, 2},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        MenuRequest request = Request(Shape::Background);
        request.indexMenu = row.indexMenu;
        request.idCmdFirst = row.idCmdFirst;
        request.existingItems = row.existing;
        request.customItems = row.fmi;
        request.customCount = static_cast<LONG>(row.fmi.size());
        MenuPlan plan = BuildMenuPlan(request, 0, 1);
        EXPECT_EQ(Steps(plan), row.steps);
        EXPECT_EQ(Records(plan), row.records);
        EXPECT_EQ(plan.result, row.result);
    }
}

TEST(BuildMenuPlan, QuickItemsFollowTheFmiGroupBehindAMiddleSeparator)
{
    MenuRequest request = Request(Shape::Items);
    request.indexMenu = 2;
    request.idCmdFirst = 50;
    request.m_shellItemMask = 3;
    request.target.cu = request.target.mi = request.target.di = 1;
    request.customItems = {Fmi(TEXT("Share link"), 51)};
    request.customCount = 1;
    MenuPlan plan = BuildMenuPlan(request, 0, 0);
    EXPECT_EQ(Steps(plan), (Lines{"2 (50) -", "3 51 Share link", "4 (52) -", "5 53 Velmount Quick Copy",
                                  "6 54 Velmount Quick Move", "7 55 Velmount Quick Delete", "8 (56) -"}));
    EXPECT_EQ(Records(plan), (Lines{"1, 51, vm-77", "3, 12, vm-77", "4, 13, vm-77", "5, 14, vm-77"}));
    EXPECT_EQ(plan.quickCopyOffset, 3);
    EXPECT_EQ(plan.quickMoveOffset, 4);
    EXPECT_EQ(plan.quickDeleteOffset, 5);
    EXPECT_EQ(plan.result, 7u);
}

TEST(BuildMenuPlan, QuickDeleteConditions)
{
    struct
    {
        Shape shape;
        LONG di, useApi, root;
        LPCWSTR mountPath;
        bool added;
    } rows[] = {
        {Shape::Items, 1, 1, 0, TEXT("x:"), true},  {Shape::Items, 0, 1, 0, TEXT("x:"), false},
        {Shape::Items, 1, 0, 0, TEXT("x:"), false}, {Shape::Items, 1, 1, 1, TEXT("x:"), false},
        {Shape::Items, 1, 1, 0, TEXT(""), false},   {Shape::Background, 1, 1, 0, TEXT("x:"), false},
        {Shape::Drop, 1, 1, 0, TEXT("x:"), false},
    };
    for (const auto& row : rows)
    {
        MenuRequest request = Request(row.shape);
        request.target.di = row.di;
        request.m_useApi = row.useApi;
        request.isRootFolder = row.root;
        request.target.mountPath = row.mountPath;
        MenuPlan plan = BuildMenuPlan(request, 0, 1);
        EXPECT_EQ(plan.quickDeleteOffset.has_value(), row.added);
        EXPECT_EQ(plan.result, row.added ? 3u : 1u);
    }
}
} // namespace
