#include "tools/FakeService/FakeService.h"

#include <chrono>
#include <cstdio>

namespace
{
const DWORD CANCEL_KIND = 81;
const DWORD PIPE_BUFFER_BYTES = 0x100000;
const DWORD READ_CHUNK = 0x10000;
// How often a waiting service looks for the client's messages. The clock is the process's own, not
// GetTickCount64, which tests may hold still.
const std::chrono::milliseconds POLL_INTERVAL(2);

const WCHAR PIPE_PREFIX[] = TEXT("\\\\.\\pipe\\QX-");
} // namespace

FakeService::FakeService(const WCHAR* key, ServiceScript script, int sessions)
    : m_name(PIPE_PREFIX), m_script(std::move(script)), m_sessions(sessions)
{
    m_name += key;
}

FakeService::~FakeService()
{
    Stop();
#if defined(__GLIBCXX__) && defined(__GTHREAD_MUTEX_INIT)
    // libstdc++ gives a statically initialised std::mutex a destructor that does nothing. Over winpthreads a
    // mutex's first contention makes it an event (and a heap block), which only pthread_mutex_destroy gives
    // back: without this, each service whose lock the client's waits ever met would leave an event behind,
    // and a run that makes a service per operation could not tell the library's handles from its own. On
    // glibc it frees nothing and costs nothing.
    __gthread_mutex_destroy(m_lock.native_handle());
#endif
}

HANDLE FakeService::NewInstance()
{
    return CreateNamedPipeW(m_name.c_str(), PIPE_ACCESS_DUPLEX,
                            PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES,
                            PIPE_BUFFER_BYTES, PIPE_BUFFER_BYTES, 0, nullptr);
}

bool FakeService::Start()
{
    HANDLE first = NewInstance();
    if (first == INVALID_HANDLE_VALUE)
        return false;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_stopping = false;
    }
    m_thread = std::thread([this, first] { Serve(first); });
    return true;
}

void FakeService::Stop()
{
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_stopping = true;
    }
    // A service waiting for a client is woken by one: the connection that ends its wait.
    HANDLE wake =
        CreateFileW(m_name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    m_thread.join();
    if (wake != INVALID_HANDLE_VALUE)
        CloseHandle(wake);
}

bool FakeService::WaitForSessions(int count, DWORD milliseconds)
{
    std::unique_lock<std::mutex> guard(m_lock);
    return m_changed.wait_for(guard, std::chrono::milliseconds(milliseconds),
                              [&] { return m_ended >= count; });
}

std::vector<ReceivedMessage> FakeService::Received() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_received;
}

int FakeService::CancelsReceived() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_cancels;
}

int FakeService::SessionsEnded() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_ended;
}

bool FakeService::HasCancel(int session) const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_cancelSession == session;
}

void FakeService::Serve(HANDLE listening)
{
    for (int session = 1;; ++session)
    {
        // ERROR_NO_DATA: a client came and went before this call; its session is over at the first look.
        BOOL connected = ConnectNamedPipe(listening, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED ||
                         GetLastError() == ERROR_NO_DATA;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_stopping)
                connected = FALSE;
        }
        if (!connected)
            break;
        HANDLE current = listening;
        // The next client finds an instance waiting while this one is served.
        listening = m_sessions == 0 || session < m_sessions ? NewInstance() : INVALID_HANDLE_VALUE;
        Session(current, session);
        {
            std::lock_guard<std::mutex> guard(m_lock);
            ++m_ended;
        }
        m_changed.notify_all();
        if (listening == INVALID_HANDLE_VALUE)
            return;
    }
    CloseHandle(listening);
}

void FakeService::Session(HANDLE pipe, int session)
{
    // The script answers a request: nothing is sent before one has arrived.
    bool connected = true;
    for (;;)
    {
        size_t before = Received().size();
        if (!Poll(pipe, session))
        {
            connected = false;
            break;
        }
        if (Received().size() > before)
            break;
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
    bool cancelled = false;
    bool going = connected && Play(pipe, session, m_script.steps, true, cancelled);
    if (going && cancelled)
        going = Play(pipe, session, m_script.onCancel, false, cancelled);
    else if (going)
    {
        // Silent until the client closes its end; a cancel that comes now is still answered.
        going = Wait(pipe, session, INFINITE, true);
        if (!going && pipe != INVALID_HANDLE_VALUE && HasCancel(session))
            going = Play(pipe, session, m_script.onCancel, false, cancelled);
    }
    if (going)
        Wait(pipe, session, INFINITE, false);
    if (pipe != INVALID_HANDLE_VALUE)
    {
        DisconnectNamedPipe(pipe);
        CloseHandle(pipe);
    }
}

// false when the session is over: the client went, the script closed the pipe, or the service stops.
// `cancelled` is set (and play stops) when a cancel arrives and `cancellable` is set.
bool FakeService::Play(HANDLE& pipe, int session, const std::vector<ServiceStep>& steps, bool cancellable,
                       bool& cancelled)
{
    for (const ServiceStep& step : steps)
    {
        if (!Poll(pipe, session))
            return false;
        if (cancellable && HasCancel(session))
            return cancelled = true, true;
        switch (step.action)
        {
        case ServiceStep::Write:
        {
            DWORD written = 0;
            if (!WriteFile(pipe, step.bytes.data(), static_cast<DWORD>(step.bytes.size()), &written, nullptr))
                return false;
            break;
        }
        case ServiceStep::Pause:
            if (!Wait(pipe, session, step.milliseconds, cancellable))
            {
                if (cancellable && HasCancel(session))
                    return cancelled = true, true;
                return false;
            }
            break;
        case ServiceStep::Close:
            FlushFileBuffers(pipe);
            DisconnectNamedPipe(pipe);
            [[fallthrough]];
        case ServiceStep::Vanish:
            CloseHandle(pipe);
            pipe = INVALID_HANDLE_VALUE;
            return false;
        }
    }
    if (!Poll(pipe, session))
        return false;
    if (cancellable && HasCancel(session))
        cancelled = true;
    return true;
}

bool FakeService::Wait(HANDLE pipe, int session, DWORD milliseconds, bool cancellable)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;)
    {
        if (!Poll(pipe, session))
            return false;
        if (cancellable && HasCancel(session))
            return false;
        if (milliseconds != INFINITE && std::chrono::steady_clock::now() >= deadline)
            return true;
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

bool FakeService::Poll(HANDLE pipe, int session)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_stopping)
            return false;
    }
    for (;;)
    {
        DWORD available = 0;
        if (!PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr))
            return false;
        if (available == 0)
            return true;
        ReceivedMessage received;
        received.session = session;
        BYTE chunk[READ_CHUNK];
        for (;;)
        {
            DWORD got = 0;
            BOOL whole = ReadFile(pipe, chunk, READ_CHUNK, &got, nullptr);
            if (!whole && GetLastError() != ERROR_MORE_DATA)
                return false;
            received.bytes.insert(received.bytes.end(), chunk, chunk + got);
            if (whole)
                break;
        }
        received.wellFormed =
            DecodeServiceMessage(received.bytes.data(), received.bytes.size(), received.message);
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (received.wellFormed && received.message.kind == CANCEL_KIND)
            {
                ++m_cancels;
                m_cancelSession = session;
            }
            m_received.push_back(received);
        }
        if (onReceived)
            onReceived(received);
    }
}

namespace
{
// Control characters (the newlines that end each path of a list, above all) as escapes, so that one field
// stays on one line.
std::string Printable(const std::string& text)
{
    std::string shown;
    for (char c : text)
    {
        if (c == '\n')
            shown += "\\n";
        else if (static_cast<unsigned char>(c) < 0x20)
        {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(c));
            shown += escape;
        }
        else
            shown += c;
    }
    return shown;
}
} // namespace

std::string DescribeMessage(const ReceivedMessage& received)
{
    std::string text = "session " + std::to_string(received.session) + ", " +
                       std::to_string(received.bytes.size()) + " bytes";
    if (received.wellFormed)
    {
        const ServiceMessage& message = received.message;
        text += ": kind " + std::to_string(message.kind) + " phase " + std::to_string(message.phase) +
                " reserved " + std::to_string(message.reserved) + "\n  source [" + Printable(message.source) +
                "]\n  target [" + Printable(message.target) + "]\n  drives [" + Printable(message.drives) +
                "]\n  spare [" + Printable(message.spare) + "]\n  values";
        for (ULONGLONG value : message.values)
            text += " " + std::to_string(value);
    }
    else
        text += ": malformed";
    text += "\n  bytes";
    for (size_t i = 0; i < received.bytes.size(); ++i)
    {
        char hex[4];
        std::snprintf(hex, sizeof hex, " %02X", received.bytes[i]);
        text += (i % 32 == 0 ? "\n   " : "") + std::string(hex);
    }
    return text + "\n";
}
