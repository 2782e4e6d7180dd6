// The worker against a service that misbehaves: short, truncated, zero-length and random messages, messages
// far past the read buffer, a service that dies in the middle, one that never answers a cancel, and many
// operations at once. Every operation ends, gives back what it holds, and takes from a message only the bytes
// that message brought.
#include "tests/channel/UniqueKey.h"
#include "tests/support/StartedOperation.h"
#include "tests/support/MessageBoxWatch.h"
#include "tests/support/ProgressRecorder.h"
#include "tools/FakeService/FakeService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace TestSupport;

namespace
{
typedef std::vector<std::string> Calls;
typedef std::vector<BYTE> Bytes;

// A script line that sends exactly these bytes as one message.
std::string RawLine(const Bytes& bytes)
{
    std::string line = "raw";
    for (BYTE byte : bytes)
    {
        char hex[4];
        std::snprintf(hex, sizeof hex, " %02X", byte);
        line += hex;
    }
    return line + "\n";
}

Bytes Encoded(DWORD kind, DWORD phase, std::vector<ULONGLONG> values)
{
    ServiceMessage message;
    message.kind = kind;
    message.phase = phase;
    for (size_t i = 0; i < values.size() && i < 6; ++i)
        message.values[i] = values[i];
    return EncodeServiceMessage(message);
}

Bytes Prefix(const Bytes& bytes, size_t length)
{
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
}

// The dialog's calls after the four that start it.
Calls CallsAfterStart(const TestSupport::ProgressJournal& journal)
{
    Calls calls = journal.Calls();
    if (calls.size() < 4)
        return Calls{"(dialog never started)"};
    return Calls(calls.begin() + 4, calls.end());
}
} // namespace

// Lengths that point far past the message, or that no 32-bit count can hold, and then random bytes: each is
// dropped (or, if it happens to be well-formed, interpreted); the operation ends when the service closes.
TEST(HostileService, GarbageIsDroppedAndTheOperationStillEnds)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("hostile"));
    const Bytes header = Prefix(Encoded(21, 3, {}), 12);
    std::string script = "send 21 1\n";
    for (Bytes length : {Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x0F}, Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01},
                         Bytes{0x80, 0x80, 0x80, 0x80, 0x80}, Bytes{0x80}, Bytes{0xFF, 0xFF, 0x3F, 0x41}})
    {
        Bytes message = header;
        message.insert(message.end(), length.begin(), length.end());
        script += RawLine(message);
    }
    std::mt19937 random(20261123);
    for (int i = 0; i < 200; ++i)
    {
        Bytes message(random() % 160);
        for (BYTE& byte : message)
            byte = static_cast<BYTE>(random());
        // Half of them start as a report would, so that decoding gets past the header.
        if (i % 2 && message.size() >= 12)
            std::copy(header.begin(), header.end(), message.begin());
        script += RawLine(message);
    }
    script += "close\n";
    FakeService service(key.c_str(), Script(script));
    ASSERT_TRUE(service.Start());

    StartedOperation operation(NewJob(key));
    EXPECT_EQ(0u, operation.ExitCode());

    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT));
    EXPECT_EQ(1u, service.Received().size()) << "the request, and nothing else";
    Calls calls = dialogs.journal.Calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ("StopProgressDialog", calls.back());
    EXPECT_EQ(0, dialogs.journal.liveDialogs.load());
}

struct EndingCase
{
    const char* name;
    std::string script;
    Calls expected; // the dialog's calls after its start
};

// The read buffer is kept from read to read and never cleared, so the bytes just past a short message are
// those of a longer one before it. A decoder that looked past the count it was given would complete each
// cut-down copy here from those stale bytes and report the same progress twice.
std::string ShortMessagesAfterLongOnes()
{
    const Bytes totals = Encoded(21, 2, {2, 8192});
    const Bytes report = Encoded(21, 3, {1, 4096, 2, 8192});
    return "send 21 2 2 8192\n" +
           RawLine(Prefix(totals, totals.size() - 1)) +          // the last value one byte short
           RawLine(Prefix(totals, 12)) +                         // the header alone: 12 bytes
           RawLine(Bytes(12, 0)) + RawLine(Prefix(totals, 13)) + // the first length, and nothing after it
           "send 21 3 1 4096 2 8192\n" +
           RawLine(Prefix(report, report.size() - 8)) + // one value missing altogether
           RawLine(Prefix(report, 12)) + "send 21 4 2 8192\n";
}

class HostileEnding : public testing::TestWithParam<EndingCase>
{
};

TEST_P(HostileEnding, TheOperationEndsAndTheDialogCloses)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("hostile"));
    FakeService service(key.c_str(), Script(GetParam().script));
    ASSERT_TRUE(service.Start());

    StartedOperation operation(NewJob(key));
    EXPECT_EQ(0u, operation.ExitCode());

    EXPECT_EQ(GetParam().expected, CallsAfterStart(dialogs.journal));
    EXPECT_EQ(0, dialogs.journal.liveDialogs.load());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HostileEnding,
    testing::Values(
        EndingCase{"ShortMessagesAreNeverCompletedFromAnEarlierMessage",
                   ShortMessagesAfterLongOnes(),
                   {"SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 8192 0 2",
                    "UpdateProgress 500 1000 4096 8192 1 2", "UpdateProgress 1000 1000 8192 8192 2 2",
                    "StopProgressDialog"}},
        // Three times the read buffer: thrown away whole, and what follows is read as it was sent.
        EndingCase{"ThreeMebibytes",
                   "send 21 2 2 8192\noversize 3145728\nsend 21 4 2 8192\n",
                   {"SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 8192 0 2",
                    "UpdateProgress 1000 1000 8192 8192 2 2", "StopProgressDialog"}},
        // Gone while the client is still throwing away the rest of an oversized message.
        EndingCase{"VanishInsideAnOversizedMessage",
                   "send 21 2 2 8192\noversize 2097152\nvanish\n",
                   {"SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 8192 0 2", "StopProgressDialog"}},
        // Gone after the totals, before any report.
        EndingCase{"VanishMidStream",
                   "send 21 1\nsend 21 2 2 8192\npause 50\nvanish\n",
                   {"SetOperation 7", "SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 8192 0 2",
                    "StopProgressDialog"}},
        // Nothing but zero-byte messages, then gone.
        EndingCase{"OnlyEmptyMessages", "raw\nraw\nraw\nvanish\n", {"StopProgressDialog"}}),
    [](const testing::TestParamInfo<EndingCase>& info) { return std::string(info.param.name); });

// The user cancels and the service never answers, neither before nor after: the cancel goes out once, the
// worker keeps polling without a word to the user (the file manager's thread was never involved), and the
// operation ends as soon as the service's end of the pipe goes.
TEST(HostileService, ACancelThatIsNeverAnsweredEndsWhenTheServiceGoes)
{
    TestSupport::ProgressDialogRegistration dialogs;
    TestSupport::MessageBoxWatch boxes;
    dialogs.journal.status = PDOPS_CANCELLED;
    Text key = UniqueKey(TEXT("hostile"));
    FakeService service(key.c_str(), Script("on-cancel\n"));
    ASSERT_TRUE(service.Start());

    StartedOperation operation(NewJob(key));
    ASSERT_FALSE(operation.EndsWithin(600)) << "no answer, no end: the loop has no time-out";
    EXPECT_EQ(1, service.CancelsReceived());
    EXPECT_GT(dialogs.journal.statusQueries.load(), 5);
    service.Stop();
    EXPECT_EQ(0u, operation.ExitCode());

    EXPECT_EQ(Calls({"StopProgressDialog"}), CallsAfterStart(dialogs.journal));
    EXPECT_EQ(1, service.CancelsReceived()) << "the cancel is never repeated";
    EXPECT_TRUE(boxes.Seen().empty());
    EXPECT_EQ(0, dialogs.journal.liveDialogs.load());
}

// Two hundred operations side by side, each with its own service, dialog and connection.
TEST(HostileService, TwoHundredOperationsAtOnceAllEnd)
{
    const int OPERATIONS = 200;
    TestSupport::ProgressDialogRegistration dialogs;
    std::vector<std::unique_ptr<FakeService>> services;
    std::vector<Text> keys;
    for (int i = 0; i < OPERATIONS; ++i)
    {
        keys.push_back(UniqueKey(TEXT("crowd")));
        services.emplace_back(new FakeService(keys.back().c_str(), Script("send 21 1\n"
                                                                          "send 21 2 2 8192\n"
                                                                          "pause 100\n"
                                                                          "send 21 3 1 4096 2 8192\n"
                                                                          "send 21 4 2 8192\n")));
        ASSERT_TRUE(services.back()->Start()) << i;
    }

    auto started = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<StartedOperation>> operations;
    for (int i = 0; i < OPERATIONS; ++i)
    {
        operations.emplace_back(new StartedOperation(NewJob(keys[i], i % 4 ? 12 : 51)));
        ASSERT_TRUE(operations.back()->Started()) << i;
    }
    int ended = 0;
    for (const auto& operation : operations)
        ended += operation->ExitCode() == 0 ? 1 : 0;
    auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);

    EXPECT_EQ(OPERATIONS, ended);
    for (int i = 0; i < OPERATIONS; ++i)
    {
        ASSERT_TRUE(services[i]->WaitForSessions(1, OPERATION_TIME_LIMIT)) << i;
        EXPECT_EQ(1u, services[i]->Received().size()) << i;
    }
    EXPECT_EQ(OPERATIONS - OPERATIONS / 4, dialogs.journal.dialogsMade.load()) << "every fourth one is quiet";
    EXPECT_EQ(0, dialogs.journal.liveDialogs.load());
    EXPECT_EQ(0, ModuleLocks());
    std::printf("[ figures  ] %d operations at once ended in %lld ms\n", OPERATIONS,
                static_cast<long long>(took.count()));
}
