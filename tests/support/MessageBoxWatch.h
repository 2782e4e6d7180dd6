// Seeing and answering message boxes as the user would. On the host the stand-in records them and answers
// with the dismissing button; on Windows (and Wine) a watcher thread finds each message box of this process,
// reads its caption and text, and presses its default button.
#pragma once

#include "platform/Win32.h"

#include <string>
#include <vector>

namespace TestSupport
{
struct SeenMessageBox
{
    std::string caption; // UTF-8
    std::string text;    // UTF-8
    // The host only: the owner and the flags as passed (the watcher on Windows sees only the window).
    HWND owner = nullptr;
    UINT type = 0;
};

class MessageBoxWatch
{
public:
    // The first box is answered with `firstAnswer` (IDYES, IDNO, ...) when it is not 0; every other box with
    // its default (Windows: IDOK) or dismissing (host) button, so a yes/no question is declined.
    explicit MessageBoxWatch(int firstAnswer = 0);
    ~MessageBoxWatch();
    MessageBoxWatch(const MessageBoxWatch&) = delete;
    MessageBoxWatch& operator=(const MessageBoxWatch&) = delete;

    // The message boxes shown since the watch began, oldest first.
    std::vector<SeenMessageBox> Seen() const;

    struct State; // one per platform

private:
    State* m_state;
};
} // namespace TestSupport
