// QueryContextMenu on a real menu: the worked examples entry by entry (positions, command ids, captions,
// separators, bitmaps, records, result, default item), the chooser answered as a user would, and the cases
// in which nothing is added. The object is arranged as Initialize leaves it; markers lie on a managed drive.
#include "extension/Chooser.h"
#include "extension/CopyMoveExtension.h"
#include "extension/MenuPlan.h"

#include "tests/support/DialogAnswer.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/ProgressRecorder.h"

#include <gtest/gtest.h>
#ifndef _WIN32
#include "platform/host/ControlUi.h"
#endif

#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace TestSupport;

namespace
{
// The class leaves IUnknown to its COM wrapper; these tests hold the object directly.
class HeldExtension final : public CVelmountCopyMoveExtension
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override
    {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
};

const UINT NO_DEFAULT = static_cast<UINT>(-1);
const std::string FOREIGN = std::to_string(FOREIGN_MENU_ENTRY);

class MenuEdge : public ::testing::Test
{
public:
    void SetUp() override
    {
        g_moduleInstance = GetModuleHandleW(nullptr); // a program linking the extension carries its resources
        menu = CreatePopupMenu();
        ASSERT_NE(menu, nullptr);
        object = std::make_unique<HeldExtension>();
        object->m_menuBitmap = static_cast<HBITMAP>(
            LoadImageW(g_moduleInstance, MAKEINTRESOURCEW(IDB_MENU_BITMAP), IMAGE_BITMAP, 16, 16, 0));
        ASSERT_NE(object->m_menuBitmap, nullptr);

        // One managed drive: the key vm-77 throughout; "plain" has no marker.
        drive.WriteMarker(TEXT("src"), TEXT("K=vm-77|RM=\\src\\.Velmount"));
        drive.MakeFolder(TEXT("plain"));
    }

    void TearDown() override { DestroyMenu(menu); }

    // The loops below run each case on a fresh object, menu and drive.
    void Restart()
    {
        TearDown();
        SetUp();
    }

    // As Initialize leaves a drop onto "dest" with the marker given: its record, the drop effect, the keys,
    // the paths.
    void ArrangeDrop(LPCWSTR marker, std::vector<LPCWSTR> files, LONG dropEffect, LONG keys = 0)
    {
        drive.WriteMarker(TEXT("dest"), marker);
        object->m_targetFolder = drive.Path(TEXT("dest"));
        object->m_targetDrive = object->ReadDriveMarker(object->m_targetFolder);
        ASSERT_NE(object->m_targetDrive, nullptr);
        object->m_useApi = 1;
        object->m_dropEffect = dropEffect;
        object->m_keyState = keys;
        for (LPCWSTR file : files)
            object->m_selectedFiles.AddTail(drive.Path(file));
    }

    void ArrangeItems(std::vector<LPCWSTR> items, LONG useApi = 1)
    {
        object->m_itemContext = 1;
        object->m_useApi = useApi;
        for (LPCWSTR item : items)
            object->m_selectedFiles.AddTail(drive.Path(item));
    }

    // A click on the background of "shares", with the marker given.
    void ArrangeBackground(LPCWSTR marker)
    {
        drive.WriteMarker(TEXT("shares"), marker);
        object->m_targetFolder = drive.Path(TEXT("shares"));
        object->m_targetDrive = object->ReadDriveMarker(object->m_targetFolder);
        ASSERT_NE(object->m_targetDrive, nullptr);
        object->m_backgroundContext = 1;
    }

    // The file manager's drop menu: its copy and move commands, one of them the default.
    void ShellDropMenu(bool copy, bool move, UINT defaultId)
    {
        if (copy)
            AppendMenuW(menu, MF_STRING, 1, TEXT("Copy here"));
        if (move)
            AppendMenuW(menu, MF_STRING, 2, TEXT("Move here"));
        if (defaultId)
            SetMenuDefaultItem(menu, defaultId, FALSE);
    }

    // Entries that stand above the insertion point of an items or background menu.
    void ShellEntries(std::vector<std::pair<UINT, LPCWSTR>> entries)
    {
        for (const auto& entry : entries)
        {
            if (entry.second)
                AppendMenuW(menu, MF_STRING, entry.first, entry.second);
            else
                AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
        }
    }

    HRESULT Query(UINT indexMenu, UINT idCmdFirst, UINT flags = 0)
    {
        return object->QueryContextMenu(menu, indexMenu, idCmdFirst, idCmdFirst + 0x7FFF, flags);
    }

    // The menu as the user sees it, one line per position: "id caption", "-" for a separator; a "+" marks an
    // item that carries the extension's bitmap in both states.
    std::vector<std::string> Lines() const
    {
        std::vector<std::string> lines;
        int count = GetMenuItemCount(menu);
        for (int position = 0; position < count; ++position)
        {
            MENUITEMINFOW info{};
            info.cbSize = sizeof(info);
            info.fMask = MIIM_FTYPE | MIIM_ID | MIIM_CHECKMARKS;
            EXPECT_TRUE(GetMenuItemInfoW(menu, static_cast<UINT>(position), TRUE, &info));
            if (info.fType & MFT_SEPARATOR)
            {
                EXPECT_EQ(info.wID, 0u);
                EXPECT_EQ(info.hbmpChecked, nullptr);
                lines.push_back("-");
                continue;
            }
            WCHAR text[MENU_TEXT_CAPACITY] = {};
            GetMenuStringW(menu, static_cast<UINT>(position), text, MENU_TEXT_CAPACITY, MF_BYPOSITION);
            const bool ours =
                info.hbmpChecked == object->m_menuBitmap && info.hbmpUnchecked == object->m_menuBitmap;
            EXPECT_TRUE(ours || (!info.hbmpChecked && !info.hbmpUnchecked)) << Narrow(text);
            lines.push_back(std::to_string(info.wID) + " " + Narrow(text) + (ours ? " +" : ""));
        }
        return lines;
    }

    std::vector<std::string> Records() const
    {
        std::vector<std::string> lines;
        for (POSITION position = object->m_menuCommands.GetHeadPosition(); position;)
        {
            const MenuCommandEntry* entry = object->m_menuCommands.GetNext(position);
            lines.push_back(std::to_string(entry->m_position) + ", " + std::to_string(entry->m_operation) +
                            ", " + Narrow(entry->m_key));
        }
        return lines;
    }

    UINT DefaultItem() const { return GetMenuDefaultItem(menu, FALSE, 0); }

    ManagedDrive drive;
    HMENU menu = nullptr;
    std::unique_ptr<HeldExtension> object;
};

typedef std::vector<std::string> Lines_;

// ---------------------------------------------------------------------------------------------------------
// Example 1: files dragged between two folders of one drive, with the drop menu.

TEST_F(MenuEdge, Example1DragWithinOneDrive)
{
    for (LPCWSTR defaultAction : {TEXT("0"), TEXT("1"), TEXT("2")})
    {
        SCOPED_TRACE(Narrow(defaultAction));
        Restart();
        WideString marker(TEXT("K=vm-77|CI=T|MI=T|RM=\\dest\\.Velmount|DA="));
        marker.Append(defaultAction);
        ArrangeDrop(marker, {TEXT("src\\a.txt"), TEXT("src\\b.txt")}, 0);
        ShellDropMenu(true, true, 2);

        EXPECT_EQ(Query(0, 100), 4);
        EXPECT_EQ(Lines(), (Lines_{"-", "101 Velmount Quick Copy +", "102 Velmount Quick Move +", "-",
                                   "1 Copy here", "2 Move here"}));
        EXPECT_EQ(Records(), (Lines_{"1, 12, vm-77", "2, 13, vm-77"}));
        EXPECT_EQ(object->m_shellItemMask, 3);
        EXPECT_EQ(object->m_shellDefaultItem, 2);
        EXPECT_EQ(object->m_sameDrive, 1);
        EXPECT_EQ(object->m_quickCopyPos, 1);
        EXPECT_EQ(object->m_quickMovePos, 2);
        EXPECT_EQ(object->m_quickDeletePos, -1);
        EXPECT_EQ(object->m_chooserCancelled, 0);
        // 0 and 1 leave the file manager's move the default; 2 makes Quick Move the default.
        EXPECT_EQ(DefaultItem(), defaultAction[0] == TEXT('2') ? 102u : 2u);
    }
}

// Example 2: a drag from outside the drive into it.

TEST_F(MenuEdge, Example2DragFromOutsideTheDrive)
{
    // With Shift the dropped move is the file manager's choice: no Quick item stands for it, so no default.
    for (LONG keys : {LONG(0), LONG(MODIFIER_SHIFT)})
    {
        SCOPED_TRACE(keys);
        Restart();
        ArrangeDrop(TEXT("K=vm-77|CI=T|MI=T|DA=2|RM=\\dest\\.Velmount"),
                    {TEXT("plain\\a.txt"), TEXT("plain\\b.txt")}, 0, keys);
        ShellDropMenu(true, true, 1);

        EXPECT_EQ(Query(0, 100), 3);
        EXPECT_EQ(Lines(), (Lines_{"-", "101 Velmount Quick Copy +", "-", "1 Copy here", "2 Move here"}));
        EXPECT_EQ(Records(), (Lines_{"1, 12, vm-77"}));
        EXPECT_EQ(object->m_sameDrive, 0);
        EXPECT_EQ(object->m_quickMovePos, -1);
        EXPECT_EQ(DefaultItem(), keys ? 1u : 101u);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Example 3: a drop that offers one command only; the chooser asks, and the default carries the answer.

struct ChooserCase
{
    const char* what;
    std::vector<UserStep> steps;
    UINT defaultItem;
    LONG cancelled;
};

TEST_F(MenuEdge, Example3ChooserForACopy)
{
    const ChooserCase cases[] = {
        {"Use Velmount API", {ClickButton(IDC_USE_VELMOUNT_API)}, 101, 0},
        {"Use Default Explorer", {ClickButton(IDC_USE_DEFAULT_EXPLORER)}, 1, 0},
        // Esc ends the dialog as Cancel does (the chooser's own tests hold that); one of the two is enough
        // here.
        {"Cancel", {ClickButton(IDC_CHOOSER_CANCEL)}, 101, 1},
    };
    for (const ChooserCase& each : cases)
    {
        SCOPED_TRACE(each.what);
        Restart();
        ArrangeDrop(TEXT("K=vm-77|CI=T|DA=0|RM=\\dest\\.Velmount"), {TEXT("plain\\a.txt")}, 1);
        ShellDropMenu(true, false, 1);
        HWND owner = CreateOwnerWindow(RECT{200, 150, 900, 650}, true, false);
        SetForegroundWindow(owner);
        HWND foreground = GetForegroundWindow();

        DialogAnswer answer(each.steps);
        EXPECT_EQ(Query(0, 100), 3);
        SeenDialog seen = answer.Seen();
        ASSERT_TRUE(seen.shown);
        EXPECT_EQ(seen.title, u"Copy Files");
        EXPECT_EQ(seen.owner, foreground);
        EXPECT_EQ(Lines(), (Lines_{"-", "101 Velmount Quick Copy +", "-", "1 Copy here"}));
        EXPECT_EQ(Records(), (Lines_{"1, 12, vm-77"}));
        EXPECT_EQ(DefaultItem(), each.defaultItem);
        EXPECT_EQ(object->m_chooserCancelled, each.cancelled);
        DestroyOwnerWindow(owner);
    }
}

#ifndef _WIN32 // a dialog that cannot be shown is arranged through the stand-in only
TEST_F(MenuEdge, Example3ChooserThatCannotBeShownCountsAsACancel)
{
    ArrangeDrop(TEXT("K=vm-77|CI=T|DA=0|RM=\\dest\\.Velmount"), {TEXT("plain\\a.txt")}, 1);
    ShellDropMenu(true, false, 1);
    VmHost::ScriptDialogCannotShow();
    EXPECT_EQ(Query(0, 100), 3);
    EXPECT_EQ(DefaultItem(), 101u);
    EXPECT_EQ(object->m_chooserCancelled, 1);
}
#endif

// A move offered alone: on one drive the chooser asks for Quick Move; across drives Quick Move is no choice
// and nothing asks; onto a drive without MI there is no Quick Move but still the question, and a cancel
// leaves the file manager's command to run.
TEST_F(MenuEdge, Example3MoveOfferedAlone)
{
    const struct
    {
        const char* what;
        LPCWSTR marker, source;
        UserStep answer;
        HRESULT result;
        bool asked;
        Lines_ lines, records;
        UINT defaultItem;
        LONG cancelled;
    } cases[] = {
        {"on one drive", TEXT("K=vm-77|MI=T|DA=0|RM=\\dest\\.Velmount"), TEXT("src\\a.txt"),
         ClickButton(IDC_USE_VELMOUNT_API), 3, true,
         Lines_{"-", "101 Velmount Quick Move +", "-", "2 Move here"}, Lines_{"1, 13, vm-77"}, 101, 0},
        {"across drives", TEXT("K=vm-77|MI=T|DA=0|RM=\\dest\\.Velmount"), TEXT("plain\\a.txt"),
         ClickButton(IDC_USE_VELMOUNT_API), 1, false, Lines_{"-", "2 Move here"}, Lines_{}, 2, 0},
        {"without MI", TEXT("K=vm-77|CI=T|DA=0|RM=\\dest\\.Velmount"), TEXT("plain\\a.txt"),
         ClickButton(IDC_CHOOSER_CANCEL), 1, true, Lines_{"-", "2 Move here"}, Lines_{}, 2, 1},
    };
    for (const auto& each : cases)
    {
        SCOPED_TRACE(each.what);
        Restart();
        ArrangeDrop(each.marker, {each.source}, 2);
        ShellDropMenu(false, true, 2);
        DialogAnswer answer({each.answer});
        EXPECT_EQ(Query(0, 100), each.result);
        EXPECT_EQ(answer.Seen().shown, each.asked);
        EXPECT_EQ(answer.Seen().title, each.asked ? u"Move Files" : u"");
        EXPECT_EQ(Lines(), each.lines);
        EXPECT_EQ(Records(), each.records);
        EXPECT_EQ(DefaultItem(), each.defaultItem);
        EXPECT_EQ(object->m_chooserCancelled, each.cancelled);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Example 4: right click on one folder, with the service's own items.

class FolderMenu : public MenuEdge
{
protected:
    void SetUp() override
    {
        MenuEdge::SetUp();
        drive.WriteMarker(TEXT("photos"), TEXT("K=vm-77|DI=T|RM=\\photos\\.Velmount"));
        drive.WriteMarker(TEXT("photos\\2021"),
                          TEXT("K=vm-77|RM=\\photos\\2021\\.Velmount|FMI=Share link=51\nVersions=60"));
        ArrangeItems({TEXT("photos\\2021")});
    }
};

TEST_F(FolderMenu, Example4)
{
    ShellEntries({{30, TEXT("Open")},
                  {31, TEXT("Open in new window")},
                  {0, nullptr},
                  {33, TEXT("Cut")},
                  {34, TEXT("Copy")}});
    EXPECT_EQ(Query(5, 200), 6);
    EXPECT_EQ(Lines(),
              (Lines_{"30 Open", "31 Open in new window", "-", "33 Cut", "34 Copy", "-", "201 Share link +",
                      "202 Versions +", "-", "204 Velmount Quick Delete +", "-"}));
    EXPECT_EQ(Records(), (Lines_{"1, 51, vm-77", "2, 60, vm-77", "4, 14, vm-77"}));
    EXPECT_EQ(object->m_quickDeletePos, 4);
    EXPECT_EQ(DefaultItem(), NO_DEFAULT);
    EXPECT_EQ(object->m_customItems.GetCount(), 2u);
}

TEST_F(FolderMenu, Example4WithShareLinkAlreadyInTheMenu)
{
    ShellEntries(
        {{30, TEXT("Open")}, {37, TEXT("Share link")}, {0, nullptr}, {33, TEXT("Cut")}, {34, TEXT("Copy")}});
    EXPECT_EQ(Query(5, 200), 4);
    EXPECT_EQ(Lines(), (Lines_{"30 Open", "37 Share link", "-", "33 Cut", "34 Copy", "200 Versions +", "-",
                               "202 Velmount Quick Delete +", "-"}));
    // The matched entry is someone else's: its record can never answer a verb. Versions sits at offset 0.
    EXPECT_EQ(Records(), (Lines_{FOREIGN + ", 51, vm-77", "0, 60, vm-77", "2, 14, vm-77"}));
}

TEST_F(MenuEdge, MountTopHasItsItemsButNoQuickDelete)
{
    // V:\top is the top of a mount of its own; its parent, the drive's top, is managed and allows deletes.
    drive.WriteMarker(TEXT(""), TEXT("K=vm-77|DI=T|RM=\\.Velmount"));
    drive.WriteMarker(TEXT("top"), TEXT("K=vm-77|DI=T|RM=\\.Velmount|FMI=Share link=51"));
    ArrangeItems({TEXT("top")});
    EXPECT_EQ(Query(0, 200), 3);
    EXPECT_EQ(Lines(), (Lines_{"-", "201 Share link +", "-"}));
    EXPECT_EQ(Records(), (Lines_{"1, 51, vm-77"}));
}

TEST_F(FolderMenu, SecondQueryOnOneObjectReparsesAndAppends)
{
    EXPECT_EQ(Query(0, 200), 6);
    HMENU first = menu;
    menu = CreatePopupMenu();
    // The items of the first call are parsed again: the second copy of each line matches the first.
    EXPECT_EQ(Query(0, 300), 6);
    EXPECT_EQ(Lines(),
              (Lines_{"-", "301 Share link +", "302 Versions +", "-", "304 Velmount Quick Delete +", "-"}));
    EXPECT_EQ(Records(), (Lines_{"1, 51, vm-77", "2, 60, vm-77", "4, 14, vm-77", "1, 51, vm-77",
                                 "2, 60, vm-77", "1, 51, vm-77", "2, 60, vm-77", "4, 14, vm-77"}));
    EXPECT_EQ(object->m_customItems.GetCount(), 4u);
    DestroyMenu(first);
}

// ---------------------------------------------------------------------------------------------------------
// Example 5: several files on one drive.

TEST_F(MenuEdge, Example5SeveralFiles)
{
    for (bool di : {true, false})
    {
        SCOPED_TRACE(di ? "di" : "no di");
        Restart();
        drive.WriteMarker(TEXT("docs"), di ? TEXT("K=vm-77|DI=T|RM=\\docs\\.Velmount")
                                           : TEXT("K=vm-77|RM=\\docs\\.Velmount"));
        ArrangeItems({TEXT("docs\\a.txt"), TEXT("docs\\b.txt"), TEXT("docs\\c.txt")});
        ShellEntries(
            {{30, TEXT("Open")}, {31, TEXT("Print")}, {32, TEXT("Edit")}, {0, nullptr}, {33, TEXT("Cut")}});
        EXPECT_EQ(Query(5, 200), di ? 3 : 1);
        Lines_ lines{"30 Open", "31 Print", "32 Edit", "-", "33 Cut", "-"};
        if (di)
            lines.insert(lines.end(), {"201 Velmount Quick Delete +", "-"});
        EXPECT_EQ(Lines(), lines);
        EXPECT_EQ(Records(), di ? Lines_{"1, 14, vm-77"} : Lines_{});
        EXPECT_EQ(object->m_sameDrive, 1);
        ASSERT_NE(object->m_targetDrive, nullptr);
        EXPECT_EQ(Narrow(object->m_targetDrive->key), "vm-77");
    }
}

TEST_F(MenuEdge, ItemsMenuWithTheShellsCopyAndMoveGetsQuickCopyAndMove)
{
    drive.WriteMarker(TEXT("docs"), TEXT("K=vm-77|CU=T|MI=T|DI=T|DA=2|RM=\\docs\\.Velmount"));
    ArrangeItems({TEXT("docs\\a.txt")});
    object->m_keyState = MODIFIER_CONTROL; // Initialize reads no keys for items: whatever stands here counts
    ShellDropMenu(true, true, 0);
    EXPECT_EQ(Query(2, 10), 5);
    EXPECT_EQ(Lines(), (Lines_{"1 Copy here", "2 Move here", "-", "11 Velmount Quick Copy +",
                               "12 Velmount Quick Move +", "13 Velmount Quick Delete +", "-"}));
    EXPECT_EQ(DefaultItem(), 11u);
}

// ---------------------------------------------------------------------------------------------------------
// Example 6: a click on a folder's background.

TEST_F(MenuEdge, Example6Background)
{
    ArrangeBackground(TEXT("K=vm-77|RM=\\shares\\.Velmount|FMI=New share=51"));
    ShellDropMenu(true, true, 1); // the probe does not run for a background: ids 1 and 2 count for nothing
    AppendMenuW(menu, MF_STRING, 40, TEXT("View"));
    EXPECT_EQ(Query(3, 300), 3);
    EXPECT_EQ(Lines(), (Lines_{"1 Copy here", "2 Move here", "40 View", "-", "301 New share +", "-"}));
    EXPECT_EQ(Records(), (Lines_{"1, 51, vm-77"}));
    EXPECT_EQ(object->m_shellItemMask, 0);
    EXPECT_EQ(object->m_shellDefaultItem, 0);
}

TEST_F(MenuEdge, Example6BackgroundWithoutItems)
{
    ArrangeBackground(TEXT("K=vm-77|CI=T|MI=T|DI=T|DA=2|RM=\\shares\\.Velmount"));
    ShellEntries({{40, TEXT("View")}, {41, TEXT("Sort by")}, {42, TEXT("Refresh")}});
    EXPECT_EQ(Query(3, 300), 1);
    EXPECT_EQ(Lines(), (Lines_{"40 View", "41 Sort by", "42 Refresh", "-"}));
    EXPECT_TRUE(Records().empty());
}

// ---------------------------------------------------------------------------------------------------------
// When nothing is added: the menu and the lists stay as they were.

TEST_F(MenuEdge, DefaultOnlyAddsNothingAndChangesNothing)
{
    ArrangeDrop(TEXT("K=vm-77|CI=T|MI=T|DA=2|RM=\\dest\\.Velmount"), {TEXT("src\\a.txt")}, 0);
    ShellDropMenu(true, true, 2);
    object->m_shellItemMask = 7;
    object->m_shellDefaultItem = 5;
    EXPECT_EQ(Query(0, 100, CMF_DEFAULTONLY | CMF_EXPLORE), 0);
    EXPECT_EQ(Lines(), (Lines_{"1 Copy here", "2 Move here"}));
    EXPECT_EQ(object->m_shellItemMask, 7);
    EXPECT_EQ(object->m_shellDefaultItem, 5);
    EXPECT_TRUE(Records().empty());
}

TEST_F(MenuEdge, NothingIsAdded)
{
    struct
    {
        const char* what;
        std::function<void(MenuEdge&)> arrange;
    } cases[] = {
        {"a folder without a marker of its own, on a managed drive",
         [](MenuEdge& t)
         {
             t.drive.MakeFolder(TEXT("docs\\sub"));
             t.ArrangeItems({TEXT("docs\\sub")});
         }},
        {"items on two managed drives",
         [](MenuEdge& t)
         {
             t.drive.WriteMarker(TEXT("other"), TEXT("K=vm-99|DI=T|RM=\\other\\.Velmount"));
             t.ArrangeItems({TEXT("docs\\a.txt"), TEXT("other\\b.txt")});
         }},
        {"a second item on no drive",
         [](MenuEdge& t) {
             t.ArrangeItems({TEXT("docs\\a.txt"), TEXT("plain\\b.txt")});
         }},
        {"a drop with effect 1 and both commands",
         [](MenuEdge& t)
         {
             t.ArrangeDrop(TEXT("K=vm-77|CI=T|MI=T|RM=\\dest\\.Velmount"), {TEXT("src\\a.txt")}, 1);
             t.ShellDropMenu(true, true, 1);
         }},
        {"a drop with no default and no keys",
         [](MenuEdge& t)
         {
             t.ArrangeDrop(TEXT("K=vm-77|CI=T|MI=T|RM=\\dest\\.Velmount"), {TEXT("src\\a.txt")}, 0);
             t.ShellDropMenu(true, true, 0);
         }},
        {"a background without a record", [](MenuEdge& t) { t.object->m_backgroundContext = 1; }},
    };
    for (const auto& each : cases)
    {
        SCOPED_TRACE(each.what);
        Restart();
        // The items cases select on this drive.
        drive.WriteMarker(TEXT("docs"), TEXT("K=vm-77|DI=T|RM=\\docs\\.Velmount"));
        each.arrange(*this);
        Lines_ before = Lines();
        EXPECT_EQ(Query(2, 100), 0);
        EXPECT_EQ(Lines(), before);
        EXPECT_TRUE(Records().empty());
    }
}

TEST_F(MenuEdge, ValidateSelection)
{
    // A drop: a path from elsewhere clears m_sameDrive and ends the walk; still valid.
    ArrangeDrop(TEXT("K=vm-77|RM=\\dest\\.Velmount"),
                {TEXT("src\\a.txt"), TEXT("plain\\b.txt"), TEXT("src\\c.txt")}, 0);
    EXPECT_EQ(object->ValidateSelection(), S_OK);
    EXPECT_EQ(object->m_sameDrive, 0);
    // Items: no selection, no menu.
    object = std::make_unique<HeldExtension>();
    object->m_itemContext = 1;
    EXPECT_EQ(object->ValidateSelection(), E_INVALIDARG);
    // A drop without a target record.
    object = std::make_unique<HeldExtension>();
    object->m_selectedFiles.AddTail(drive.Path(TEXT("src\\a.txt")));
    EXPECT_EQ(object->ValidateSelection(), E_INVALIDARG);
    // Items: siblings are answered as their first; a folder whose name only starts the same, or one below
    // theirs, is not a sibling, however short the names (under four units the search goes unit by unit).
    const struct
    {
        LPCWSTR last;
        HRESULT expected;
    } kLastItems[] = {{TEXT("src\\c.txt"), S_OK},
                      {TEXT("srcplain\\c.txt"), E_INVALIDARG},
                      {TEXT("src\\deep\\c.txt"), E_INVALIDARG},
                      {TEXT("src\\c"), S_OK},
                      {TEXT("src\\d\\c"), E_INVALIDARG},
                      {TEXT("c.txt"), E_INVALIDARG}};
    for (const auto& item : kLastItems)
    {
        object = std::make_unique<HeldExtension>();
        object->m_itemContext = 1;
        for (LPCWSTR path : {TEXT("src\\a.txt"), TEXT("src\\b.txt"), item.last})
            object->m_selectedFiles.AddTail(drive.Path(path));
        EXPECT_EQ(object->ValidateSelection(), item.expected) << Narrow(item.last);
    }
}

TEST_F(MenuEdge, CommandStringsAndMenuMessagesAreNotOurs)
{
    char name[16] = "untouched";
    UINT reserved = 0;
    EXPECT_EQ(object->GetCommandString(0, GCS_VERBW, &reserved, name, 16), E_NOTIMPL);
    EXPECT_EQ(object->GetCommandString(3, GCS_HELPTEXTA, nullptr, name, 16), E_NOTIMPL);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(object->HandleMenuMsg(0x002B /* WM_DRAWITEM */, 0, 0), S_FALSE);
    EXPECT_EQ(object->HandleMenuMsg(0x0117 /* WM_INITMENUPOPUP */, 0, 0), S_FALSE);
}
} // namespace
