// The copy/move chooser: its place, its template, and what each answer of the user gives back. The dialog is
// real: on the host the stand-in plays the user's steps, under Wine the test clicks the real buttons.
#include "extension/Chooser.h"

#include "tests/support/DialogAnswer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using namespace TestSupport;

namespace
{
// Programs that link the extension carry its resources themselves.
HMODULE ResourceModule()
{
    return GetModuleHandleW(nullptr);
}

RECT Rect(LONG left, LONG top, LONG right, LONG bottom)
{
    return RECT{left, top, right, bottom};
}

TEST(PlaceChooser, Examples)
{
    struct
    {
        RECT dialog, centre, area;
        LONG x, y;
    } rows[] = {
        // Centred over the owner, then pushed back from the right edge.
        {Rect(0, 0, 300, 240), Rect(1500, 200, 2100, 800), Rect(0, 0, 1920, 1040), 1620, 380},
        // Plain centring; the dialog's own position does not count, only its size.
        {Rect(40, 50, 340, 290), Rect(0, 0, 1000, 800), Rect(0, 0, 1920, 1040), 350, 280},
        // Odd sizes truncate: 500 - 150.
        {Rect(0, 0, 301, 201), Rect(0, 0, 1000, 1000), Rect(0, 0, 1920, 1040), 350, 400},
        // Wider and taller than the area: the left and top edges win.
        {Rect(0, 0, 2000, 1200), Rect(0, 0, 1920, 1040), Rect(0, 0, 1920, 1040), 0, 0},
        // Pushed up from the bottom and right from the left edge.
        {Rect(0, 0, 300, 240), Rect(-400, 900, 0, 1100), Rect(0, 0, 1920, 1040), 0, 800},
        // A work area that does not start at 0 (a second monitor on the left, a top task bar).
        {Rect(0, 0, 300, 240), Rect(-1920, 0, -1000, 100), Rect(-1920, 40, 0, 1080), -1610, 40},
        // Negative sums divide towards 0: (-1001) / 2 is -500, and 301 / 2 is 150.
        {Rect(0, 0, 301, 100), Rect(-1001, 0, 0, 100), Rect(-3000, 0, 3000, 1000), -650, 0},
    };
    for (const auto& row : rows)
    {
        ChooserPlace place = PlaceChooser(row.dialog, row.centre, row.area);
        EXPECT_EQ(place.x, row.x) << row.centre.left << "," << row.centre.top;
        EXPECT_EQ(place.y, row.y) << row.centre.left << "," << row.centre.top;
    }
}

// ---------------------------------------------------------------------------------------------------------
// Dialog resource 201, byte for byte.

class TemplateBytes
{
public:
    void Word(WORD value) { Raw(&value, 2); }
    void Dword(DWORD value) { Raw(&value, 4); }
    void Byte(BYTE value) { Raw(&value, 1); }
    void Text(const char* text)
    {
        for (; *text; ++text)
            Word(static_cast<BYTE>(*text));
        Word(0);
    }
    void Align()
    {
        while (bytes.size() % 4)
            Byte(0);
    }
    std::string bytes;

private:
    void Raw(const void* data, size_t size) { bytes.append(static_cast<const char*>(data), size); }
};

std::string ExpectedChooserTemplate()
{
    TemplateBytes t;
    t.Word(1);      // dlgVer
    t.Word(0xFFFF); // signature
    t.Dword(0);     // helpID
    t.Dword(0);     // exStyle
    t.Dword(0x80C800C8);
    t.Word(3);
    for (WORD v : {0, 0, 131, 92})
        t.Word(v);
    t.Word(0); // no menu
    t.Word(0); // default class
    t.Text("Dialog");
    t.Word(8);
    t.Word(400);
    t.Byte(0);
    t.Byte(1);
    t.Text("MS Shell Dlg");
    const struct
    {
        DWORD id;
        WORD y;
        const char* text;
    } buttons[] = {{201, 6, "Use Velmount API"}, {202, 33, "Use Default Explorer"}, {203, 60, "Cancel"}};
    for (const auto& button : buttons)
    {
        t.Align();
        t.Dword(0); // helpID
        t.Dword(0); // exStyle
        t.Dword(0x50010000);
        for (WORD v : {WORD(7), button.y, WORD(117), WORD(25)})
            t.Word(v);
        t.Dword(button.id);
        t.Word(0xFFFF);
        t.Word(0x0080); // Button
        t.Text(button.text);
        t.Word(0); // no creation data
    }
    return t.bytes;
}

TEST(ChooserResource, TemplateIsExactlyTheDialog)
{
    HMODULE module = ResourceModule();
    HRSRC found = FindResourceW(module, MAKEINTRESOURCEW(IDD_COPY_MOVE_CHOOSER), RT_DIALOG);
    ASSERT_NE(found, nullptr);
    DWORD size = SizeofResource(module, found);
    const void* data = LockResource(LoadResource(module, found));
    ASSERT_NE(data, nullptr);
    const std::string expected = ExpectedChooserTemplate();
    ASSERT_EQ(size, expected.size());
    EXPECT_EQ(std::memcmp(data, expected.data(), size), 0);
}

// ---------------------------------------------------------------------------------------------------------
// The user's answers.

struct AnswerRow
{
    const char* what;
    UINT operation;
    std::vector<UserStep> steps;
    LONG result;
    UINT choice;
    const char16_t* title;
};

TEST(ShowChooser, AnswersAndTitles)
{
    const UserStep velmount = ClickButton(IDC_USE_VELMOUNT_API),
                   explorer = ClickButton(IDC_USE_DEFAULT_EXPLORER), cancel = ClickButton(IDC_CHOOSER_CANCEL);
    const AnswerRow rows[] = {
        {"Use Velmount API", 1, {velmount}, 1, 1, u"Copy Files"},
        {"Use Default Explorer", 2, {explorer}, 1, 2, u"Move Files"},
        {"Cancel", 1, {cancel}, 2, 0, u"Copy Files"},
        {"Esc", 2, {PressEscape()}, 2, 0, u"Move Files"},
        {"any operation but 1 is a move", 0, {PressEscape()}, 2, 0, u"Move Files"},
        {"any operation but 1 is a move", 7, {velmount}, 1, 1, u"Move Files"},
        // IDOK ends nothing: the dialog goes on waiting, and the later click decides.
        {"IDOK, then Cancel", 1, {SendCommand(IDOK), cancel}, 2, 0, u"Copy Files"},
        {"IDOK, then Explorer", 2, {SendCommand(IDOK), explorer}, 1, 2, u"Move Files"},
        // The notification code in the high half of wParam is not looked at.
        {"command with a code", 1, {SendCommand(IDC_USE_DEFAULT_EXPLORER, 0x0300)}, 1, 2, u"Copy Files"},
        // Ids the dialog has no use for are not its business.
        {"unknown id, then Velmount", 1, {SendCommand(999), velmount}, 1, 1, u"Copy Files"},
    };
    for (const AnswerRow& row : rows)
    {
        SCOPED_TRACE(row.what);
        CopyMoveChooserDialog record(row.operation, nullptr);
        DialogAnswer answer(row.steps);
        EXPECT_EQ(ShowChooser(record, ResourceModule()), row.result);
        EXPECT_EQ(record.m_choice, row.choice);
        EXPECT_EQ(record.m_operation, row.operation);
        SeenDialog seen = answer.Seen();
        ASSERT_TRUE(seen.shown);
        EXPECT_EQ(seen.title, row.title);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Where the dialog appears.

struct PlaceRow
{
    const char* what;
    bool hasOwner;
    RECT ownerRect;
    bool visible, minimised;
    bool overOwner; // else centred on the work area
};

TEST(ShowChooser, PlacedOverAVisibleOwnerElseOverTheWorkArea)
{
    const RECT area = WorkAreaAt(10, 10);
    const LONG midX = (area.left + area.right) / 2, midY = (area.top + area.bottom) / 2;
    const PlaceRow rows[] = {
        {"visible owner", true, Rect(midX - 350, midY - 300, midX + 150, midY + 100), true, false, true},
        {"owner at the right edge", true, Rect(area.right - 200, 100, area.right, 400), true, false, true},
        {"owner above the top", true, Rect(100, area.top - 500, 700, area.top + 20), true, false, true},
        {"hidden owner", true, Rect(10, 10, 300, 200), false, false, false},
        {"minimised owner", true, Rect(10, 10, 300, 200), true, true, false},
        {"no owner", false, RECT{}, false, false, false},
    };
    for (const PlaceRow& row : rows)
    {
        SCOPED_TRACE(row.what);
        HWND owner = row.hasOwner ? CreateOwnerWindow(row.ownerRect, row.visible, row.minimised) : nullptr;
        ASSERT_EQ(owner != nullptr, row.hasOwner);
        CopyMoveChooserDialog record(1, owner);
        DialogAnswer answer({ClickButton(IDC_CHOOSER_CANCEL)});
        EXPECT_EQ(ShowChooser(record, ResourceModule()), 2);
        SeenDialog seen = answer.Seen();
        ASSERT_TRUE(seen.shown);
        EXPECT_EQ(seen.owner, owner);
        const LONG w = seen.rect.right - seen.rect.left, h = seen.rect.bottom - seen.rect.top;
        EXPECT_GT(w, 100);
        EXPECT_GT(h, 100);
        ChooserPlace expected = PlaceChooser(seen.rect, row.overOwner ? row.ownerRect : area, area);
        EXPECT_EQ(seen.rect.left, expected.x);
        EXPECT_EQ(seen.rect.top, expected.y);
        // Whatever the owner, the dialog ends up wholly inside the work area.
        EXPECT_GE(seen.rect.left, area.left);
        EXPECT_GE(seen.rect.top, area.top);
        EXPECT_LE(seen.rect.right, area.right);
        EXPECT_LE(seen.rect.bottom, area.bottom);
        if (owner)
            DestroyOwnerWindow(owner);
    }
}
} // namespace
