#include "channel/ProgressInterpreter.h"

#include "tests/support/ManagedDrive.h"
#include "tests/support/ProgressRecorder.h"
#include "tests/support/TestClock.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using TestSupport::ProgressJournal;
typedef std::vector<std::string> Calls;

namespace
{
// Paths that exist on every test machine, since Windows makes shell items only for what is there.
#define SOURCE_A TEXT("C:\\windows")
#define SOURCE_B TEXT("C:\\windows\\system32")
#define TARGET_A TEXT("C:\\windows\\fonts")

PipeMessage Message(DWORD kind, DWORD phase, std::vector<ULONGLONG> values = {}, LPCWSTR source = nullptr,
                    LPCWSTR target = nullptr)
{
    PipeMessage message;
    message.m_kind = kind;
    message.m_phase = phase;
    for (size_t i = 0; i < values.size() && i < 6; ++i)
        message.m_values[i] = values[i];
    message.m_source = source;
    message.m_target = target;
    return message;
}

class ProgressInterpreterTest : public ::testing::Test
{
protected:
    ProgressInterpreterTest() : m_dialog(TestSupport::NewRecordingDialog(m_journal))
    {
        m_job = new OperationJob;
    }
    ~ProgressInterpreterTest() override
    {
        if (m_job->m_sourceItem)
            m_job->m_sourceItem->Release();
        if (m_job->m_targetItem)
            m_job->m_targetItem->Release();
        DestroyOperationJob(m_job);
        m_dialog->Release();
        EXPECT_EQ(0, m_journal.liveDialogs.load());
    }

    int Handle(const PipeMessage& message, DWORD operation = 12)
    {
        return HandleProgressMessage(m_job, m_dialog, operation, message, m_counters);
    }

    ProgressJournal m_journal;
    IOperationsProgressDialog* m_dialog;
    OperationJob* m_job;
    ProgressCounters m_counters;
    TestSupport::ClockOverride m_clock;
};
} // namespace

// Every row of the five groups, from counters 5 of 10 items and 50 of 100 bytes, with a dialog and without.
TEST_F(ProgressInterpreterTest, EveryRowOfTheFiveGroups)
{
    struct Row
    {
        DWORD kind, phase;
        std::vector<ULONGLONG> values;
        int goesOn;
        ProgressCounters after; // items done, items total, bytes done, bytes total
        Calls calls;
    } rows[] = {
        // Group 1: the six progress kinds alike.
        {21, 1, {}, 1, {5, 10, 50, 100}, {"SetOperation 7"}},
        {22,
         2,
         {7, 700},
         1,
         {0, 7, 50, 700},
         {"SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 50 700 0 7"}},
        {23, 3, {6, 60, 0, 0}, 1, {6, 10, 60, 100}, {"UpdateProgress 600 1000 60 100 6 10"}},
        {31,
         3,
         {6, 60, 20, 0x8000000000000000ull},
         1,
         {6, 20, 60, 100},
         {"UpdateProgress 600 1000 60 100 6 20"}},
        {32,
         3,
         {6, 300, 0xFFFFFFFFFFFFFFFFull, 200},
         1,
         {6, 10, 300, 200},
         {"UpdateProgress 1500 1000 300 200 6 10"}},
        {33, 4, {9, 90, 99, 99}, 0, {9, 10, 90, 100}, {"UpdateProgress 900 1000 90 100 9 10"}},
        {21, 99, {1, 1}, 0, {5, 10, 50, 100}, {}},
        {21, 0, {1, 1}, 1, {5, 10, 50, 100}, {}},
        {21, 5, {1, 1}, 1, {5, 10, 50, 100}, {}},
        // Group 2: kind 51.
        {51, 4, {1, 1}, 0, {5, 10, 50, 100}, {"UpdateProgress 1000 1000 50 100 5 10"}},
        {51, 99, {1, 1}, 0, {5, 10, 50, 100}, {}},
        {51, 3, {1, 1}, 1, {5, 10, 50, 100}, {}},
        // Group 3: kind 98, whatever the phase.
        {98, 4, {1, 1}, 1, {5, 10, 50, 100}, {}},
        {98, 99, {1, 1}, 1, {5, 10, 50, 100}, {}},
        // Group 4: kind 99, whatever the phase.
        {99, 3, {1, 1, 1, 1}, 0, {5, 10, 50, 100}, {}},
        {99, 0, {}, 0, {5, 10, 50, 100}, {}},
        // Group 5: any other kind, 81 and 24 among them.
        {24, 3, {1, 1, 1, 1}, 1, {5, 10, 50, 100}, {}},
        {81, 3, {1, 1, 1, 1}, 1, {5, 10, 50, 100}, {}},
        {81, 4, {8, 80}, 0, {8, 10, 80, 100}, {"UpdateProgress 1000 1000 80 100 8 10"}},
        {0, 4, {8, 80}, 0, {8, 10, 80, 100}, {"UpdateProgress 1000 1000 80 100 8 10"}},
        {100, 99, {8, 80}, 0, {5, 10, 50, 100}, {}},
        {34, 1, {8, 80}, 1, {5, 10, 50, 100}, {}},
    };
    for (bool withDialog : {true, false})
        for (const Row& row : rows)
        {
            ProgressCounters counters{5, 10, 50, 100};
            m_journal.Clear();
            int result = HandleProgressMessage(m_job, withDialog ? m_dialog : nullptr, 12,
                                               Message(row.kind, row.phase, row.values), counters);
            std::string label = "kind " + std::to_string(row.kind) + " phase " + std::to_string(row.phase) +
                                (withDialog ? " with dialog" : " without dialog");
            EXPECT_EQ(row.goesOn, result != 0) << label;
            EXPECT_EQ(row.after.itemsDone, counters.itemsDone) << label;
            EXPECT_EQ(row.after.itemsTotal, counters.itemsTotal) << label;
            EXPECT_EQ(row.after.bytesDone, counters.bytesDone) << label;
            EXPECT_EQ(row.after.bytesTotal, counters.bytesTotal) << label;
            EXPECT_EQ(withDialog ? row.calls : Calls(), m_journal.Calls()) << label;
        }
}

TEST_F(ProgressInterpreterTest, NoByteTotalMeansNoPoints)
{
    struct Row
    {
        DWORD kind, phase;
        const char* call;
    } rows[] = {
        {21, 3, "UpdateProgress 0 1000 40 0 4 0"},
        {21, 4, "UpdateProgress 0 1000 40 0 4 0"},
        {24, 4, "UpdateProgress 0 1000 40 0 4 0"},
        {51, 4, "UpdateProgress 1000 1000 0 0 0 0"},
    };
    for (const Row& row : rows)
    {
        ProgressCounters counters;
        m_journal.Clear();
        m_job->m_lastUpdateTick = 1; // keeps the locations out of this
        HandleProgressMessage(m_job, m_dialog, 12, Message(row.kind, row.phase, {4, 40}), counters);
        ASSERT_FALSE(m_journal.Calls().empty());
        EXPECT_EQ(row.call, m_journal.Calls().back()) << row.kind << "/" << row.phase;
    }
}

TEST_F(ProgressInterpreterTest, TotalsSetTheActionOfTheRequest)
{
    struct Row
    {
        DWORD operation;
        Calls calls;
    } rows[] = {
        {12, {"SetMode 1", "SetOperation 2", "UpdateProgress 0 1000 0 0 0 0"}},
        {13, {"SetMode 1", "SetOperation 1", "UpdateProgress 0 1000 0 0 0 0"}},
        {14, {"SetMode 1", "SetOperation 10", "UpdateProgress 0 1000 0 0 0 0"}},
        {51, {"SetMode 1", "UpdateProgress 0 1000 0 0 0 0"}},
        {77, {"SetMode 1", "UpdateProgress 0 1000 0 0 0 0"}}, // a code from the marker's FMI text
    };
    for (const Row& row : rows)
    {
        m_journal.Clear();
        Handle(Message(31, 2), row.operation);
        EXPECT_EQ(row.calls, m_journal.Calls()) << "operation " << row.operation;
    }
}

TEST_F(ProgressInterpreterTest, LocationsChangeAtMostOnceASecond)
{
    if (!TestSupport::CanSetClock())
        GTEST_SKIP() << "needs a clock the test can set, which only the host stand-in offers";
    // Under a second after the clock's start: a tick of 0 still means "never refreshed".
    TestSupport::SetClock(500);
    Handle(Message(21, 3, {1, 10, 4, 100}, SOURCE_A, TARGET_A));
    ASSERT_EQ(2u, m_journal.Calls().size());
    EXPECT_EQ(0u, m_journal.Calls()[0].rfind("UpdateLocations", 0));
    EXPECT_EQ(500u, m_job->m_lastUpdateTick);
    m_journal.Clear();

    TestSupport::AdvanceClock(999); // different paths, but within the second: counters and progress only
    Handle(Message(21, 3, {2, 20, 4, 100}, SOURCE_B, TARGET_A));
    EXPECT_EQ(Calls({"UpdateProgress 200 1000 20 100 2 4"}), m_journal.Calls());
    EXPECT_EQ(500u, m_job->m_lastUpdateTick);
    EXPECT_EQ(2u, m_counters.itemsDone);
    m_journal.Clear();

    TestSupport::AdvanceClock(1); // 1000 ms after the last refresh
    Handle(Message(21, 3, {3, 30, 4, 100}, SOURCE_B, TARGET_A));
    EXPECT_EQ(Calls({"UpdateLocations c:\\windows\\system32 c:\\windows\\fonts c:\\windows\\system32",
                     "UpdateProgress 300 1000 30 100 3 4"}),
              m_journal.Calls());
    m_journal.Clear();

    TestSupport::AdvanceClock(5000); // nothing changed: no UpdateLocations, but the time moves on
    Handle(Message(21, 3, {3, 30, 4, 100}, SOURCE_B, TARGET_A));
    EXPECT_EQ(Calls({"UpdateProgress 300 1000 30 100 3 4"}), m_journal.Calls());
    EXPECT_EQ(6500u, m_job->m_lastUpdateTick);
}

TEST_F(ProgressInterpreterTest, OnlyAChangedTargetKeepsTheSourceItem)
{
    Handle(Message(21, 3, {1, 10, 4, 100}, SOURCE_A, nullptr));
    EXPECT_EQ("UpdateLocations c:\\windows - c:\\windows", m_journal.Calls().front()); // no target named yet
    IShellItem* sourceItem = m_job->m_sourceItem;
    ASSERT_TRUE(sourceItem);
    m_journal.Clear();

    m_job->m_lastUpdateTick = 1; // long ago: let the next message through
    Handle(Message(21, 3, {2, 20, 4, 100}, nullptr, TARGET_A));
    EXPECT_EQ(sourceItem, m_job->m_sourceItem);
    EXPECT_TRUE(m_job->m_currentSource == SOURCE_A);
    EXPECT_EQ("UpdateLocations c:\\windows c:\\windows\\fonts c:\\windows", m_journal.Calls().front());
}

TEST_F(ProgressInterpreterTest, AnItemThatCannotBeMadeIsNotTriedAgain)
{
    const LPCWSTR bad = TEXT("C:\\no|such<name");
    Handle(Message(21, 3, {1, 10, 4, 100}, bad, TARGET_A));
    EXPECT_FALSE(m_job->m_sourceItem);
    EXPECT_TRUE(m_job->m_targetItem);
    EXPECT_TRUE(m_job->m_currentSource == bad);
    // Without a source item there is no UpdateLocations, only the progress.
    EXPECT_EQ(Calls({"UpdateProgress 100 1000 10 100 1 4"}), m_journal.Calls());
}

// The shell makes items only of what is there, spelled as the file system spells it; a path that gives no
// item is still remembered, so it is not tried again.
TEST_F(ProgressInterpreterTest, ItemsAreMadeOnlyForWhatIsThere)
{
    TestSupport::ManagedDrive drive;
    drive.MakeFolder(TEXT("Src"));
    Handle(Message(21, 3, {1, 10, 4, 100}, TEXT("v:\\src"), TEXT("V:\\Missing")));
    ASSERT_TRUE(m_job->m_sourceItem);
    EXPECT_FALSE(m_job->m_targetItem);
    EXPECT_TRUE(m_job->m_currentTarget == TEXT("V:\\Missing"));
    LPWSTR spelled = nullptr;
    ASSERT_EQ(S_OK, m_job->m_sourceItem->GetDisplayName(SIGDN_FILESYSPATH, &spelled));
    EXPECT_EQ("V:\\Src", TestSupport::Narrow(spelled));
    CoTaskMemFree(spelled);
    EXPECT_EQ(Calls({"UpdateLocations v:\\src - v:\\src", "UpdateProgress 100 1000 10 100 1 4"}),
              m_journal.Calls());
}
