// Test control of message boxes and ShowWindow: what was shown, and what the user answers next.
#pragma once

#include "platform/host/Types.h"

#include <string>
#include <vector>

namespace VmHost
{
struct MessageBoxRecord
{
    HWND owner;
    std::u16string text;
    std::u16string caption;
    UINT type;
    int answer;
};
struct ShowWindowRecord
{
    HWND window;
    int command;
};

void QueueMessageBoxAnswer(int answer);
std::vector<MessageBoxRecord> MessageBoxes();
std::vector<ShowWindowRecord> ShownWindows();
void ClearMessageBoxes();
} // namespace VmHost
