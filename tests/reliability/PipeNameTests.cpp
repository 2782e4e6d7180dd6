// A marker's key is taken as written, but the worker connects to "\\.\pipe\QX-" + key as one name or not at
// all: a key with a separator is a failed start (nothing sent, nothing shown), even where a pipe of exactly
// that name is listening.
#include "tests/channel/UniqueKey.h"
#include "tests/support/StartedOperation.h"
#include "tests/support/MessageBoxWatch.h"
#include "tests/support/ProgressRecorder.h"
#include "tools/FakeService/FakeService.h"

#include <gtest/gtest.h>

using namespace TestSupport;

namespace
{
struct KeyCase
{
    const char* name;
    const WCHAR* tail; // after a key of this test's own
};

class CraftedKey : public testing::TestWithParam<KeyCase>
{
};
} // namespace

TEST_P(CraftedKey, IsAFailedStart)
{
    TestSupport::ProgressDialogRegistration dialogs;
    TestSupport::MessageBoxWatch boxes;
    Text key = UniqueKey(TEXT("name")) + GetParam().tail;
    // Where the platform accepts the name, a pipe listens under it, so only the worker's refusal keeps it
    // out.
    FakeService service(key.c_str(), Script("send 21 4 1 1\n"));
    bool listening = service.Start();

    StartedOperation operation(NewJob(key));
    EXPECT_EQ(static_cast<DWORD>(E_FAIL), operation.ExitCode());

    EXPECT_EQ(0, dialogs.journal.dialogsMade.load());
    EXPECT_TRUE(boxes.Seen().empty());
    if (listening)
    {
        service.Stop();
        EXPECT_EQ(0, service.SessionsEnded()) << "nothing connected";
        EXPECT_TRUE(service.Received().empty());
    }
    EXPECT_EQ(0, ModuleLocks());
}

INSTANTIATE_TEST_SUITE_P(Keys, CraftedKey,
                         testing::Values(KeyCase{"Backslash", TEXT("\\other")},
                                         KeyCase{"Slash", TEXT("/other")},
                                         KeyCase{"UpAndAway", TEXT("\\..\\..\\C:\\Windows\\win.ini")},
                                         KeyCase{"TrailingBackslash", TEXT("\\")}),
                         [](const testing::TestParamInfo<KeyCase>& info)
                         { return std::string(info.param.name); });

// The same key without its separator connects: the refusal is about the separator, not the key.
TEST(PipeName, TheKeyWithoutItsSeparatorConnects)
{
    TestSupport::ProgressDialogRegistration dialogs;
    Text key = UniqueKey(TEXT("name")) + TEXT("other");
    FakeService service(key.c_str(), Script("send 21 4 1 1\n"));
    ASSERT_TRUE(service.Start());

    StartedOperation operation(NewJob(key));
    EXPECT_EQ(0u, operation.ExitCode());
    ASSERT_TRUE(service.WaitForSessions(1, OPERATION_TIME_LIMIT));
    EXPECT_EQ(1u, service.Received().size());
}
