// The worker against a fake service in this process, started as InvokeCommand starts it: the module's lock
// taken, then CreateThread(OperationThreadProc, job).
#include "channel/OperationThread.h"
#include "channel/PipeMessage.h"
#include "extension/OperationJob.h"
#include "module/ModuleLock.h"
#include "tests/channel/UniqueKey.h"
#include "tests/support/MessageBoxWatch.h"
#include "tests/support/ProgressRecorder.h"
#include "tools/FakeService/FakeService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

typedef std::basic_string<WCHAR> Text;
typedef std::vector<std::string> Calls;
typedef std::vector<BYTE> Bytes;

namespace
{
ServiceScript Script(const char* text)
{
    ServiceScript script;
    std::string error;
    EXPECT_TRUE(ServiceScript::Parse(text, script, error)) << error;
    return script;
}

OperationJob* NewJob(const Text& key, DWORD operation = 12)
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

const DWORD WORKER_TIME_LIMIT = 20000;

// Starts the worker and waits for its end; returns its exit code. The module's lock is back where it was.
class Worker
{
public:
    explicit Worker(OperationJob* job)
    {
        ModuleLockAcquire();
        m_thread = CreateThread(nullptr, 0, OperationThreadProc, job, 0, nullptr);
        if (!m_thread)
        {
            ModuleLockRelease();
            DestroyOperationJob(job);
        }
    }
    ~Worker()
    {
        if (m_thread)
            CloseHandle(m_thread);
    }
    bool Running(DWORD milliseconds) { return WaitForSingleObject(m_thread, milliseconds) == WAIT_TIMEOUT; }
    DWORD Finish()
    {
        EXPECT_TRUE(m_thread);
        if (!m_thread)
            return 0xFFFFFFFF;
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(m_thread, WORKER_TIME_LIMIT));
        DWORD exitCode = STILL_ACTIVE;
        GetExitCodeThread(m_thread, &exitCode);
        EXPECT_EQ(1, ModuleLockAcquire()) << "the worker gives the module's lock back";
        ModuleLockRelease();
        return exitCode;
    }

private:
    HANDLE m_thread = nullptr;
};

// The dialog's calls from the worker's own start on.
Calls CallsAfterStart(const TestSupport::ProgressJournal& journal)
{
    Calls calls = journal.Calls();
    const Calls start = {"SetOperation 7", "SetMode 0", "StartProgressDialog 0 0", "GetWindow"};
    EXPECT_TRUE(calls.size() >= start.size() && Calls(calls.begin(), calls.begin() + 4) == start)
        << "the dialog starts calculating, before the request goes out";
    if (calls.size() >= start.size())
        calls.erase(calls.begin(), calls.begin() + 4);
    return calls;
}

Bytes CancelBytes()
{
    Bytes cancel(64, 0);
    cancel[0] = 0x51;
    return cancel;
}
} // namespace

TEST(OperationThread, QuickCopyFromRequestToEnd)
{
    TestSupport::ProgressDialogRegistration dialogs;
    ASSERT_TRUE(dialogs.Registered());
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(),
                        Script("send 21 1\n"
                               "send 21 2 2 8192\n"
                               "send 21 3 1 4096 2 8192 source=C:\\windows target=C:\\windows\\fonts\n"
                               "send 21 4 2 8192\n"));
    ASSERT_TRUE(service.Start());
    OperationJob* job = NewJob(key);
    job->m_sourceList = TEXT("D:\\a.txt\nD:\\\u00E9.txt\n");

    EXPECT_EQ(0u, Worker(job).Finish());

    EXPECT_EQ(Calls({"SetOperation 7", "SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 8192 0 2",
                     "UpdateLocations c:\\windows c:\\windows\\fonts c:\\windows",
                     "UpdateProgress 500 1000 4096 8192 1 2", "UpdateProgress 1000 1000 8192 8192 2 2",
                     "StopProgressDialog"}),
              CallsAfterStart(dialogs.journal));
    EXPECT_EQ(0, dialogs.journal.liveDialogs.load());
    ASSERT_TRUE(service.WaitForSessions(1, WORKER_TIME_LIMIT));
    std::vector<ReceivedMessage> received = service.Received();
    ASSERT_EQ(1u, received.size());
    const Bytes request = {0x0C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x13,
                           0x44, 0x3A, 0x5C, 0x61, 0x2E, 0x74, 0x78, 0x74, 0x0A, 0x44, 0x3A, 0x5C, 0xC3,
                           0xA9, 0x2E, 0x74, 0x78, 0x74, 0x0A, 0x05, 0x45, 0x3A, 0x5C, 0x69, 0x6E, 0x03,
                           0x65, 0x3A, 0x0A, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x2B,
                           0x1A, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                           0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                           0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(request, received[0].bytes);
}

TEST(OperationThread, QuietOperationShowsNoDialog)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(), Script("send 51 2 5 5\nsend 51 3 1 1\nsend 51 4\n"));
    ASSERT_TRUE(service.Start());

    EXPECT_EQ(0u, Worker(NewJob(key, 51)).Finish());

    EXPECT_EQ(0, dialogs.journal.dialogsMade.load());
    EXPECT_EQ(0, dialogs.journal.statusQueries.load());
    ASSERT_TRUE(service.WaitForSessions(1, WORKER_TIME_LIMIT));
    ASSERT_EQ(1u, service.Received().size());
    EXPECT_EQ(51u, service.Received()[0].message.kind);
}

// The user cancels at once: every trip sees the cancelled status, the cancel goes out once, and the
// service's answers after it are still shown.
TEST(OperationThread, CancelGoesOutOnceAndTheReportsAfterItStillCount)
{
    TestSupport::ProgressDialogRegistration dialogs;
    dialogs.journal.status = PDOPS_CANCELLED;
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(), Script("send 21 1\n"
                                            "pause 20000\n"
                                            "on-cancel\n"
                                            "pause 100\n"
                                            "send 21 3 1 4096 2 8192\n"
                                            "pause 50\n"
                                            "send 21 4 2 8192\n"));
    ASSERT_TRUE(service.Start());

    EXPECT_EQ(0u, Worker(NewJob(key)).Finish());

    ASSERT_TRUE(service.WaitForSessions(1, WORKER_TIME_LIMIT));
    EXPECT_EQ(1, service.CancelsReceived());
    std::vector<ReceivedMessage> received = service.Received();
    ASSERT_EQ(2u, received.size());
    EXPECT_EQ(CancelBytes(), received[1].bytes);
    EXPECT_GT(dialogs.journal.statusQueries.load(), 5) << "several trips saw the cancelled status";
    Calls calls = CallsAfterStart(dialogs.journal);
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(Calls({"UpdateProgress 500 1000 4096 8192 1 2", "UpdateProgress 1000 1000 8192 8192 2 2",
                     "StopProgressDialog"}),
              Calls(calls.end() - 3, calls.end()));
}

TEST(OperationThread, ServiceGoneRightAfterTheRequestEndsTheOperation)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(), Script("vanish\n"));
    ASSERT_TRUE(service.Start());

    EXPECT_EQ(0u, Worker(NewJob(key)).Finish());

    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
    EXPECT_EQ(0, dialogs.journal.liveDialogs.load());
    EXPECT_EQ(1u, service.Received().size());
}

TEST(OperationThread, SilentServiceKeepsTheLoopPolling)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(), Script("pause 600\nsend 98 4\nsend 99 3 1 1 1 1\n"));
    ASSERT_TRUE(service.Start());
    Worker worker(NewJob(key));

    EXPECT_TRUE(worker.Running(300)) << "no time-out while the service is silent";
    int queries = dialogs.journal.statusQueries.load();
    EXPECT_GE(queries, 5) << "one look at the dialog per 10 ms trip";
    EXPECT_EQ(0u, worker.Finish());
    EXPECT_GT(dialogs.journal.statusQueries.load(), queries);
    // The notice changes nothing; the end changes no counter.
    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
}

// The end of the exchange closes the pipe first; the dialog goes only after the pause that follows.
TEST(OperationThread, AnEndingMessageClosesThePipeBeforeTheDialog)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(), Script("send 21 99\npause 20000\n"));
    ASSERT_TRUE(service.Start());
    Worker worker(NewJob(key));

    ASSERT_TRUE(service.WaitForSessions(1, WORKER_TIME_LIMIT)) << "the client closed its end";
    Calls atClose = dialogs.journal.Calls();
    EXPECT_EQ(0, std::count(atClose.begin(), atClose.end(), "StopProgressDialog"));
    EXPECT_EQ(0u, worker.Finish());
    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
}

// Malformed messages (zero bytes, a short header, a length past the end) are dropped, and of an oversize
// message nothing is taken: its last 64 bytes would end the exchange if they were read as a message, and then
// the final report would never be shown.
TEST(OperationThread, MalformedAndOversizeMessagesAreDropped)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(), Script("send 21 2 2 8192\n"
                                            "raw\n"
                                            "raw 15 00 00 00 03 00\n"
                                            "raw 15 00 00 00 03 00 00 00 00 00 00 00 7F 41\n"
                                            "oversize 1048640\n"
                                            "send 21 3 1 4096 2 8192\n"
                                            "send 21 4 2 8192\n"));
    ASSERT_TRUE(service.Start());

    EXPECT_EQ(0u, Worker(NewJob(key)).Finish());

    EXPECT_EQ(Calls({"SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 8192 0 2",
                     "UpdateProgress 500 1000 4096 8192 1 2", "UpdateProgress 1000 1000 8192 8192 2 2",
                     "StopProgressDialog"}),
              CallsAfterStart(dialogs.journal));
}

TEST(OperationThread, NoServiceIsAFailedStartWithoutAWord)
{
    TestSupport::ProgressDialogRegistration dialogs;
    TestSupport::MessageBoxWatch boxes;

    EXPECT_EQ(static_cast<DWORD>(E_FAIL), Worker(NewJob(UniqueKey(TEXT("worker-test")))).Finish());

    EXPECT_EQ(0, dialogs.journal.dialogsMade.load());
    EXPECT_TRUE(boxes.Seen().empty());
}

TEST(OperationThread, ADialogThatCannotBeMadeStopsTheOperationBeforeTheRequest)
{
    TestSupport::ProgressDialogRegistration dialogs(true);
    TestSupport::MessageBoxWatch boxes;
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(), Script("send 21 4 1 1\n"));
    ASSERT_TRUE(service.Start());

    EXPECT_EQ(static_cast<DWORD>(E_FAIL), Worker(NewJob(key)).Finish());

    std::vector<TestSupport::SeenMessageBox> seen = boxes.Seen();
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("File Operation Error", seen[0].caption);
    EXPECT_EQ("Create Progress Dialog Failed", seen[0].text);
    ASSERT_TRUE(service.WaitForSessions(1, WORKER_TIME_LIMIT)) << "the client closed without a request";
    EXPECT_TRUE(service.Received().empty());
}

// A request past the size limit is never sent, so the service never hears of the operation and nothing it
// could send would belong to it: the operation ends as after a broken pipe instead of waiting for ever.
TEST(OperationThread, ARequestPastTheLimitEndsTheOperation)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("worker-test"));
    FakeService service(key.c_str(), Script("send 21 4 1 1\n"));
    ASSERT_TRUE(service.Start());
    OperationJob* job = NewJob(key);
    // 349,504 characters of three UTF-8 bytes each pass the limit even with the other strings empty.
    job->m_sourceList = Text(349504, static_cast<WCHAR>(0x6F22)).c_str();

    EXPECT_EQ(0u, Worker(job).Finish());

    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
    ASSERT_TRUE(service.WaitForSessions(1, WORKER_TIME_LIMIT));
    EXPECT_TRUE(service.Received().empty());
}
