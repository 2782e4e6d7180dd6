#include "platform/host/Ui.h"

#include "platform/host/ControlUi.h"
#include "platform/host/Kernel.h"
#if __has_include("platform/host/Resources.h")
#include "platform/host/Resources.h"
#define VM_HAVE_RESOURCES 1
#endif

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

namespace
{
// ---------------------------------------------------------------------------------------------------------
// Menus

struct MenuItem
{
    UINT type = MFT_STRING;
    UINT state = 0;
    UINT id = 0;
    HMENU subMenu = nullptr;
    HBITMAP checked = nullptr;
    HBITMAP unchecked = nullptr;
    std::u16string text;
};

struct Menu
{
    std::vector<MenuItem> items;
};

// ---------------------------------------------------------------------------------------------------------
// Windows

struct Window
{
    std::u16string className;
    std::u16string text;
    DWORD style = 0;
    DWORD exStyle = 0;
    int id = 0;
    RECT rect{}; // screen pixels for top-level windows, parent client pixels for children
    HWND parent = nullptr;
    HWND owner = nullptr;
    LONG_PTR userData = 0;
    std::vector<HWND> children;
    bool ended = false;
    INT_PTR result = 0;
};

struct UiState
{
    std::recursive_mutex lock;
    std::map<uintptr_t, std::unique_ptr<Menu>> menus;
    std::map<uintptr_t, std::unique_ptr<Window>> windows;
    uintptr_t nextHandle = 0x10010;
    HWND foreground = nullptr;
    std::vector<VmHost::Monitor> monitors;
    std::deque<std::pair<bool, std::vector<VmHost::DialogAction>>> scripts; // (can show, actions)
    std::vector<VmHost::ShownDialog> shown;

    UiState() { monitors.push_back(DefaultMonitor()); }
    static VmHost::Monitor DefaultMonitor()
    {
        return VmHost::Monitor{{0, 0, 1280, 1024}, {0, 0, 1280, 1024}};
    }
};

UiState& State()
{
    static UiState* state = new UiState(); // lives as long as the process: windows may outlive tests' objects
    return *state;
}

uintptr_t NewHandle(UiState& state)
{
    state.nextHandle += 4;
    return state.nextHandle;
}

Menu* FindMenu(UiState& state, HMENU menu)
{
    auto found = state.menus.find(reinterpret_cast<uintptr_t>(menu));
    if (found == state.menus.end())
    {
        SetLastError(ERROR_INVALID_MENU_HANDLE);
        return nullptr;
    }
    return found->second.get();
}

Window* FindWindowRecord(UiState& state, HWND window)
{
    auto found = state.windows.find(reinterpret_cast<uintptr_t>(window));
    if (found == state.windows.end())
    {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return nullptr;
    }
    return found->second.get();
}

std::u16string TextOf(LPCWSTR text)
{
    return text ? std::u16string(text, static_cast<size_t>(lstrlenW(text))) : std::u16string();
}

// The item that `item` names: by position in this menu, or by command id here or in any submenu.
MenuItem* FindItem(UiState& state, Menu* menu, UINT item, bool byPosition, Menu** owner = nullptr,
                   size_t* index = nullptr)
{
    if (byPosition)
    {
        if (item >= menu->items.size())
            return nullptr;
        if (owner)
            *owner = menu;
        if (index)
            *index = item;
        return &menu->items[item];
    }
    for (size_t i = 0; i < menu->items.size(); ++i)
    {
        MenuItem& candidate = menu->items[i];
        if (!(candidate.type & MFT_SEPARATOR) && !candidate.subMenu && candidate.id == item)
        {
            if (owner)
                *owner = menu;
            if (index)
                *index = i;
            return &candidate;
        }
        if (candidate.subMenu)
        {
            auto sub = state.menus.find(reinterpret_cast<uintptr_t>(candidate.subMenu));
            if (sub != state.menus.end())
                if (MenuItem* found = FindItem(state, sub->second.get(), item, false, owner, index))
                    return found;
        }
    }
    return nullptr;
}

void DestroyWindowTree(UiState& state, HWND window)
{
    auto found = state.windows.find(reinterpret_cast<uintptr_t>(window));
    if (found == state.windows.end())
        return;
    std::vector<HWND> children = found->second->children;
    for (HWND child : children)
        DestroyWindowTree(state, child);
    if (state.foreground == window)
        state.foreground = nullptr;
    state.windows.erase(found);
}

HWND AddWindow(UiState& state, std::unique_ptr<Window> window)
{
    uintptr_t handle = NewHandle(state);
    HWND hwnd = reinterpret_cast<HWND>(handle);
    if (window->parent)
        if (Window* parent = FindWindowRecord(state, window->parent))
            parent->children.push_back(hwnd);
    state.windows[handle] = std::move(window);
    return hwnd;
}

long long Overlap(const RECT& a, const RECT& b)
{
    long long w = std::min<long long>(a.right, b.right) - std::max<long long>(a.left, b.left);
    long long h = std::min<long long>(a.bottom, b.bottom) - std::max<long long>(a.top, b.top);
    return (w > 0 && h > 0) ? w * h : 0;
}

long long DistanceSquared(const RECT& a, const RECT& b)
{
    long long dx = std::max<long long>(
        {0, static_cast<long long>(b.left) - a.right, static_cast<long long>(a.left) - b.right});
    long long dy = std::max<long long>(
        {0, static_cast<long long>(b.top) - a.bottom, static_cast<long long>(a.top) - b.bottom});
    return dx * dx + dy * dy;
}

HMONITOR MonitorHandle(size_t index)
{
    return reinterpret_cast<HMONITOR>(static_cast<uintptr_t>(0x7000 + index * 4));
}

// ---------------------------------------------------------------------------------------------------------
// Extended dialog templates, read with every length checked against the resource's size.

class TemplateReader
{
public:
    TemplateReader(const BYTE* data, size_t size) : m_data(data), m_size(size) {}
    bool Ok() const { return m_ok; }
    size_t Offset() const { return m_offset; }

    template <typename T> T Read()
    {
        T value{};
        if (!m_ok || m_size - m_offset < sizeof(T))
        {
            m_ok = false;
            return value;
        }
        std::memcpy(&value, m_data + m_offset, sizeof(T));
        m_offset += sizeof(T);
        return value;
    }

    std::u16string ReadText()
    {
        std::u16string text;
        for (;;)
        {
            WORD unit = Read<WORD>();
            if (!m_ok || unit == 0)
                return text;
            text += static_cast<char16_t>(unit);
        }
    }

    // A name or an ordinal (0xFFFF and a number, given back as "#n"); 0 alone is none.
    std::u16string ReadNameOrOrdinal()
    {
        WORD first = Read<WORD>();
        if (!m_ok || first == 0)
            return std::u16string();
        if (first == 0xFFFF)
        {
            WORD ordinal = Read<WORD>();
            std::string digits = "#" + std::to_string(ordinal);
            return std::u16string(digits.begin(), digits.end());
        }
        return static_cast<char16_t>(first) + ReadText();
    }

    void Skip(size_t count)
    {
        if (m_size - m_offset < count)
            m_ok = false;
        else
            m_offset += count;
    }

    void AlignTo4() { Skip(((m_offset + 3) & ~static_cast<size_t>(3)) - m_offset); }

private:
    const BYTE* m_data;
    size_t m_size;
    size_t m_offset = 0;
    bool m_ok = true;
};

struct TemplateControl
{
    DWORD style;
    DWORD exStyle;
    short x, y, cx, cy;
    int id;
    std::u16string className;
    std::u16string text;
};

struct DialogTemplate
{
    DWORD style;
    DWORD exStyle;
    short x, y, cx, cy;
    std::u16string title;
    std::vector<TemplateControl> controls;
};

[[maybe_unused]] bool ParseDialogTemplate(const BYTE* data, size_t size, DialogTemplate& out)
{
    TemplateReader reader(data, size);
    WORD version = reader.Read<WORD>();
    WORD signature = reader.Read<WORD>();
    if (!reader.Ok() || version != 1 || signature != 0xFFFF)
        return false;     // only the extended form is ever shipped
    reader.Read<DWORD>(); // helpID
    out.exStyle = reader.Read<DWORD>();
    out.style = reader.Read<DWORD>();
    WORD count = reader.Read<WORD>();
    out.x = reader.Read<short>();
    out.y = reader.Read<short>();
    out.cx = reader.Read<short>();
    out.cy = reader.Read<short>();
    reader.ReadNameOrOrdinal(); // menu
    reader.ReadNameOrOrdinal(); // class
    out.title = reader.ReadText();
    if (out.style & DS_SETFONT)
    {
        reader.Read<WORD>(); // point size
        reader.Read<WORD>(); // weight
        reader.Read<BYTE>(); // italic
        reader.Read<BYTE>(); // charset
        reader.ReadText();   // typeface
    }
    for (WORD i = 0; i < count && reader.Ok(); ++i)
    {
        reader.AlignTo4();
        TemplateControl control;
        reader.Read<DWORD>(); // helpID
        control.exStyle = reader.Read<DWORD>();
        control.style = reader.Read<DWORD>();
        control.x = reader.Read<short>();
        control.y = reader.Read<short>();
        control.cx = reader.Read<short>();
        control.cy = reader.Read<short>();
        control.id = static_cast<int>(reader.Read<DWORD>());
        control.className = reader.ReadNameOrOrdinal();
        control.text = reader.ReadNameOrOrdinal();
        WORD extra = reader.Read<WORD>();
        reader.Skip(extra);
        out.controls.push_back(control);
    }
    return reader.Ok();
}

int DluToPixelsX(int units)
{
    return (units * VmHost::DIALOG_BASE_X + 2) / 4;
}
int DluToPixelsY(int units)
{
    return (units * VmHost::DIALOG_BASE_Y + 4) / 8;
}

bool LoadDialogTemplate(HINSTANCE instance, LPCWSTR name, DialogTemplate& out)
{
#ifdef VM_HAVE_RESOURCES
    HRSRC resource = FindResourceW(instance, name, RT_DIALOG);
    if (!resource)
        return false;
    HGLOBAL loaded = LoadResource(instance, resource);
    DWORD size = SizeofResource(instance, resource);
    const BYTE* bytes = static_cast<const BYTE*>(LockResource(loaded));
    if (!bytes)
        return false;
    if (!ParseDialogTemplate(bytes, size, out))
    {
        SetLastError(ERROR_INVALID_DATA);
        return false;
    }
    return true;
#else
    (void)instance;
    (void)name;
    (void)out;
    SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
    return false;
#endif
}

// Builds the dialog window and its controls where the template puts them: at its x, y from the owner's
// top-left corner (the screen's without owner).
HWND CreateDialogFromTemplate(UiState& state, const DialogTemplate& dialog, HWND owner)
{
    auto window = std::make_unique<Window>();
    window->className = u"#32770";
    window->text = dialog.title;
    window->style = dialog.style;
    window->exStyle = dialog.exStyle;
    window->owner = owner;
    LONG originX = 0, originY = 0;
    if (Window* ownerRecord = owner ? FindWindowRecord(state, owner) : nullptr)
    {
        originX = ownerRecord->rect.left;
        originY = ownerRecord->rect.top;
    }
    const int frame = VmHost::DIALOG_FRAME;
    LONG left = originX + DluToPixelsX(dialog.x);
    LONG top = originY + DluToPixelsY(dialog.y);
    window->rect = RECT{left, top, left + DluToPixelsX(dialog.cx) + 2 * frame,
                        top + DluToPixelsY(dialog.cy) + 2 * frame + VmHost::DIALOG_CAPTION};
    HWND hwnd = AddWindow(state, std::move(window));
    for (const TemplateControl& control : dialog.controls)
    {
        auto child = std::make_unique<Window>();
        child->className = control.className;
        child->text = control.text;
        child->style = control.style;
        child->exStyle = control.exStyle;
        child->id = control.id;
        child->parent = hwnd;
        LONG x = DluToPixelsX(control.x), y = DluToPixelsY(control.y);
        child->rect = RECT{x, y, x + DluToPixelsX(control.cx), y + DluToPixelsY(control.cy)};
        AddWindow(state, std::move(child));
    }
    return hwnd;
}

HWND ChildById(UiState& state, HWND dialog, int id)
{
    Window* record = FindWindowRecord(state, dialog);
    if (!record)
        return nullptr;
    for (HWND child : record->children)
        if (Window* c = FindWindowRecord(state, child); c && c->id == id)
            return child;
    return nullptr;
}
} // namespace

// -------------------------------------------------------------------------------------------------------------
// Menus

HMENU CreatePopupMenu(void)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    uintptr_t handle = NewHandle(state);
    state.menus[handle] = std::make_unique<Menu>();
    return reinterpret_cast<HMENU>(handle);
}

HMENU CreateMenu(void)
{
    return CreatePopupMenu();
}

BOOL DestroyMenu(HMENU menu)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Menu* record = FindMenu(state, menu);
    if (!record)
        return FALSE;
    std::vector<HMENU> subMenus;
    for (const MenuItem& item : record->items)
        if (item.subMenu)
            subMenus.push_back(item.subMenu);
    state.menus.erase(reinterpret_cast<uintptr_t>(menu));
    for (HMENU sub : subMenus)
        DestroyMenu(sub);
    return TRUE;
}

BOOL IsMenu(HMENU menu)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    return state.menus.count(reinterpret_cast<uintptr_t>(menu)) ? TRUE : FALSE;
}

BOOL InsertMenuW(HMENU menu, UINT position, UINT flags, UINT_PTR idNewItem, LPCWSTR newItem)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Menu* record = FindMenu(state, menu);
    if (!record)
        return FALSE;
    MenuItem item;
    if (flags & MF_SEPARATOR)
        item.type = MFT_SEPARATOR;
    else
        item.text = TextOf(newItem);
    if (flags & MF_POPUP)
        item.subMenu = reinterpret_cast<HMENU>(idNewItem);
    else
        item.id = static_cast<UINT>(idNewItem);
    item.state = flags & (MF_GRAYED | MF_DISABLED | MF_CHECKED | MF_DEFAULT);

    size_t index = record->items.size(); // a position past the end appends, as on Windows
    if (flags & MF_BYPOSITION)
    {
        if (position < record->items.size())
            index = position;
    }
    else if (position != static_cast<UINT>(-1))
    {
        Menu* owner = nullptr;
        size_t at = 0;
        if (!FindItem(state, record, position, false, &owner, &at))
        {
            SetLastError(ERROR_MENU_ITEM_NOT_FOUND);
            return FALSE;
        }
        owner->items.insert(owner->items.begin() + static_cast<std::ptrdiff_t>(at), item);
        return TRUE;
    }
    record->items.insert(record->items.begin() + static_cast<std::ptrdiff_t>(index), item);
    return TRUE;
}

BOOL AppendMenuW(HMENU menu, UINT flags, UINT_PTR idNewItem, LPCWSTR newItem)
{
    return InsertMenuW(menu, static_cast<UINT>(-1), flags | MF_BYPOSITION, idNewItem, newItem);
}

int GetMenuItemCount(HMENU menu)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Menu* record = FindMenu(state, menu);
    return record ? static_cast<int>(record->items.size()) : -1;
}

UINT GetMenuItemID(HMENU menu, int position)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Menu* record = FindMenu(state, menu);
    if (!record || position < 0 || static_cast<size_t>(position) >= record->items.size())
        return static_cast<UINT>(-1);
    const MenuItem& item = record->items[static_cast<size_t>(position)];
    return item.subMenu ? static_cast<UINT>(-1) : item.id;
}

BOOL GetMenuItemInfoW(HMENU menu, UINT item, BOOL byPosition, LPMENUITEMINFOW info)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    if (!info || info->cbSize != sizeof(MENUITEMINFOW))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    Menu* record = FindMenu(state, menu);
    if (!record)
        return FALSE;
    MenuItem* found = FindItem(state, record, item, byPosition != FALSE);
    if (!found)
    {
        SetLastError(ERROR_MENU_ITEM_NOT_FOUND);
        return FALSE;
    }
    if (info->fMask & (MIIM_FTYPE | MIIM_TYPE))
        info->fType = found->type;
    if (info->fMask & MIIM_STATE)
        info->fState = found->state;
    if (info->fMask & MIIM_ID)
        info->wID = found->id;
    if (info->fMask & MIIM_SUBMENU)
        info->hSubMenu = found->subMenu;
    if (info->fMask & MIIM_CHECKMARKS)
    {
        info->hbmpChecked = found->checked;
        info->hbmpUnchecked = found->unchecked;
    }
    if (info->fMask & (MIIM_STRING | MIIM_TYPE))
    {
        UINT length = static_cast<UINT>(found->text.size());
        if (info->dwTypeData && info->cch > 0)
        {
            UINT copied = std::min(length, info->cch - 1);
            std::memcpy(info->dwTypeData, found->text.data(), copied * sizeof(WCHAR));
            info->dwTypeData[copied] = 0;
            info->cch = copied;
        }
        else
            info->cch = length;
    }
    return TRUE;
}

int GetMenuStringW(HMENU menu, UINT item, LPWSTR text, int capacity, UINT flags)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Menu* record = FindMenu(state, menu);
    if (!record)
        return 0;
    MenuItem* found = FindItem(state, record, item, (flags & MF_BYPOSITION) != 0);
    if (!found)
    {
        SetLastError(ERROR_MENU_ITEM_NOT_FOUND);
        return 0;
    }
    int length = static_cast<int>(found->text.size());
    if (!text || capacity <= 0)
        return length;
    int copied = std::min(length, capacity - 1);
    std::memcpy(text, found->text.data(), static_cast<size_t>(copied) * sizeof(WCHAR));
    text[copied] = 0;
    return copied;
}

BOOL SetMenuItemBitmaps(HMENU menu, UINT position, UINT flags, HBITMAP unchecked, HBITMAP checked)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Menu* record = FindMenu(state, menu);
    if (!record)
        return FALSE;
    MenuItem* found = FindItem(state, record, position, (flags & MF_BYPOSITION) != 0);
    if (!found)
    {
        SetLastError(ERROR_MENU_ITEM_NOT_FOUND);
        return FALSE;
    }
    found->unchecked = unchecked;
    found->checked = checked;
    return TRUE;
}

BOOL SetMenuDefaultItem(HMENU menu, UINT item, UINT byPosition)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Menu* record = FindMenu(state, menu);
    if (!record)
        return FALSE;
    MenuItem* target = nullptr;
    if (item != static_cast<UINT>(-1))
    {
        target = FindItem(state, record, item, byPosition != 0);
        // By command id the default must be an item of this menu itself, not of a submenu.
        if (target && !byPosition &&
            (target < record->items.data() || target >= record->items.data() + record->items.size()))
            target = nullptr;
        if (!target)
        {
            SetLastError(ERROR_MENU_ITEM_NOT_FOUND);
            return FALSE;
        }
    }
    for (MenuItem& each : record->items)
        each.state &= ~static_cast<UINT>(MFS_DEFAULT);
    if (target)
        target->state |= MFS_DEFAULT;
    return TRUE;
}

UINT GetMenuDefaultItem(HMENU menu, UINT byPosition, UINT)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Menu* record = FindMenu(state, menu);
    if (!record)
        return static_cast<UINT>(-1);
    for (size_t i = 0; i < record->items.size(); ++i)
        if (record->items[i].state & MFS_DEFAULT)
            return byPosition ? static_cast<UINT>(i) : record->items[i].id;
    return static_cast<UINT>(-1);
}

// -------------------------------------------------------------------------------------------------------------
// Windows

BOOL IsWindow(HWND window)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    return state.windows.count(reinterpret_cast<uintptr_t>(window)) ? TRUE : FALSE;
}

BOOL DestroyWindow(HWND window)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, window);
    if (!record)
        return FALSE;
    if (record->parent)
        if (Window* parent = FindWindowRecord(state, record->parent))
            parent->children.erase(std::remove(parent->children.begin(), parent->children.end(), window),
                                   parent->children.end());
    DestroyWindowTree(state, window);
    return TRUE;
}

BOOL SetWindowTextW(HWND window, LPCWSTR text)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, window);
    if (!record)
        return FALSE;
    record->text = TextOf(text);
    return TRUE;
}

int GetWindowTextW(HWND window, LPWSTR text, int capacity)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, window);
    if (!record || !text || capacity <= 0)
        return 0;
    int copied = std::min(static_cast<int>(record->text.size()), capacity - 1);
    std::memcpy(text, record->text.data(), static_cast<size_t>(copied) * sizeof(WCHAR));
    text[copied] = 0;
    return copied;
}

BOOL GetWindowRect(HWND window, LPRECT rect)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, window);
    if (!record || !rect)
        return FALSE;
    RECT result = record->rect;
    // A child's rect is kept in its parent's client area; the answer is in screen pixels.
    for (HWND parent = record->parent; parent;)
    {
        Window* p = FindWindowRecord(state, parent);
        if (!p)
            break;
        LONG dx = p->rect.left + (p->parent ? 0 : VmHost::DIALOG_FRAME);
        LONG dy = p->rect.top + (p->parent ? 0 : VmHost::DIALOG_FRAME + VmHost::DIALOG_CAPTION);
        result.left += dx;
        result.right += dx;
        result.top += dy;
        result.bottom += dy;
        parent = p->parent;
    }
    *rect = result;
    return TRUE;
}

LONG GetWindowLongW(HWND window, int index)
{
    return static_cast<LONG>(GetWindowLongPtrW(window, index));
}

LONG_PTR GetWindowLongPtrW(HWND window, int index)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, window);
    if (!record)
        return 0;
    switch (index)
    {
    case GWL_STYLE:
        return static_cast<LONG>(record->style);
    case GWL_EXSTYLE:
        return static_cast<LONG>(record->exStyle);
    case GWL_ID:
        return record->id;
    case GWLP_USERDATA:
        return record->userData;
    default:
        SetLastError(ERROR_INVALID_PARAMETER); // ERROR_INVALID_INDEX on Windows; no caller here relies on it
        return 0;
    }
}

LONG_PTR SetWindowLongPtrW(HWND window, int index, LONG_PTR value)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, window);
    if (!record)
        return 0;
    LONG_PTR previous = 0;
    switch (index)
    {
    case GWL_STYLE:
        previous = static_cast<LONG>(record->style);
        record->style = static_cast<DWORD>(value);
        break;
    case GWL_EXSTYLE:
        previous = static_cast<LONG>(record->exStyle);
        record->exStyle = static_cast<DWORD>(value);
        break;
    case GWL_ID:
        previous = record->id;
        record->id = static_cast<int>(value);
        break;
    case GWLP_USERDATA:
        previous = record->userData;
        record->userData = value;
        break;
    default:
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    SetLastError(0);
    return previous;
}

HWND GetWindow(HWND window, UINT command)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, window);
    if (!record)
        return nullptr;
    switch (command)
    {
    case GW_OWNER:
        return record->owner;
    case GW_CHILD:
        return record->children.empty() ? nullptr : record->children.front();
    case GW_HWNDNEXT:
        if (Window* parent = record->parent ? FindWindowRecord(state, record->parent) : nullptr)
        {
            auto at = std::find(parent->children.begin(), parent->children.end(), window);
            if (at != parent->children.end() && ++at != parent->children.end())
                return *at;
        }
        return nullptr;
    default:
        return nullptr;
    }
}

HWND GetForegroundWindow(void)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    return state.foreground;
}

BOOL SetForegroundWindow(HWND window)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    if (!FindWindowRecord(state, window))
        return FALSE;
    state.foreground = window;
    return TRUE;
}

BOOL SetWindowPos(HWND window, HWND, int x, int y, int cx, int cy, UINT flags)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, window);
    if (!record)
        return FALSE;
    LONG width = record->rect.right - record->rect.left;
    LONG height = record->rect.bottom - record->rect.top;
    if (!(flags & SWP_NOSIZE))
    {
        width = cx;
        height = cy;
    }
    LONG left = record->rect.left, top = record->rect.top;
    if (!(flags & SWP_NOMOVE))
    {
        left = x;
        top = y;
    }
    record->rect = RECT{left, top, left + width, top + height};
    return TRUE;
}

HMONITOR MonitorFromWindow(HWND window, DWORD flags)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    RECT rect{};
    Window* record = FindWindowRecord(state, window);
    if (state.monitors.empty())
        return nullptr;
    if (!record)
        return flags == MONITOR_DEFAULTTONULL ? nullptr : MonitorHandle(0);
    GetWindowRect(window, &rect);
    size_t best = 0;
    long long bestOverlap = 0;
    for (size_t i = 0; i < state.monitors.size(); ++i)
    {
        long long overlap = Overlap(rect, state.monitors[i].monitor);
        if (overlap > bestOverlap)
        {
            bestOverlap = overlap;
            best = i;
        }
    }
    if (bestOverlap > 0)
        return MonitorHandle(best);
    if (flags == MONITOR_DEFAULTTONULL)
        return nullptr;
    if (flags == MONITOR_DEFAULTTOPRIMARY)
        return MonitorHandle(0);
    long long bestDistance = -1;
    for (size_t i = 0; i < state.monitors.size(); ++i)
    {
        long long distance = DistanceSquared(rect, state.monitors[i].monitor);
        if (bestDistance < 0 || distance < bestDistance)
        {
            bestDistance = distance;
            best = i;
        }
    }
    return MonitorHandle(best);
}

BOOL GetMonitorInfoW(HMONITOR monitor, LPMONITORINFO info)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    uintptr_t value = reinterpret_cast<uintptr_t>(monitor);
    if (!info || info->cbSize != sizeof(MONITORINFO) || value < 0x7000 || (value - 0x7000) % 4 != 0 ||
        (value - 0x7000) / 4 >= state.monitors.size())
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    size_t index = (value - 0x7000) / 4;
    info->rcMonitor = state.monitors[index].monitor;
    info->rcWork = state.monitors[index].work;
    info->dwFlags = index == 0 ? MONITORINFOF_PRIMARY : 0;
    return TRUE;
}

// -------------------------------------------------------------------------------------------------------------
// Modal dialogs

INT_PTR DialogBoxParamW(HINSTANCE instance, LPCWSTR templateName, HWND parent, DLGPROC dialogProc,
                        LPARAM initParam)
{
    UiState& state = State();
    std::unique_lock<std::recursive_mutex> guard(state.lock);
    if (!dialogProc)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return -1;
    }
    DialogTemplate dialog;
    if (!LoadDialogTemplate(instance, templateName, dialog))
        return -1;
    if (state.scripts.empty() || !state.scripts.front().first)
    {
        if (!state.scripts.empty())
            state.scripts.pop_front();
        SetLastError(ERROR_CANCELLED);
        return -1;
    }
    std::vector<VmHost::DialogAction> actions = state.scripts.front().second;
    state.scripts.pop_front();

    HWND hwnd = CreateDialogFromTemplate(state, dialog, parent);
    VmHost::ShownDialog shown{};
    shown.instance = instance;
    shown.templateName = IS_INTRESOURCE(templateName) ? reinterpret_cast<ULONG_PTR>(templateName) : 0;
    shown.owner = parent;
    shown.style = dialog.style;

    // The focus goes to the first tab stop, which WM_INITDIALOG gets as wParam.
    HWND focus = nullptr;
    for (HWND child : FindWindowRecord(state, hwnd)->children)
        if (FindWindowRecord(state, child)->style & WS_TABSTOP)
        {
            focus = child;
            break;
        }
    guard.unlock(); // the procedure calls back into the window functions
    dialogProc(hwnd, WM_INITDIALOG, reinterpret_cast<WPARAM>(focus), initParam);
    guard.lock();

    Window* record = FindWindowRecord(state, hwnd);
    shown.title = record->text;
    shown.rect = record->rect;
    for (HWND child : record->children)
    {
        Window* c = FindWindowRecord(state, child);
        shown.controls.push_back(VmHost::ShownControl{c->id, c->className, c->text, c->style, c->rect});
    }

    for (const VmHost::DialogAction& action : actions)
    {
        if (FindWindowRecord(state, hwnd)->ended)
            break;
        ++shown.actionsPlayed;
        WPARAM wParam = MAKEWPARAM(action.id, action.notification);
        LPARAM lParam = 0;
        if (action.kind == VmHost::DialogAction::ClickButton)
        {
            HWND button = ChildById(state, hwnd, action.id);
            Window* b = button ? FindWindowRecord(state, button) : nullptr;
            if (!b || !(b->style & WS_VISIBLE) || (b->style & WS_DISABLED))
                continue; // nothing there to click
            lParam = reinterpret_cast<LPARAM>(button);
        }
        guard.unlock();
        dialogProc(hwnd, WM_COMMAND, wParam, lParam);
        guard.lock();
    }
    record = FindWindowRecord(state, hwnd);
    shown.ended = record->ended;
    shown.leftOpen = !record->ended;
    // A dialog still waiting when the script runs out is taken down as if it could not be kept: -1.
    shown.result = record->ended ? record->result : -1;
    DestroyWindow(hwnd);
    state.shown.push_back(shown);
    if (!shown.ended)
        SetLastError(ERROR_CANCELLED);
    return shown.result;
}

BOOL EndDialog(HWND dialog, INT_PTR result)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    Window* record = FindWindowRecord(state, dialog);
    if (!record)
        return FALSE;
    record->ended = true;
    record->result = result;
    return TRUE;
}

HWND GetDlgItem(HWND dialog, int id)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    HWND child = ChildById(state, dialog, id);
    if (!child)
        SetLastError(ERROR_CONTROL_ID_NOT_FOUND);
    return child;
}

// -------------------------------------------------------------------------------------------------------------
// Control

namespace VmHost
{
void ScriptDialog(const std::vector<DialogAction>& actions)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    state.scripts.emplace_back(true, actions);
}

void ScriptDialogCannotShow()
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    state.scripts.emplace_back(false, std::vector<DialogAction>());
}

void ClearDialogScripts()
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    state.scripts.clear();
}

const std::vector<ShownDialog>& ShownDialogs()
{
    return State().shown;
}

void SetMonitors(const std::vector<Monitor>& monitors)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    state.monitors = monitors;
}

HWND CreateTopWindow(const RECT& rect, DWORD style)
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    auto window = std::make_unique<Window>();
    window->className = u"VmHostWindow";
    window->style = style;
    window->rect = rect;
    return AddWindow(state, std::move(window));
}

void ResetUi()
{
    UiState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    state.menus.clear();
    state.windows.clear();
    state.foreground = nullptr;
    state.monitors.assign(1, UiState::DefaultMonitor());
    state.scripts.clear();
    state.shown.clear();
}
} // namespace VmHost
