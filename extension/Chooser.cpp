#include "extension/Chooser.h"

namespace
{
// 32-bit two's-complement arithmetic without undefined behaviour on overflow.
LONG Add32(LONG a, LONG b)
{
    return static_cast<LONG>(static_cast<DWORD>(a) + static_cast<DWORD>(b));
}
LONG Sub32(LONG a, LONG b)
{
    return static_cast<LONG>(static_cast<DWORD>(a) - static_cast<DWORD>(b));
}

const DWORD SWP_PLACE_ONLY = SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE;
const DWORD MONITOR_INFO_SIZE = 40;

// Title first, then the place: over the owner when it can be seen, else over the work area of the monitor
// nearest to the dialog, and always inside that monitor's work area.
void SetUpChooser(HWND dialog, CopyMoveChooserDialog* record)
{
    SetWindowTextW(dialog, record->m_operation == 1 ? TEXT("Copy Files") : TEXT("Move Files"));
    SetWindowLongPtrW(dialog, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(record));

    HWND anchor = record->m_owner;
    if (!anchor)
        anchor = GetWindow(dialog, GW_OWNER);
    RECT dialogRect{};
    GetWindowRect(dialog, &dialogRect);
    if (anchor)
    {
        // A hidden or minimised owner gives no useful place.
        DWORD style = static_cast<DWORD>(GetWindowLongW(anchor, GWL_STYLE));
        if (!(style & WS_VISIBLE) || (style & WS_MINIMIZE))
            anchor = nullptr;
    }
    HMONITOR monitor = MonitorFromWindow(anchor ? anchor : dialog, MONITOR_DEFAULTTONEAREST);
    if (!monitor)
        return; // the template's place will do
    MONITORINFO info{};
    info.cbSize = MONITOR_INFO_SIZE;
    if (!GetMonitorInfoW(monitor, &info))
        return;
    const RECT area = info.rcWork;
    RECT centre = area;
    if (anchor)
        GetWindowRect(anchor, &centre);
    ChooserPlace place = PlaceChooser(dialogRect, centre, area);
    SetWindowPos(dialog, nullptr, place.x, place.y, -1, -1, SWP_PLACE_ONLY);
}

INT_PTR EndChooser(HWND dialog, INT_PTR result)
{
    EndDialog(dialog, result);
    return 1;
}
} // namespace

static_assert(sizeof(MONITORINFO) == 40, "MONITORINFO layout");

ChooserPlace PlaceChooser(const RECT& dialogRect, const RECT& centre, const RECT& area)
{
    const LONG w = Sub32(dialogRect.right, dialogRect.left);
    const LONG h = Sub32(dialogRect.bottom, dialogRect.top);
    LONG x = Sub32(Add32(centre.left, centre.right) / 2, w / 2);
    LONG y = Sub32(Add32(centre.top, centre.bottom) / 2, h / 2);
    if (Add32(x, w) > area.right)
        x = Sub32(area.right, w);
    if (x < area.left)
        x = area.left;
    if (Add32(y, h) > area.bottom)
        y = Sub32(area.bottom, h);
    if (y < area.top)
        y = area.top;
    return ChooserPlace{x, y};
}

LONG ShowChooser(CopyMoveChooserDialog& record, HINSTANCE instance)
{
    return static_cast<LONG>(DialogBoxParamW(instance, MAKEINTRESOURCEW(IDD_COPY_MOVE_CHOOSER),
                                             record.m_owner, ChooserDialogProc,
                                             reinterpret_cast<LPARAM>(&record)));
}

INT_PTR CALLBACK ChooserDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam)
{
    auto* record = reinterpret_cast<CopyMoveChooserDialog*>(GetWindowLongPtrW(dialog, GWLP_USERDATA));
    switch (message)
    {
    case WM_INITDIALOG:
        if (lParam)
            SetUpChooser(dialog, reinterpret_cast<CopyMoveChooserDialog*>(lParam));
        return 1; // the dialog manager sets the focus as usual
    case WM_COMMAND:
        // Only the control id counts; the notification code in the high half is not looked at.
        switch (LOWORD(wParam))
        {
        case IDC_USE_VELMOUNT_API:
            if (record)
                record->m_choice = 1;
            return EndChooser(dialog, 1);
        case IDC_USE_DEFAULT_EXPLORER:
            if (record)
                record->m_choice = 2;
            return EndChooser(dialog, 1);
        case IDC_CHOOSER_CANCEL:
        case IDCANCEL:
            return EndChooser(dialog, 2);
        case IDOK:
            // Enter on the button the dialog focused at its start: with no default button the dialog
            // manager sends IDOK, which ends nothing. Once the user has moved the focus (Tab, arrows), the
            // focused button takes the default look and answers Enter itself, as its own click.
            return 1;
        default:
            return 0;
        }
    default:
        return 0;
    }
}
