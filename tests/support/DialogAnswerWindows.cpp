#ifdef _WIN32
#include "tests/support/DialogAnswer.h"

namespace TestSupport
{
namespace
{
// One answer per thread at a time: the hook procedure has no context argument. A slot of the system's thread
// storage rather than thread_local: the x64 build emulates thread-locals as libstdc++ does, and clang's
// CodeView record of an emulated thread-local names a symbol that no object defines.
DWORD CurrentSlot()
{
    static const DWORD slot = TlsAlloc();
    return slot;
}

DialogAnswer::State* Current()
{
    return static_cast<DialogAnswer::State*>(TlsGetValue(CurrentSlot()));
}

void SetCurrent(DialogAnswer::State* state)
{
    TlsSetValue(CurrentSlot(), state);
}
} // namespace

struct DialogAnswer::State
{
    std::vector<UserStep> steps;
    SeenDialog seen;
    HHOOK hook = nullptr;
    HWND dialog = nullptr;

    // The dialog has just been made visible by its modal loop: note what the user sees, then act. The steps
    // are posted, so the dialog's own loop delivers them in order, as it would the user's input.
    void Answer(HWND window)
    {
        dialog = window;
        seen.shown = true;
        WCHAR title[256] = {};
        GetWindowTextW(window, title, 256);
        seen.title.assign(reinterpret_cast<const char16_t*>(title));
        GetWindowRect(window, &seen.rect);
        seen.owner = GetWindow(window, GW_OWNER);
        for (const UserStep& step : steps)
        {
            switch (step.kind)
            {
            case UserStep::ClickButton:
                PostMessageW(GetDlgItem(window, step.id), BM_CLICK, 0, 0);
                break;
            case UserStep::PressEscape:
                PostMessageW(window, WM_KEYDOWN, VK_ESCAPE, 0x00010001);
                PostMessageW(window, WM_KEYUP, VK_ESCAPE, 0xC0010001);
                break;
            case UserStep::SendCommand:
                PostMessageW(window, WM_COMMAND, MAKEWPARAM(step.id, step.notification), 0);
                break;
            }
        }
    }
};

namespace
{
LRESULT CALLBACK WatchShown(int code, WPARAM wParam, LPARAM lParam)
{
    if (code == HC_ACTION && Current())
    {
        const CWPSTRUCT* message = reinterpret_cast<const CWPSTRUCT*>(lParam);
        WCHAR className[32] = {};
        if (message->message == WM_SHOWWINDOW && message->wParam &&
            GetClassNameW(message->hwnd, className, 32) && lstrcmpW(className, TEXT("#32770")) == 0)
        {
            DialogAnswer::State* answer = Current();
            SetCurrent(nullptr); // the next dialog is not ours to answer
            answer->Answer(message->hwnd);
        }
    }
    return CallNextHookEx(nullptr, code, wParam, lParam);
}
} // namespace

DialogAnswer::DialogAnswer(std::vector<UserStep> steps) : m_state(new State)
{
    m_state->steps = std::move(steps);
    m_state->hook = SetWindowsHookExW(WH_CALLWNDPROC, WatchShown, nullptr, GetCurrentThreadId());
    SetCurrent(m_state);
}

DialogAnswer::~DialogAnswer()
{
    if (Current() == m_state)
        SetCurrent(nullptr);
    if (m_state->hook)
        UnhookWindowsHookEx(m_state->hook);
    delete m_state;
}

SeenDialog DialogAnswer::Seen() const
{
    return m_state->seen;
}

HWND CreateOwnerWindow(const RECT& rect, bool visible, bool minimised)
{
    DWORD style = WS_POPUP | WS_CAPTION | (visible ? WS_VISIBLE : 0) | (minimised ? WS_MINIMIZE : 0);
    return CreateWindowExW(0, TEXT("STATIC"), TEXT("Velmount test owner"), style, rect.left, rect.top,
                           rect.right - rect.left, rect.bottom - rect.top, nullptr, nullptr,
                           GetModuleHandleW(nullptr), nullptr);
}

void DestroyOwnerWindow(HWND window)
{
    DestroyWindow(window);
}

RECT WorkAreaAt(LONG x, LONG y)
{
    MONITORINFO info{};
    info.cbSize = sizeof(info);
    GetMonitorInfoW(MonitorFromPoint(POINT{x, y}, MONITOR_DEFAULTTONEAREST), &info);
    return info.rcWork;
}
} // namespace TestSupport
#endif
