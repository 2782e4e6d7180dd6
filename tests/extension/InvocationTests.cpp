// InvokeCommand: from the chosen item to what the service receives. The road of one operation runs through
// Initialize and QueryContextMenu as the file manager drives them; the other cases arrange the object as
// QueryContextMenu leaves it and look at the request that reaches a fake service, or at its absence.
#include "channel/PipeMessage.h"
#include "extension/CopyMoveExtension.h"
#include "extension/MenuPlan.h"
#include "module/ModuleLock.h"
#include "tests/channel/UniqueKey.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/MessageBoxWatch.h"
#include "tests/support/ProgressRecorder.h"
#include "tests/support/TestComObject.h"
#include "tests/support/World.h"
#include "tools/FakeService/FakeService.h"

#include <gtest/gtest.h>
#ifndef _WIN32
#include "platform/host/ControlThreads.h"
#endif

#include <algorithm>
#include <string>
#include <vector>

using namespace TestSupport;

namespace
{
typedef TestComObject<CVelmountCopyMoveExtension> Extension;
typedef std::basic_string<WCHAR> Text;
typedef std::vector<std::string> Lines;

const DWORD TIME_LIMIT = 20000;

LONG ModuleLocks()
{
    ModuleLockAcquire();
    return ModuleLockRelease();
}

// Waits until every worker has given the module's lock back.
bool WorkersEnded()
{
    for (DWORD waited = 0; waited < TIME_LIMIT; waited += 10)
    {
        if (ModuleLocks() == 0)
            return true;
        Sleep(10);
    }
    return false;
}

ServiceScript Script(const char* text)
{
    ServiceScript script;
    std::string error;
    EXPECT_TRUE(ServiceScript::Parse(text, script, error)) << error;
    return script;
}

// Each box as "caption: text", on the host with its owner and flags, which the Windows watcher can't read.
std::vector<std::string> Captions(const MessageBoxWatch& watch)
{
    std::vector<std::string> lines;
    for (const SeenMessageBox& box : watch.Seen())
    {
        lines.push_back(box.caption + ": " + box.text);
#ifndef _WIN32
        lines.back() += (box.owner ? " (an owner" : " (no owner") + std::string(", flags ") +
                        std::to_string(box.type) + ")";
#endif
    }
    return lines;
}

// A box as Captions lists it.
std::string Box(const std::string& captionAndText, UINT flags)
{
#ifdef _WIN32
    (void)flags;
    return captionAndText;
#else
    return captionAndText + " (no owner, flags " + std::to_string(flags) + ")";
#endif
}

// The object as Initialize and QueryContextMenu leave it, on a managed drive whose key is this test's own.
class Invocation : public testing::Test
{
protected:
    void SetUp() override
    {
        g_moduleInstance = GetModuleHandleW(nullptr);
        key = UniqueKey(TEXT("invoke"));
        Text marker = TEXT("K=") + key + TEXT("|CI=T|MI=T|DA=1|RM=\\Managed\\.Velmount");
        drive.WriteMarker(TEXT("Managed"), marker.c_str());
        drive.MakeFolder(TEXT("Plain"));
        object = Extension::Create();
        ASSERT_EQ(0, ModuleLocks());
    }
    void TearDown() override
    {
        EXPECT_TRUE(WorkersEnded());
        if (object)
            object->Release();
    }

    void ArrangeTarget(LPCWSTR folder)
    {
        object->m_targetFolder = drive.Path(folder);
        object->m_targetDrive = object->ReadDriveMarker(object->m_targetFolder);
        ASSERT_NE(object->m_targetDrive, nullptr);
    }
    void Select(std::vector<WideString> paths)
    {
        for (const WideString& path : paths)
            object->m_selectedFiles.AddTail(path);
    }
    void Command(UINT position, LONG operation, LPCWSTR commandKey = nullptr)
    {
        AddMenuCommand(object->m_menuCommands, position, operation,
                       WideString(commandKey ? commandKey : key.c_str()));
    }
    HRESULT Invoke(UINT_PTR verb)
    {
        CMINVOKECOMMANDINFO info = {};
        info.cbSize = sizeof(info);
        info.lpVerb = reinterpret_cast<LPCSTR>(verb);
        return object->InvokeCommand(&info);
    }
    // Invokes with a service listening; returns the messages it received, once the worker has ended.
    std::vector<ReceivedMessage> InvokeServed(UINT_PTR verb, HRESULT expected,
                                              const char* script = "send 99 0\n")
    {
        FakeService service(key.c_str(), Script(script));
        EXPECT_TRUE(service.Start());
        EXPECT_EQ(expected, Invoke(verb));
        if (expected == S_OK)
        {
            EXPECT_TRUE(service.WaitForSessions(1, TIME_LIMIT));
        }
        EXPECT_TRUE(WorkersEnded());
        service.Stop();
        return service.Received();
    }
    std::string Path(LPCWSTR relative) { return Narrow(drive.Path(relative)); }

    ManagedDrive drive;
    // Every operation that shows progress gets a recording dialog (Wine has none of its own; without one the
    // worker would stop at its error box).
    ProgressDialogRegistration dialogs;
    Text key;
    Extension* object = nullptr;
};

// ---------------------------------------------------------------------------------------------------------
// The road of one operation: two files dragged from an unmanaged folder onto a managed one, Quick Copy.

TEST_F(Invocation, QuickCopyOfADropFromTheMenuToTheService)
{
    WCHAR sid[SID_BUFFER_CAPACITY] = {};
    ASSERT_TRUE(CVelmountCopyMoveExtension::GetUserSidString(sid));
    SetUseValue(sid, 1);
    SetClipboardFormats({});
    SetKeysDown({});
    DropDataObject* data =
        DropDataObject::Create({drive.Path(TEXT("Plain\\a.txt")), drive.Path(TEXT("Plain\\b.txt"))});
    ASSERT_EQ(S_OK, object->Initialize(ItemIdList(drive.Path(TEXT("Managed"))).Get(), data, nullptr));
    data->Release();
    RemoveUseValue(sid);

    HMENU menu = CreatePopupMenu();
    AppendMenuW(menu, MF_STRING, 1, TEXT("Copy here"));
    AppendMenuW(menu, MF_STRING, 2, TEXT("Move here"));
    SetMenuDefaultItem(menu, 2, FALSE);
    ASSERT_EQ(3, object->QueryContextMenu(menu, 0, 100, 0x7FFF, 0));
    WCHAR caption[64] = {};
    GetMenuStringW(menu, 1, caption, 64, MF_BYPOSITION);
    EXPECT_EQ("Velmount Quick Copy", Narrow(caption));
    DestroyMenu(menu);

    ASSERT_TRUE(dialogs.Registered());
    std::vector<ReceivedMessage> received =
        InvokeServed(1, S_OK, "send 21 1\nsend 21 2 2 8192\nsend 21 4 2 8192\n");

    ASSERT_EQ(1u, received.size());
    ASSERT_TRUE(received[0].wellFormed);
    const ServiceMessage& request = received[0].message;
    EXPECT_EQ(12u, request.kind);
    EXPECT_EQ(0u, request.phase);
    EXPECT_EQ(Path(TEXT("Plain\\a.txt")) + "\n" + Path(TEXT("Plain\\b.txt")) + "\n", request.source);
    EXPECT_EQ(Path(TEXT("Managed")), request.target);
    // One record in the cache (the dropped files' folder has no marker): the top of its mount, which the
    // marker's RM places at the drive's top.
    EXPECT_EQ("v:\n", request.drives);
    EXPECT_EQ("", request.spare);
    EXPECT_EQ(object->m_sessionId, request.values[0]);
    EXPECT_EQ(object->m_processId, request.values[1]);
    EXPECT_EQ(GetCurrentProcessId(), object->m_processId);
    EXPECT_EQ(1, dialogs.journal.dialogsMade.load());
}

// ---------------------------------------------------------------------------------------------------------
// What ends the command before anything starts.

struct EarlyCase
{
    const char* what;
    UINT_PTR verb;
    bool chooserCancelled;
    bool commandKey; // the record names the key itself
    int target;      // else the target drive's key stands in: 2 a drive with a key, 1 one without, 0 none
    HRESULT result;
};

class InvocationEarly : public Invocation, public testing::WithParamInterface<EarlyCase>
{
};

TEST_P(InvocationEarly, NothingStarts)
{
    const EarlyCase& row = GetParam();
    if (row.target > 0)
        ArrangeTarget(TEXT("Managed"));
    if (row.target == 1)
        object->m_targetDrive->key = WideString();
    Select({drive.Path(TEXT("Plain\\a.txt"))});
    Command(3, OP_QUICK_COPY, row.commandKey ? key.c_str() : TEXT(""));
    Command(4, 0);
    object->m_chooserCancelled = row.chooserCancelled;
    MessageBoxWatch watch;
    EXPECT_EQ(row.result, Invoke(row.verb));
    EXPECT_EQ(0, ModuleLocks()) << "no worker";
    EXPECT_TRUE(watch.Seen().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, InvocationEarly,
    testing::Values(EarlyCase{"CancelledChooser", 3, true, true, 2, S_OK},
                    EarlyCase{"CancelledChooserWhateverTheVerb", 0x10000, true, true, 2, S_OK},
                    EarlyCase{"TextVerb", 0x10003, false, true, 2, E_INVALIDARG},
                    EarlyCase{"NoRecordForTheNumber", 5, false, true, 2, E_FAIL},
                    EarlyCase{"RecordWithoutOperation", 4, false, true, 2, E_FAIL},
                    EarlyCase{"NoKeyAnywhere", 3, false, false, 1, E_FAIL},
                    EarlyCase{"NoTargetDriveAndNoKeyOnTheRecord", 3, false, false, 0, E_FAIL}),
    [](const testing::TestParamInfo<EarlyCase>& info) { return std::string(info.param.what); });

// ---------------------------------------------------------------------------------------------------------
// Which record, which key.

TEST_F(Invocation, FirstRecordOfANumberWinsAndTheDrivesKeyStandsInForAnEmptyOne)
{
    ArrangeTarget(TEXT("Managed"));
    Select({drive.Path(TEXT("Plain\\a.txt"))});
    Command(0, OP_QUICK_MOVE, TEXT(""));
    Command(0, OP_QUICK_COPY);
    std::vector<ReceivedMessage> received = InvokeServed(0, S_OK);
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(static_cast<DWORD>(OP_QUICK_MOVE), received[0].message.kind);
    EXPECT_EQ(Path(TEXT("Plain\\a.txt")) + "\n", received[0].message.source);
}

// The drive list follows the cache's bins, not the order of reading: the cache holds 17 bins up to 38 records
// and 53 from the 39th on, and walks its bins upwards, each from its newest record. The expected order is
// worked out here from the keys' hashes (h = h * 33 + unit over the lower-cased folder): 38 folders besides
// the target's, each alone in its bin of 53, then two more read after the growth that share one bin.
TEST_F(Invocation, DriveListFollowsTheBinsOfTheGrownCache)
{
    auto hashOf = [](const std::string& text)
    {
        UINT hash = 0;
        for (char unit : text)
            hash = hash * 33u + static_cast<unsigned char>(unit);
        return hash;
    };
    auto lower = [](std::string text)
    {
        for (char& unit : text)
            unit = static_cast<char>(unit >= 'A' && unit <= 'Z' ? unit + 32 : unit);
        return text;
    };
    struct Read
    {
        std::string mount;
        UINT bin; // of the lower-cased folder, the cache's key
        int order;
    };
    // The target's marker says it lies one folder below the mount point; the others are mount points.
    std::string managed = lower(Path(TEXT("Managed")));
    std::vector<Read> reads{{managed.substr(0, managed.rfind('\\')), hashOf(managed) % 53, 0}};
    std::vector<bool> taken(53, false);
    taken[reads[0].bin] = true;
    std::vector<std::string> names;
    for (int i = 0; names.size() < 40; ++i)
    {
        std::string name = "D" + std::to_string(i);
        std::string folder = lower(Path(Text(name.begin(), name.end()).c_str()));
        UINT bin = hashOf(folder) % 53;
        bool pair = names.size() == 39;
        if (pair ? bin != reads.back().bin : taken[bin])
            continue;
        taken[bin] = true;
        names.push_back(name);
        reads.push_back({folder, bin, static_cast<int>(reads.size())});
    }
    for (const std::string& name : names)
    {
        Text marker = TEXT("K=") + key + TEXT("|RM=\\.Velmount");
        drive.WriteMarker(Text(name.begin(), name.end()).c_str(), marker.c_str());
    }
    ArrangeTarget(TEXT("Managed"));
    for (const std::string& name : names)
        ASSERT_NE(nullptr, object->ReadDriveMarker(drive.Path(Text(name.begin(), name.end()).c_str())));
    ASSERT_EQ(53u, object->m_driveCache.GetHashTableSize());
    Select({drive.Path(TEXT("Managed\\a.txt"))});
    Command(1, OP_QUICK_COPY);

    std::stable_sort(reads.begin(), reads.end(),
                     [](const Read& a, const Read& b)
                     { return a.bin != b.bin ? a.bin < b.bin : a.order > b.order; });
    std::string expected;
    for (const Read& read : reads)
        expected += read.mount + "\n";
    std::vector<ReceivedMessage> received = InvokeServed(1, S_OK);
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(expected, received[0].message.drives);
}

// ---------------------------------------------------------------------------------------------------------
// Quick Delete asks first.

struct DeleteCase
{
    const char* what;
    size_t items;
    int answer;
    const char* text;
};

class InvocationDelete : public Invocation, public testing::WithParamInterface<DeleteCase>
{
};

TEST_P(InvocationDelete, AsksAndSendsOnlyOnYes)
{
    const DeleteCase& row = GetParam();
    object->m_itemContext = 1;
    object->m_targetDrive = object->ReadDriveMarker(drive.Path(TEXT("Managed")));
    ASSERT_NE(object->m_targetDrive, nullptr);
    std::string expectedSource;
    for (size_t i = 0; i < row.items; ++i)
    {
        WideString path = drive.Path(TEXT("Managed\\f"));
        path.Append(i % 2 ? TEXT("1") : TEXT("0"));
        Select({path});
        expectedSource += Narrow(path) + "\n";
    }
    Command(2, OP_QUICK_DELETE);

    MessageBoxWatch watch(row.answer);
    std::vector<ReceivedMessage> received = InvokeServed(2, row.answer == IDYES ? S_OK : E_FAIL);
    EXPECT_EQ(
        (Lines{Box(std::string("Velmount Delete Confirmation: ") + row.text, MB_YESNO | MB_ICONEXCLAMATION)}),
        Captions(watch));
    if (row.answer != IDYES)
    {
        EXPECT_TRUE(received.empty());
        return;
    }
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(14u, received[0].message.kind);
    EXPECT_EQ(expectedSource, received[0].message.source);
    EXPECT_EQ("", received[0].message.target) << "items have no target folder";
}

INSTANTIATE_TEST_SUITE_P(
    Rows, InvocationDelete,
    testing::Values(DeleteCase{"OneYes", 1, IDYES, "Are you sure you want to remove this item?"},
                    DeleteCase{"OneNo", 1, IDNO, "Are you sure you want to remove this item?"},
                    DeleteCase{"TwoYes", 2, IDYES, "Are you sure you want to remove these 2 items?"},
                    DeleteCase{"TwelveNo", 12, IDNO, "Are you sure you want to remove these 12 items?"}),
    [](const testing::TestParamInfo<DeleteCase>& info) { return std::string(info.param.what); });

// ---------------------------------------------------------------------------------------------------------
// Commands of the folder's own menu (FMI items) on a background click.

TEST_F(Invocation, QuietBackgroundCommandSendsTheFolderAsItsSourceAndShowsNoProgress)
{
    ArrangeTarget(TEXT("Managed"));
    object->m_backgroundContext = 1;
    Command(0, OP_QUIET);
    std::string folder = Path(TEXT("Managed"));

    std::vector<ReceivedMessage> first = InvokeServed(0, S_OK);
    ASSERT_EQ(1u, first.size());
    EXPECT_EQ(51u, first[0].message.kind);
    EXPECT_EQ(folder + "\n", first[0].message.source);
    EXPECT_EQ(folder, first[0].message.target);

    // The folder stays at the head of the selection: a second call sends it twice.
    std::vector<ReceivedMessage> second = InvokeServed(0, S_OK);
    ASSERT_EQ(1u, second.size());
    EXPECT_EQ(folder + "\n" + folder + "\n", second[0].message.source);
    EXPECT_EQ(2u, object->m_selectedFiles.GetCount());
    EXPECT_EQ(0, dialogs.journal.dialogsMade.load());
}

TEST_F(Invocation, OtherBackgroundCommandSendsNoSourcesAndShowsProgress)
{
    ArrangeTarget(TEXT("Managed"));
    object->m_backgroundContext = 1;
    Command(0, 60);
    std::vector<ReceivedMessage> received = InvokeServed(0, S_OK);
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(60u, received[0].message.kind);
    EXPECT_EQ("", received[0].message.source);
    EXPECT_EQ(Path(TEXT("Managed")), received[0].message.target);
    EXPECT_EQ(1, dialogs.journal.dialogsMade.load());
}

TEST_F(Invocation, QuietItemsCommandSendsTheSelectionUnchanged)
{
    object->m_itemContext = 1;
    object->m_targetDrive = object->ReadDriveMarker(drive.Path(TEXT("Managed")));
    Select({drive.Path(TEXT("Managed\\x"))});
    Command(0, OP_QUIET);
    std::vector<ReceivedMessage> received = InvokeServed(0, S_OK);
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(Path(TEXT("Managed\\x")) + "\n", received[0].message.source);
    EXPECT_EQ("", received[0].message.target);
}

// ---------------------------------------------------------------------------------------------------------
// What may be handed over: 512000 UTF-16 units of list, and a request that fits one message.

struct SizeCase
{
    const char* what;
    int paths;
    int unitsPerPath; // newline included
    WCHAR letter;
    HRESULT result;
};

class InvocationSize : public Invocation, public testing::WithParamInterface<SizeCase>
{
};

TEST_P(InvocationSize, ListWithinTheLimitsGoesAndOneBeyondIsRefusedWhole)
{
    const SizeCase& row = GetParam();
    ArrangeTarget(TEXT("Managed"));
    WideString first = drive.Path(TEXT("Plain\\"));
    std::string expected;
    for (int i = 0; i < row.paths; ++i)
    {
        // Each path is told apart by its number, so that order and wholeness show in what arrives.
        Text path(first.GetString());
        for (char digit : std::to_string(i))
            path += static_cast<WCHAR>(digit);
        const int extra = (i == row.paths - 1 && row.unitsPerPath < 0) ? 1 : 0;
        const int units = (row.unitsPerPath < 0 ? -row.unitsPerPath : row.unitsPerPath) + extra;
        path.resize(static_cast<size_t>(units - 1), row.letter);
        Select({WideString(path.c_str())});
        expected += Narrow(path.c_str()) + "\n";
    }
    Command(1, OP_QUICK_COPY);
    MessageBoxWatch watch;
    std::vector<ReceivedMessage> received = InvokeServed(1, row.result);
    if (row.result == S_OK)
    {
        EXPECT_TRUE(watch.Seen().empty());
        ASSERT_EQ(1u, received.size());
        EXPECT_TRUE(received[0].wellFormed);
        EXPECT_EQ(expected, received[0].message.source)
            << "whole, in order, nothing of the room's unused end";
    }
    else
    {
        EXPECT_EQ((Lines{Box("Velmount Error: Velmount : Too Many Files To Process", MB_ICONHAND)}),
                  Captions(watch));
        EXPECT_TRUE(received.empty()) << "nothing is sent";
    }
}

// 1000 paths of 512 units fill the list exactly (the list is made in room taken for all of it at once); a
// negative count makes the last path one unit longer. 4000 paths of 100 units ("V:\Plain\", the number, Han
// characters, the newline) are 400,000 units but over 1,080,000 bytes of UTF-8.
INSTANTIATE_TEST_SUITE_P(Rows, InvocationSize,
                         testing::Values(SizeCase{"Exactly512000", 1000, 512, TEXT('a'), S_OK},
                                         SizeCase{"OneMore", 1000, -512, TEXT('a'), E_FAIL},
                                         SizeCase{"HanPassesTheCharactersButNotTheMessage", 4000, 100,
                                                  static_cast<WCHAR>(0x6F22), E_FAIL}),
                         [](const testing::TestParamInfo<SizeCase>& info)
                         { return std::string(info.param.what); });

#ifndef _WIN32
// Only the stand-in can refuse a thread on request.
TEST_F(Invocation, ThreadThatCannotStartIsReportedAndGivesTheLockBack)
{
    ArrangeTarget(TEXT("Managed"));
    Select({drive.Path(TEXT("Plain\\a.txt"))});
    Command(1, OP_QUICK_COPY);
    MessageBoxWatch watch;
    VmHostFailCreateThread(1);
    EXPECT_EQ(E_FAIL, Invoke(1));
    EXPECT_EQ((Lines{Box("ERROR: Progress Thread Creation Failed", MB_ICONHAND)}), Captions(watch));
    EXPECT_EQ(0, ModuleLocks());
}
#endif
} // namespace
