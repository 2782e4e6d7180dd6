// Arranging the windowing world of the stand-in from tests and tools: monitors, top-level windows, the
// foreground window, and how the user answers the next modal dialogs. Host build only.
#pragma once

#include "platform/host/Ui.h"

#include <string>
#include <vector>

namespace VmHost
{
// How the user answers a modal dialog, one step at a time.
struct DialogAction
{
    enum Kind
    {
        ClickButton, // the user clicks the control with `id` (WM_COMMAND, BN_CLICKED, from the button)
        PressEscape, // Esc or the close box: WM_COMMAND with IDCANCEL
        SendCommand, // a WM_COMMAND with `id` that no visible control sends (IDOK, for one)
    };
    Kind kind;
    int id;
    WORD notification; // the high half of WM_COMMAND's wParam
};
inline DialogAction Click(int id)
{
    return DialogAction{DialogAction::ClickButton, id, BN_CLICKED};
}
inline DialogAction Escape()
{
    return DialogAction{DialogAction::PressEscape, IDCANCEL, 0};
}
inline DialogAction Command(int id, WORD notification = 0)
{
    return DialogAction{DialogAction::SendCommand, id, notification};
}

// The answer to the next DialogBoxParamW call. Scripts are used in the order given. A dialog without a
// script cannot be shown (as without a display): DialogBoxParamW returns -1 before WM_INITDIALOG.
void ScriptDialog(const std::vector<DialogAction>& actions);
void ScriptDialogCannotShow();
// Drops the scripts that no dialog has used yet.
void ClearDialogScripts();

struct ShownControl
{
    int id;
    std::u16string className; // "#128" for the Button ordinal
    std::u16string text;
    DWORD style;
    RECT rect; // in the dialog's client coordinates, pixels
};

// What one DialogBoxParamW call showed and how it ended.
struct ShownDialog
{
    HINSTANCE instance;
    ULONG_PTR templateName; // the resource id, when given as one
    HWND owner;
    DWORD style;
    std::u16string title; // as the user first saw it: after WM_INITDIALOG
    RECT rect;            // window rect in screen pixels, after WM_INITDIALOG
    std::vector<ShownControl> controls;
    size_t actionsPlayed;
    bool ended;    // EndDialog was called
    bool leftOpen; // the script ran out while the dialog was still waiting
    INT_PTR result;
};
const std::vector<ShownDialog>& ShownDialogs();

struct Monitor
{
    RECT monitor;
    RECT work;
};
// Replaces the monitors (the first is the primary). The default is one of 1280 x 1024 with that as its work
// area. An empty list: no monitor at all, so MonitorFromWindow gives null.
void SetMonitors(const std::vector<Monitor>& monitors);

// A top-level window of another program: used as owners and foreground windows.
HWND CreateTopWindow(const RECT& rect, DWORD style);

// Dialog units to pixels, as for the system font of the stand-in (6 x 13 base units); the dialog's frame.
constexpr int DIALOG_BASE_X = 6;
constexpr int DIALOG_BASE_Y = 13;
constexpr int DIALOG_FRAME = 3;
constexpr int DIALOG_CAPTION = 23;

// Forgets windows, menus, scripts, the record of shown dialogs, and restores the default monitor.
void ResetUi();
} // namespace VmHost
