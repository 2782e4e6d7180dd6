#ifdef _WIN32
#include "tests/support/MessageBoxWatch.h"

#include "tests/support/ProgressRecorder.h"

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

namespace TestSupport
{
struct MessageBoxWatch::State
{
    int firstAnswer = 0;
    std::atomic<bool> stop{false};
    mutable std::mutex lock;
    std::vector<SeenMessageBox> seen;
    std::set<HWND> answered;
    std::thread watcher;

    static BOOL CALLBACK Visit(HWND window, LPARAM context)
    {
        auto* state = reinterpret_cast<State*>(context);
        DWORD process = 0;
        GetWindowThreadProcessId(window, &process);
        WCHAR className[64] = {};
        GetClassNameW(window, className, 64);
        if (process != GetCurrentProcessId() || lstrcmpW(className, L"#32770") != 0 ||
            !IsWindowVisible(window))
            return TRUE;
        std::lock_guard<std::mutex> guard(state->lock);
        if (state->answered.count(window))
            return TRUE;
        WCHAR caption[512] = {}, text[2048] = {};
        GetWindowTextW(window, caption, 512);
        GetDlgItemTextW(window, 0xFFFF, text, 2048); // the message box's text control
        state->seen.push_back({Narrow(caption), Narrow(text), nullptr, 0});
        int answer = state->answered.empty() && state->firstAnswer ? state->firstAnswer : IDOK;
        state->answered.insert(window);
        PostMessageW(window, WM_COMMAND, static_cast<WPARAM>(answer), 0);
        return TRUE;
    }

    void Watch()
    {
        while (!stop)
        {
            EnumWindows(Visit, reinterpret_cast<LPARAM>(this));
            Sleep(20);
        }
    }
};

MessageBoxWatch::MessageBoxWatch(int firstAnswer) : m_state(new State)
{
    m_state->firstAnswer = firstAnswer;
    m_state->watcher = std::thread([state = m_state] { state->Watch(); });
}

MessageBoxWatch::~MessageBoxWatch()
{
    m_state->stop = true;
    m_state->watcher.join();
    delete m_state;
}

std::vector<SeenMessageBox> MessageBoxWatch::Seen() const
{
    std::lock_guard<std::mutex> guard(m_state->lock);
    return m_state->seen;
}
} // namespace TestSupport
#endif
