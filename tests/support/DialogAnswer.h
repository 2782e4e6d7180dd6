// Answering the next modal dialog of this thread as the user would. On the host the stand-in plays the
// answer; on Windows (and Wine) a hook on this thread waits for the real dialog to appear and then clicks
// its buttons, presses Esc or sends a command through the dialog's own message loop.
#pragma once

#include "platform/Win32.h"

#include <string>
#include <vector>

namespace TestSupport
{
struct UserStep
{
    enum Kind
    {
        ClickButton,
        PressEscape,
        SendCommand,
    };
    Kind kind;
    int id;
    WORD notification;
};
inline UserStep ClickButton(int id)
{
    return UserStep{UserStep::ClickButton, id, 0};
}
inline UserStep PressEscape()
{
    return UserStep{UserStep::PressEscape, IDCANCEL, 0};
}
// A WM_COMMAND that no click makes: an id without a button, or a notification code in the high half.
inline UserStep SendCommand(int id, WORD notification = 0)
{
    return UserStep{UserStep::SendCommand, id, notification};
}

// What the user saw when the dialog appeared.
struct SeenDialog
{
    bool shown = false;
    std::u16string title;
    RECT rect{};
    HWND owner = nullptr;
};

// Arranges the answer to the next modal dialog shown on the constructing thread, for as long as it lives.
class DialogAnswer
{
public:
    explicit DialogAnswer(std::vector<UserStep> steps);
    ~DialogAnswer();
    DialogAnswer(const DialogAnswer&) = delete;
    DialogAnswer& operator=(const DialogAnswer&) = delete;

    SeenDialog Seen() const;

    struct State; // one per platform

private:
    State* m_state;
};

// A top-level window of another program, visible or not, minimised or not: an owner for dialogs.
HWND CreateOwnerWindow(const RECT& rect, bool visible, bool minimised);
void DestroyOwnerWindow(HWND window);
// The work area of the monitor that holds the point (the primary one in the test environment).
RECT WorkAreaAt(LONG x, LONG y);
} // namespace TestSupport
