// One operation started as InvokeCommand starts it (the module's lock taken, then a detached-style worker
// thread), against whatever listens on its key, and watched to its end.
#pragma once

#include "channel/OperationThread.h"
#include "extension/OperationJob.h"
#include "module/ModuleLock.h"
#include "tools/FakeService/ServiceScript.h"

#include <gtest/gtest.h>

#include <string>

namespace TestSupport
{
typedef std::basic_string<WCHAR> Text;

const DWORD OPERATION_TIME_LIMIT = 30000;

inline ServiceScript Script(const std::string& text)
{
    ServiceScript script;
    std::string error;
    EXPECT_TRUE(ServiceScript::Parse(text, script, error)) << error;
    return script;
}

// A Quick Copy (with progress) or a quiet operation of one file.
inline OperationJob* NewJob(const Text& key, DWORD operation = 12)
{
    OperationJob* job = new OperationJob;
    job->m_pipeKey = key.c_str();
    job->m_operation = operation;
    job->m_showProgress = operation == 51 ? 0 : 1;
    job->m_sourceList = TEXT("D:\\a.txt\n");
    job->m_targetFolder = TEXT("E:\\in");
    job->m_driveRootList = TEXT("e:\n");
    job->m_sessionId = 1;
    job->m_processId = 6699;
    return job;
}

inline LONG ModuleLocks()
{
    ModuleLockAcquire();
    return ModuleLockRelease();
}

class StartedOperation
{
public:
    explicit StartedOperation(OperationJob* job)
    {
        ModuleLockAcquire();
        m_thread = CreateThread(nullptr, 0, OperationThreadProc, job, 0, nullptr);
        if (!m_thread)
        {
            ModuleLockRelease();
            DestroyOperationJob(job);
        }
    }
    ~StartedOperation()
    {
        if (m_thread)
            CloseHandle(m_thread);
    }
    StartedOperation(const StartedOperation&) = delete;
    StartedOperation& operator=(const StartedOperation&) = delete;

    bool Started() const { return m_thread != nullptr; }
    bool EndsWithin(DWORD milliseconds) const
    {
        return m_thread && WaitForSingleObject(m_thread, milliseconds) == WAIT_OBJECT_0;
    }
    // The worker's exit code once it has ended (0xFFFFFFFF if it did not in time).
    DWORD ExitCode() const
    {
        if (!EndsWithin(OPERATION_TIME_LIMIT))
            return 0xFFFFFFFF;
        DWORD code = STILL_ACTIVE;
        GetExitCodeThread(m_thread, &code);
        return code;
    }

private:
    HANDLE m_thread = nullptr;
};
} // namespace TestSupport
