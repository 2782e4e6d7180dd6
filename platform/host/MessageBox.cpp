#include "platform/host/MessageBox.h"

#include "platform/host/ControlMessageBox.h"

#include <deque>
#include <mutex>

namespace
{
std::mutex g_lock;
std::deque<int> g_answers;
std::vector<VmHost::MessageBoxRecord> g_boxes;
std::vector<VmHost::ShowWindowRecord> g_shown;

int DismissingButton(UINT type)
{
    switch (type & MB_TYPEMASK)
    {
    case MB_OK:
        return IDOK;
    case MB_YESNO:
        return IDNO;
    case MB_ABORTRETRYIGNORE:
        return IDABORT;
    default:
        return IDCANCEL;
    }
}
} // namespace

// Weak, so that the windows area may take these over with its own windows; both then share this record.
__attribute__((weak)) int MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type)
{
    std::lock_guard<std::mutex> guard(g_lock);
    int answer = DismissingButton(type);
    if (!g_answers.empty())
    {
        answer = g_answers.front();
        g_answers.pop_front();
    }
    g_boxes.push_back({owner, text ? text : u"", caption ? caption : u"Error", type, answer});
    return answer;
}

int ShellMessageBoxW(HINSTANCE, HWND owner, LPCWSTR text, LPCWSTR caption, UINT type, ...)
{
    if (IS_INTRESOURCE(text))
        return 0;
    return MessageBoxW(owner, text, caption, type);
}

__attribute__((weak)) BOOL ShowWindow(HWND window, int command)
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_shown.push_back({window, command});
    return FALSE;
}

namespace VmHost
{
void QueueMessageBoxAnswer(int answer)
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_answers.push_back(answer);
}
std::vector<MessageBoxRecord> MessageBoxes()
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_boxes;
}
std::vector<ShowWindowRecord> ShownWindows()
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_shown;
}
void ClearMessageBoxes()
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_boxes.clear();
    g_shown.clear();
    g_answers.clear();
}
} // namespace VmHost
