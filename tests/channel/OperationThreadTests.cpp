// The worker against a fake service in this process, started as InvokeCommand starts it: the module's lock
// taken, then CreateThread(OperationThreadProc, job).
#include "channel/OperationThread.h"
#include "channel/PipeMessage.h"
#include "extension/OperationJob.h"
#include "module/ModuleLock.h"
#include "tests/channel/UniqueKey.h"
#include "tests/support/MessageBoxWatch.h"
#include "tests/support/ProgressRecorder.h"
#include "tests/support/StartedOperation.h"
#include "tools/FakeService/FakeService.h"

#include <gtest/gtest.h>
#ifndef _WIN32
#include "platform/host/ControlPipes.h"
#include "platform/host/ControlThreads.h"
#endif

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

typedef std::vector<std::string> Calls;
typedef std::vector<BYTE> Bytes;

using namespace TestSupport;

namespace
{
// Runs the worker to its end and returns its exit code, having checked that it gave the module's lock back.
DWORD Finish(const StartedOperation& worker)
{
    EXPECT_TRUE(worker.Started());
    DWORD exitCode = worker.ExitCode();
    EXPECT_EQ(0, ModuleLocks()) << "the worker gives the module's lock back";
    return exitCode;
}

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

#ifndef _WIN32 // Only the stand-in records the pauses a thread takes.
// Records Sleep from its making; says how many of the recorded pauses were the 100 ms one before the dialog
// goes.
struct ClosingPauses
{
    ClosingPauses() { VmHost::RecordSleeps(true); }
    ~ClosingPauses() { VmHost::RecordSleeps(false); }
    long Count() const
    {
        std::vector<DWORD> sleeps = VmHost::Sleeps();
        return static_cast<long>(std::count(sleeps.begin(), sleeps.end(), 100u));
    }
};
#endif

// A recording dialog and a key of the test's own, with a fake service on it once the test names its script.
class OperationThreadTest : public testing::Test
{
protected:
    FakeService& Serve(const char* script)
    {
        m_service.reset(new FakeService(key.c_str(), Script(script)));
        EXPECT_TRUE(m_service->Start());
        return *m_service;
    }

    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("worker-test"));
    std::unique_ptr<FakeService> m_service;
};
} // namespace

TEST_F(OperationThreadTest, QuickCopyFromRequestToEnd)
{
    ASSERT_TRUE(dialogs.Registered());
    FakeService& service = Serve("send 21 1\n"
                                 "send 21 2 2 8192\n"
                                 "send 21 3 1 4096 2 8192 source=C:\\windows target=C:\\windows\\fonts\n"
                                 "send 21 4 2 8192\n");
    OperationJob* job = NewJob(key);
    job->m_sourceList = TEXT("D:\\a.txt\nD:\\\u00E9.txt\n");
#ifndef _WIN32
    ClosingPauses pauses;
#endif

    EXPECT_EQ(0u, Finish(StartedOperation(job)));
#ifndef _WIN32
    EXPECT_EQ(1, pauses.Count()) << "the dialog stays 100 ms past the end";
#endif

    EXPECT_EQ(Calls({"SetOperation 7", "SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 8192 0 2",
                     "UpdateLocations c:\\windows c:\\windows\\fonts c:\\windows",
                     "UpdateProgress 500 1000 4096 8192 1 2", "UpdateProgress 1000 1000 8192 8192 2 2",
                     "StopProgressDialog"}),
              CallsAfterStart(dialogs.journal));
    EXPECT_EQ(0, dialogs.journal.liveDialogs.load());
    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT));
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

TEST_F(OperationThreadTest, QuietOperationShowsNoDialog)
{
    FakeService& service = Serve("send 51 2 5 5\nsend 51 3 1 1\nsend 51 4\n");
#ifndef _WIN32
    ClosingPauses pauses;
#endif

    EXPECT_EQ(0u, Finish(StartedOperation(NewJob(key, 51))));
#ifndef _WIN32
    EXPECT_EQ(0, pauses.Count()) << "without a dialog nothing waits at the end";
#endif

    EXPECT_EQ(0, dialogs.journal.dialogsMade.load());
    EXPECT_EQ(0, dialogs.journal.statusQueries.load());
    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT));
    ASSERT_EQ(1u, service.Received().size());
    EXPECT_EQ(51u, service.Received()[0].message.kind);
}

// The user cancels at once: every trip sees the cancelled status, the cancel goes out once, and the
// service's answers after it are still shown.
TEST_F(OperationThreadTest, CancelGoesOutOnceAndTheReportsAfterItStillCount)
{
    dialogs.journal.status = PDOPS_CANCELLED;
    FakeService& service = Serve("send 21 1\n"
                                 "pause 20000\n"
                                 "on-cancel\n"
                                 "pause 100\n"
                                 "send 21 3 1 4096 2 8192\n"
                                 "pause 50\n"
                                 "send 21 4 2 8192\n");

    EXPECT_EQ(0u, Finish(StartedOperation(NewJob(key))));

    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT));
    EXPECT_EQ(1, service.CancelsReceived());
    std::vector<ReceivedMessage> received = service.Received();
    ASSERT_EQ(2u, received.size());
    Bytes cancel(64, 0);
    cancel[0] = 0x51;
    EXPECT_EQ(cancel, received[1].bytes);
    EXPECT_GT(dialogs.journal.statusQueries.load(), 5) << "several trips saw the cancelled status";
    Calls calls = CallsAfterStart(dialogs.journal);
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(Calls({"UpdateProgress 500 1000 4096 8192 1 2", "UpdateProgress 1000 1000 8192 8192 2 2",
                     "StopProgressDialog"}),
              Calls(calls.end() - 3, calls.end()));
}

// A cancel goes out only on a status query that answers S_OK with the cancelled status, and only once: a
// query that fails, or succeeds with another code, sends nothing, and a cancel whose write fails is not tried
// again (the failed write marks the pipe closed, which ends the operation).
TEST(OperationThread, OnlyAStatusOfSOkSendsTheOneCancel)
{
    const struct
    {
        const char* what;
        HRESULT statusResult;
        bool failTheCancelWrite;
        int cancelsReceived;
    } rows[] = {
        {"S_OK", S_OK, false, 1},
        {"failed query", E_FAIL, false, 0},
        {"S_FALSE", S_FALSE, false, 0},
#ifndef _WIN32 // Only the stand-in refuses a write on request.
        {"failed write", S_OK, true, 0},
#endif
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        TestSupport::ProgressDialogRegistration dialogs;
        dialogs.journal.statusResult = row.statusResult;
        Text key = UniqueKey(TEXT("worker-test"));
        FakeService service(key.c_str(), Script("pause 300\nsend 21 99\n"));
        // The user cancels once the request is in: the cancel is then the next write of the process.
        service.onReceived = [&](const ReceivedMessage&)
        {
            if (dialogs.journal.status.load() == PDOPS_CANCELLED)
                return;
#ifndef _WIN32
            if (row.failTheCancelWrite)
                VmHostFailPipeWrites(ERROR_NO_DATA, 1);
#endif
            dialogs.journal.status = PDOPS_CANCELLED;
        };
        ASSERT_TRUE(service.Start());

        EXPECT_EQ(0u, Finish(StartedOperation(NewJob(key))));

        ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT));
        EXPECT_EQ(row.cancelsReceived, service.CancelsReceived());
        if (row.statusResult != S_OK)
        {
            EXPECT_GT(dialogs.journal.statusQueries.load(), 5) << "the loop kept looking through the pause";
        }
    }
}

TEST_F(OperationThreadTest, ServiceGoneRightAfterTheRequestEndsTheOperation)
{
    FakeService& service = Serve("vanish\n");

    EXPECT_EQ(0u, Finish(StartedOperation(NewJob(key))));

    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
    EXPECT_EQ(0, dialogs.journal.liveDialogs.load());
    EXPECT_EQ(1u, service.Received().size());
}

TEST_F(OperationThreadTest, SilentServiceKeepsTheLoopPolling)
{
    Serve("pause 600\nsend 98 4\nsend 99 3 1 1 1 1\n");
    StartedOperation worker(NewJob(key));

    EXPECT_TRUE(!worker.EndsWithin(300)) << "no time-out while the service is silent";
    int queries = dialogs.journal.statusQueries.load();
    EXPECT_GE(queries, 5) << "one look at the dialog per 10 ms trip";
    EXPECT_EQ(0u, Finish(worker));
    EXPECT_GT(dialogs.journal.statusQueries.load(), queries);
    // The notice changes nothing; the end changes no counter.
    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
}

// The end of the exchange closes the pipe first; the dialog goes only after the pause that follows.
TEST_F(OperationThreadTest, AnEndingMessageClosesThePipeBeforeTheDialog)
{
    FakeService& service = Serve("send 21 99\npause 20000\n");
    StartedOperation worker(NewJob(key));

    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT)) << "the client closed its end";
    Calls atClose = dialogs.journal.Calls();
    EXPECT_EQ(0, std::count(atClose.begin(), atClose.end(), "StopProgressDialog"));
    EXPECT_EQ(0u, Finish(worker));
    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
}

// Malformed messages (zero bytes, a short header, a length past the end) are dropped, and of an oversize
// message nothing is taken: its last 64 bytes would end the exchange if they were read as a message, and then
// the final report would never be shown.
TEST_F(OperationThreadTest, MalformedAndOversizeMessagesAreDropped)
{
    Serve("send 21 2 2 8192\n"
          "raw\n"
          "raw 15 00 00 00 03 00\n"
          "raw 15 00 00 00 03 00 00 00 00 00 00 00 7F 41\n"
          "oversize 1048640\n"
          "send 21 3 1 4096 2 8192\n"
          "send 21 4 2 8192\n");

    EXPECT_EQ(0u, Finish(StartedOperation(NewJob(key))));

    EXPECT_EQ(Calls({"SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 8192 0 2",
                     "UpdateProgress 500 1000 4096 8192 1 2", "UpdateProgress 1000 1000 8192 8192 2 2",
                     "StopProgressDialog"}),
              CallsAfterStart(dialogs.journal));
}

TEST_F(OperationThreadTest, NoServiceIsAFailedStartWithoutAWord)
{
    TestSupport::MessageBoxWatch boxes;

    EXPECT_EQ(static_cast<DWORD>(E_FAIL), Finish(StartedOperation(NewJob(key))));

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

    EXPECT_EQ(static_cast<DWORD>(E_FAIL), Finish(StartedOperation(NewJob(key))));

    std::vector<TestSupport::SeenMessageBox> seen = boxes.Seen();
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("File Operation Error", seen[0].caption);
    EXPECT_EQ("Create Progress Dialog Failed", seen[0].text);
#ifndef _WIN32 // the watcher on Windows sees only the window
    EXPECT_EQ(nullptr, seen[0].owner);
    EXPECT_EQ(static_cast<UINT>(MB_ICONERROR), seen[0].type);
#endif
    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT)) << "the client closed without a request";
    EXPECT_TRUE(service.Received().empty());
}

// A request past the size limit is never sent, so the service never hears of the operation and nothing it
// could send would belong to it: the operation ends as after a broken pipe instead of waiting for ever.
TEST_F(OperationThreadTest, ARequestPastTheLimitEndsTheOperation)
{
    FakeService& service = Serve("send 21 4 1 1\n");
    OperationJob* job = NewJob(key);
    // 349,504 characters of three UTF-8 bytes each pass the limit even with the other strings empty.
    job->m_sourceList = Text(349504, static_cast<WCHAR>(0x6F22)).c_str();

    EXPECT_EQ(0u, Finish(StartedOperation(job)));

    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT));
    EXPECT_TRUE(service.Received().empty());
}
