// The copy/move chooser: a small modal question put when a drop offers only one of the file manager's
// commands. It knows nothing of menus or drives: an operation and an owner in, a result and a choice out.
#pragma once

#include "platform/Win32.h"

// Dialog resource 201 and its buttons.
constexpr int IDD_COPY_MOVE_CHOOSER = 201;
constexpr int IDC_USE_VELMOUNT_API = 201;
constexpr int IDC_USE_DEFAULT_EXPLORER = 202;
constexpr int IDC_CHOOSER_CANCEL = 203;

// Lives on the caller's stack for one question; the dialog holds a pointer to it while it runs.
struct CopyMoveChooserDialog
{
    CopyMoveChooserDialog(UINT operation, HWND owner) : m_operation(operation), m_choice(0), m_owner(owner) {}

    UINT m_operation; // 1: the title says copy; any other value: move
    UINT m_choice;    // 0 until a service is chosen: 1 the extension's, 2 the file manager's
    HWND m_owner;     // may be null
};

struct ChooserPlace
{
    LONG x;
    LONG y;
};

// Centres `dialogRect` on `centre`, then pushes it back into `area` (left and top edges win when it does
// not fit). Plain signed 32-bit arithmetic, divisions truncating towards 0.
ChooserPlace PlaceChooser(const RECT& dialogRect, const RECT& centre, const RECT& area);

// Asks the question; blocks until it is answered. Returns DialogBoxParamW's result: 1 when a service was
// chosen (see m_choice), 2 when dismissed, anything else when the dialog could not be shown.
LONG ShowChooser(CopyMoveChooserDialog& record, HINSTANCE instance);

INT_PTR CALLBACK ChooserDialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);
