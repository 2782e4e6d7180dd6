#ifndef _WIN32
#include "tests/support/DialogAnswer.h"

#include "platform/host/ControlUi.h"

namespace TestSupport
{
struct DialogAnswer::State
{
    size_t shownBefore;
};

DialogAnswer::DialogAnswer(std::vector<UserStep> steps) : m_state(new State{VmHost::ShownDialogs().size()})
{
    std::vector<VmHost::DialogAction> actions;
    for (const UserStep& step : steps)
    {
        switch (step.kind)
        {
        case UserStep::ClickButton:
            actions.push_back(VmHost::Click(step.id));
            break;
        case UserStep::PressEscape:
            actions.push_back(VmHost::Escape());
            break;
        case UserStep::SendCommand:
            actions.push_back(VmHost::Command(step.id, step.notification));
            break;
        }
    }
    VmHost::ScriptDialog(actions);
}

// An answer no dialog came for must not answer a later one.
DialogAnswer::~DialogAnswer()
{
    VmHost::ClearDialogScripts();
    delete m_state;
}

SeenDialog DialogAnswer::Seen() const
{
    SeenDialog seen;
    const auto& shown = VmHost::ShownDialogs();
    if (shown.size() > m_state->shownBefore)
    {
        const VmHost::ShownDialog& dialog = shown[m_state->shownBefore];
        seen.shown = true;
        seen.title = dialog.title;
        seen.rect = dialog.rect;
        seen.owner = dialog.owner;
    }
    return seen;
}

HWND CreateOwnerWindow(const RECT& rect, bool visible, bool minimised)
{
    return VmHost::CreateTopWindow(rect, WS_OVERLAPPEDWINDOW | (visible ? WS_VISIBLE : 0) |
                                             (minimised ? WS_MINIMIZE : 0));
}

void DestroyOwnerWindow(HWND window)
{
    DestroyWindow(window);
}

RECT WorkAreaAt(LONG x, LONG y)
{
    RECT probe{x, y, x + 1, y + 1};
    HWND window = VmHost::CreateTopWindow(probe, 0);
    MONITORINFO info{};
    info.cbSize = sizeof(info);
    GetMonitorInfoW(MonitorFromWindow(window, MONITOR_DEFAULTTONEAREST), &info);
    DestroyWindow(window);
    return info.rcWork;
}
} // namespace TestSupport
#endif
