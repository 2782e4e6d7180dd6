// A stand-in for the service: serves "\\.\pipe\QX-<key>", records every message the client sends (the bytes
// and, when well-formed, the fields), and answers each connection's request by playing a script.
//
// One thread serves the connections one after the other. It keeps its end of the pipe blocking and looks
// for the client's messages with PeekNamedPipe between steps, so a cancel is seen while a reply stream or a
// pause is under way; a synchronous pipe handle would serialise a blocking read on another thread with the
// writes.
#pragma once

#include "platform/Win32.h"
#include "tools/FakeService/ServiceScript.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct ReceivedMessage
{
    int session = 0; // 1 for the first connection
    std::vector<BYTE> bytes;
    bool wellFormed = false;
    ServiceMessage message; // valid when wellFormed
};

class FakeService
{
public:
    // `sessions` connections are served, then the service stops listening; 0 serves until Stop.
    FakeService(const WCHAR* key, ServiceScript script, int sessions = 1);
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    // Creates the first pipe instance (so a client may connect as soon as this returns) and starts serving.
    // false, with the system's error in GetLastError, if the pipe cannot be created.
    bool Start();
    // Stops serving; a session under way ends at its next step or poll.
    void Stop();
    // Waits until `sessions` connections have ended (or, with 0 sessions, until `count` have). false on
    // time-out.
    bool WaitForSessions(int count, DWORD milliseconds);

    std::vector<ReceivedMessage> Received() const;
    int CancelsReceived() const;
    int SessionsEnded() const;
    const std::basic_string<WCHAR>& PipeName() const { return m_name; }

    // Called on the serving thread for each message as it arrives (the standalone tool prints them).
    std::function<void(const ReceivedMessage&)> onReceived;

private:
    HANDLE NewInstance();
    void Serve(HANDLE first);
    void Session(HANDLE pipe, int session);
    bool Play(HANDLE& pipe, int session, const std::vector<ServiceStep>& steps, bool cancellable,
              bool& cancelled);
    // Reads what the client sent so far. false when the client is gone or the service stops.
    bool Poll(HANDLE pipe, int session);
    // Polls for `milliseconds` (forever with INFINITE); false when the client went, or on a cancel if
    // `cancellable`.
    bool Wait(HANDLE pipe, int session, DWORD milliseconds, bool cancellable);
    bool HasCancel(int session) const;

    std::basic_string<WCHAR> m_name;
    ServiceScript m_script;
    int m_sessions;
    std::thread m_thread;
    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<ReceivedMessage> m_received;
    int m_cancels = 0;
    int m_cancelSession = 0; // the last session that saw a cancel
    int m_ended = 0;
    bool m_stopping = false;
};

std::string DescribeMessage(const ReceivedMessage& received);
