// Marker files read from a real (temporary) drive, and the cache that keeps one record per folder.
#include "extension/CopyMoveExtension.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/ProgressRecorder.h"
#include "tests/support/TestComObject.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

using TestSupport::ManagedDrive;
using TestSupport::Narrow;
using TestSupport::TestComObject;

namespace
{
typedef std::basic_string<WCHAR> Text;

// The result a call raises, S_OK when it returns.
template <typename Call> HRESULT Raised(Call call)
{
    try
    {
        call();
    }
    catch (const CAtlException& failure)
    {
        return failure.m_hr;
    }
    return S_OK;
}

struct Parsed
{
    const char* name;
    const WCHAR* text;
    const WCHAR* key;
    LONG ci, cu, mi, di, defaultAction;
    const WCHAR* relativeMarkerPath;
    const WCHAR* menuItemsText;
};

class ParseDriveMarkerTable : public testing::TestWithParam<Parsed>
{
};

TEST_P(ParseDriveMarkerTable, FieldsAsTheMarkerSays)
{
    const Parsed& row = GetParam();
    DriveInfo* record = ParseDriveMarker(TEXT("x:\\folder"), row.text);
    EXPECT_EQ(record->folderPath, TEXT("x:\\folder"));
    EXPECT_EQ(record->key, row.key);
    EXPECT_EQ(record->ci, row.ci);
    EXPECT_EQ(record->cu, row.cu);
    EXPECT_EQ(record->mi, row.mi);
    EXPECT_EQ(record->di, row.di);
    EXPECT_EQ(record->defaultAction, row.defaultAction);
    EXPECT_EQ(record->relativeMarkerPath, row.relativeMarkerPath);
    EXPECT_EQ(record->menuItemsText, row.menuItemsText);
    // Completion is the reader's business: parsing alone leaves these at their defaults.
    EXPECT_TRUE(record->mountPath.IsEmpty());
    EXPECT_EQ(record->isRoot, 0);
    delete record;
}

INSTANTIATE_TEST_SUITE_P(
    Markers, ParseDriveMarkerTable,
    testing::Values(
        Parsed{"FullFolder", TEXT("K=vm-77|CI=T|CU=T|MI=T|DI=T|DA=0|RM=\\Photos\\2021\\.Velmount"),
               TEXT("vm-77"), 1, 1, 1, 1, 0, TEXT("\\photos\\2021\\.velmount"), TEXT("")},
        Parsed{"DriveTop", TEXT("K=vm-77|CU=T|DA=1|RM=\\.Velmount"), TEXT("vm-77"), 0, 1, 0, 0, 1,
               TEXT("\\.velmount"), TEXT("")},
        Parsed{"Untidy", TEXT("|K=vm-77||DA=2x|junk|=1|CI=|MI=Thanks|FMI=Share link=41\nOpen online=42"),
               TEXT("vm-77"), 0, 0, 1, 0, 2, TEXT(""), TEXT("Share link=41\nOpen online=42")},
        Parsed{"ByteOrderMarkHidesFirstKey", TEXT("\xFEFFK=x|CI=T"), TEXT(""), 1, 0, 0, 0, 0, TEXT(""),
               TEXT("")},
        Parsed{"FlagsOnlyEverSet", TEXT("CI=T|CI=F|CU=True|MI=t|DI=1"), TEXT(""), 1, 1, 0, 0, 0, TEXT(""),
               TEXT("")},
        Parsed{"LastKeyWins", TEXT("K=a|K=b|RM=\\A|RM=\\B\\.V|FMI=x=1|FMI=y=2"), TEXT("b"), 0, 0, 0, 0, 0,
               TEXT("\\b\\.v"), TEXT("y=2")},
        Parsed{"KeysAreCaseSensitiveAndUntrimmed", TEXT("k=a| K=b|ci=T|K =c|K=d "), TEXT("d "), 0, 0, 0, 0, 0,
               TEXT(""), TEXT("")},
        Parsed{"DaNotANumber", TEXT("DA=abc"), TEXT(""), 0, 0, 0, 0, 0, TEXT(""), TEXT("")},
        Parsed{"DaNegative", TEXT("DA=-1"), TEXT(""), 0, 0, 0, 0, -1, TEXT(""), TEXT("")},
        Parsed{"DaBlanksAndSign", TEXT("DA=  +17z"), TEXT(""), 0, 0, 0, 0, 17, TEXT(""), TEXT("")},
        Parsed{"ValueKeepsFurtherEquals", TEXT("K=a=b=c"), TEXT("a=b=c"), 0, 0, 0, 0, 0, TEXT(""), TEXT("")},
        Parsed{"Empty", TEXT(""), TEXT(""), 0, 0, 0, 0, 0, TEXT(""), TEXT("")},
        Parsed{"BarsOnly", TEXT("||||"), TEXT(""), 0, 0, 0, 0, 0, TEXT(""), TEXT("")}),
    [](const testing::TestParamInfo<Parsed>& info) { return std::string(info.param.name); });

TEST(ParseDriveMarker, ArbitraryUnitsNeverCrash)
{
    // Text made of the grammar's own characters and noise: whatever comes, a record comes back.
    const WCHAR alphabet[] = {TEXT('K'), TEXT('C'), TEXT('I'), TEXT('D'), TEXT('A'),  TEXT('R'), TEXT('M'),
                              TEXT('F'), TEXT('='), TEXT('|'), TEXT('T'), TEXT('\\'), TEXT('-'), 0xFEFF,
                              0xD800,    0xDFFF,    TEXT('9'), TEXT(' '), TEXT('\n')};
    std::mt19937 random(20191214);
    for (int round = 0; round < 2000; ++round)
    {
        Text text;
        size_t length = random() % 64;
        for (size_t i = 0; i < length; ++i)
            text += alphabet[random() % (sizeof(alphabet) / sizeof(alphabet[0]))];
        DriveInfo* record = ParseDriveMarker(TEXT("x:"), text.c_str());
        ASSERT_NE(record, nullptr);
        EXPECT_TRUE(record->ci == 0 || record->ci == 1);
        delete record;
    }
}

TEST(FolderOfPath, CutsAtTheLastBackslash)
{
    EXPECT_EQ(FolderOfPath(TEXT("X:\\a\\b.txt")), TEXT("X:\\a"));
    EXPECT_EQ(FolderOfPath(TEXT("X:\\a.txt")), TEXT("X:"));
    EXPECT_EQ(FolderOfPath(TEXT("X:\\")), TEXT("X:"));
    EXPECT_EQ(FolderOfPath(TEXT("\\a")), TEXT(""));
    EXPECT_EQ(FolderOfPath(TEXT("\\\\.velmount")), TEXT("\\"));
    EXPECT_EQ(E_INVALIDARG, Raised([] { FolderOfPath(TEXT("no-backslash")); }))
        << "a path without a backslash has no folder";
}

class DriveMarkerRead : public testing::Test
{
protected:
    void SetUp() override { m_object = TestComObject<CVelmountCopyMoveExtension>::Create(); }
    void TearDown() override { m_object->Release(); }

    // The marker text as bytes, to lay out files the text form can't express.
    static std::vector<BYTE> Bytes(const Text& text)
    {
        const BYTE* start = reinterpret_cast<const BYTE*>(text.data());
        return std::vector<BYTE>(start, start + text.size() * sizeof(WCHAR));
    }

    ManagedDrive m_drive;
    TestComObject<CVelmountCopyMoveExtension>* m_object = nullptr;
};

TEST_F(DriveMarkerRead, CompletesAndCachesUnderTheLowerCasedFolder)
{
    m_drive.WriteMarker(TEXT("Photos\\2021"),
                        TEXT("K=vm-77|CI=T|CU=T|MI=T|DI=T|DA=0|RM=\\Photos\\2021\\.Velmount"));
    WideString folder = m_drive.Path(TEXT("Photos\\2021"));

    DriveInfo* record = m_object->ReadDriveMarker(folder);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(folder, m_drive.Path(TEXT("Photos\\2021"))) << "the caller's string keeps its case";
    EXPECT_EQ(record->folderPath, TEXT("v:\\photos\\2021"));
    EXPECT_EQ(record->mountPath, TEXT("v:"));
    EXPECT_EQ(record->isRoot, 0);
    DriveInfo* cached = nullptr;
    EXPECT_TRUE(m_object->m_driveCache.Lookup(TEXT("v:\\photos\\2021"), cached));
    EXPECT_EQ(cached, record);
    EXPECT_EQ(m_object->m_driveCache.GetCount(), 1u);
}

TEST_F(DriveMarkerRead, NoMarkerIsNoRecord)
{
    m_drive.MakeFolder(TEXT("Plain"));
    EXPECT_EQ(m_object->ReadDriveMarker(m_drive.Path(TEXT("Plain"))), nullptr);
    EXPECT_EQ(m_object->ReadDriveMarker(m_drive.Path(TEXT("Missing"))), nullptr);
    DriveInfo* record = reinterpret_cast<DriveInfo*>(1);
    EXPECT_FALSE(m_object->FindDriveForItem(m_drive.Path(TEXT("Plain\\a.txt")), record));
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(m_object->m_driveCache.GetCount(), 0u);
}

TEST_F(DriveMarkerRead, OnlyTheFirst8192BytesCount)
{
    // 4096 units without a terminator: the whole buffer is text.
    Text exact = TEXT("CI=T|K=") + Text(4096 - 7, TEXT('a'));
    m_drive.WriteMarker(TEXT("Exact"), (exact + TEXT("|RM=\\Exact\\.Velmount")).c_str());
    // The same head in a longer file gives the same text: the key is cut where the buffer ends, RM is lost.
    EXPECT_EQ(E_INVALIDARG, Raised([&] { m_object->ReadDriveMarker(m_drive.Path(TEXT("Exact"))); }))
        << "the cut text has no RM, so the record can't be completed";
    EXPECT_EQ(m_object->m_driveCache.GetCount(), 0u);

    // With a target drive of another key the record comes back uncompleted, which shows the text it read.
    m_drive.WriteMarker(TEXT("Target"), TEXT("K=other|RM=\\Target\\.Velmount"));
    m_object->m_targetDrive = m_object->ReadDriveMarker(m_drive.Path(TEXT("Target")));
    ASSERT_NE(m_object->m_targetDrive, nullptr);
    DriveInfo* cut = m_object->ReadDriveMarker(m_drive.Path(TEXT("Exact")));
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(cut->ci, 1);
    EXPECT_EQ(cut->key.GetLength(), 4096 - 7);
    EXPECT_TRUE(cut->relativeMarkerPath.IsEmpty());

    // Exactly 8192 bytes: the last unit is part of the key (4096 units, not 4095).
    m_drive.WriteMarker(TEXT("Full"), exact.c_str());
    DriveInfo* full = m_object->ReadDriveMarker(m_drive.Path(TEXT("Full")));
    ASSERT_NE(full, nullptr);
    EXPECT_EQ(full->key.GetLength(), 4096 - 7);
}

TEST_F(DriveMarkerRead, TextEndsAtTheFirstNulAndAnOddByteCountEndsInAHalfUnit)
{
    m_object->m_targetDrive = ParseDriveMarker(TEXT(""), TEXT("K=elsewhere"));
    std::vector<BYTE> nul = Bytes(Text(TEXT("K=a")) + WCHAR(0) + TEXT("|CI=T"));
    m_drive.WriteFile(TEXT("Stop\\.Velmount"), nul.data(), static_cast<DWORD>(nul.size()));
    DriveInfo* record = m_object->ReadDriveMarker(m_drive.Path(TEXT("Stop")));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->key, TEXT("a"));
    EXPECT_EQ(record->ci, 0);

    std::vector<BYTE> odd = Bytes(TEXT("K=ab"));
    odd.push_back('c');
    m_drive.WriteFile(TEXT("Odd\\.Velmount"), odd.data(), static_cast<DWORD>(odd.size()));
    record = m_object->ReadDriveMarker(m_drive.Path(TEXT("Odd")));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->key, TEXT("abc"));
    delete m_object->m_targetDrive;
    m_object->m_targetDrive = nullptr;
}

struct RootCase
{
    const char* name;
    const WCHAR* rm;
    LONG isRoot;
    const WCHAR* mountPath;
};

class MarkerRoot : public DriveMarkerRead, public testing::WithParamInterface<RootCase>
{
};

TEST_P(MarkerRoot, IsRootComesFromTheFolderPartOfRm)
{
    // Folder V:\a: marker path "v:\a\.velmount" (14 units).
    Text marker = Text(TEXT("K=k|RM=")) + GetParam().rm;
    m_drive.WriteMarker(TEXT("a"), marker.c_str());
    DriveInfo* record = m_object->ReadDriveMarker(m_drive.Path(TEXT("a")));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->isRoot, GetParam().isRoot);
    EXPECT_EQ(record->mountPath, GetParam().mountPath);
}

INSTANTIATE_TEST_SUITE_P(RmValues, MarkerRoot,
                         testing::Values(RootCase{"Top", TEXT("\\.Velmount"), 1, TEXT("v:\\a")},
                                         RootCase{"DoubledBackslash", TEXT("\\\\.Velmount"), 1, TEXT("v:\\")},
                                         RootCase{"OneLevel", TEXT("\\a\\.Velmount"), 0, TEXT("v:")},
                                         RootCase{"OnlyTheFolderPartCounts", TEXT("\\a"), 1,
                                                  TEXT("v:\\a\\.velmou")},
                                         RootCase{"LongerThanThePathGivesNoMount",
                                                  TEXT("\\aaaaaaaaaaaaaaaaaaaa\\.Velmount"), 0, TEXT("")}),
                         [](const testing::TestParamInfo<RootCase>& info)
                         { return std::string(info.param.name); });

TEST_F(DriveMarkerRead, RmWithoutBackslashRaisesAndCachesNothing)
{
    for (const WCHAR* text : {TEXT("K=k|RM=.Velmount"), TEXT("K=k")})
    {
        m_drive.WriteMarker(TEXT(""), text);
        EXPECT_EQ(E_INVALIDARG, Raised([&] { m_object->ReadDriveMarker(m_drive.Path(TEXT(""))); }))
            << Narrow(text);
        EXPECT_EQ(m_object->m_driveCache.GetCount(), 0u);
    }
}

TEST_F(DriveMarkerRead, DriveTopAndItsItemAreTwoEntriesForOneMarker)
{
    m_drive.WriteMarker(TEXT(""), TEXT("K=vm-77|CU=T|DA=1|RM=\\.Velmount"));
    DriveInfo* top = m_object->ReadDriveMarker(m_drive.Path(TEXT("")));
    ASSERT_NE(top, nullptr);
    EXPECT_EQ(top->mountPath, TEXT("v:\\"));
    EXPECT_EQ(top->isRoot, 1);

    DriveInfo* item = nullptr;
    ASSERT_TRUE(m_object->FindDriveForItem(m_drive.Path(TEXT("a.txt")), item));
    EXPECT_NE(item, top);
    EXPECT_EQ(item->mountPath, TEXT("v:"));
    EXPECT_EQ(item->isRoot, 1);
    DriveInfo* found = nullptr;
    EXPECT_TRUE(m_object->m_driveCache.Lookup(TEXT("v:\\"), found));
    EXPECT_EQ(found, top);
    EXPECT_TRUE(m_object->m_driveCache.Lookup(TEXT("v:"), found));
    EXPECT_EQ(found, item);
    EXPECT_EQ(m_object->m_driveCache.GetCount(), 2u);
}

TEST_F(DriveMarkerRead, ItemsOfOneFolderShareOneEntryWhateverTheirCase)
{
    m_drive.WriteMarker(TEXT("DATA"), TEXT("K=vm-77|RM=\\DATA\\.Velmount"));
    DriveInfo* first = nullptr;
    ASSERT_TRUE(m_object->FindDriveForItem(m_drive.Path(TEXT("DATA\\a.txt")), first));
    // The second lookup must not read: the marker is gone from the disk by then.
    m_drive.DeleteFile(TEXT("DATA\\.Velmount"));
    DriveInfo* second = nullptr;
    ASSERT_TRUE(m_object->FindDriveForItem(TEXT("v:\\data\\b.txt"), second));
    EXPECT_EQ(first, second);
    EXPECT_TRUE(m_object->IsOnSameDrive(TEXT("V:\\Data\\c.txt"), first));
    EXPECT_EQ(m_object->m_driveCache.GetCount(), 1u);
}

// Markers are found whatever the case of the folder's path, as on any drive of the system; a folder
// missing on the way is another error than a missing name.
TEST_F(DriveMarkerRead, NamesAreFoundWhateverTheirCase)
{
    const BYTE one = 1;
    m_drive.WriteFile(TEXT("Deep\\Sub\\Name.txt"), &one, 1);
    const struct
    {
        LPCWSTR path;
        DWORD attributes; // 0: a file
        DWORD error;
    } kPaths[] = {
        {TEXT("Deep\\Sub\\Name.txt"), 0, 0},
        {TEXT("Deep\\Sub\\name.TXT"), 0, 0},
        {TEXT("DEEP\\Sub\\Name.txt"), 0, 0},
        {TEXT("deep\\sub"), FILE_ATTRIBUTE_DIRECTORY, 0},
        {TEXT("Deep\\Sub\\Other.txt"), INVALID_FILE_ATTRIBUTES, ERROR_FILE_NOT_FOUND},
        {TEXT("deep\\Gone\\Name.txt"), INVALID_FILE_ATTRIBUTES, ERROR_PATH_NOT_FOUND},
    };
    for (const auto& item : kPaths)
    {
        SetLastError(0);
        const DWORD attributes = GetFileAttributesW(m_drive.Path(item.path));
        if (item.attributes == INVALID_FILE_ATTRIBUTES)
        {
            EXPECT_EQ(INVALID_FILE_ATTRIBUTES, attributes) << Narrow(item.path);
            EXPECT_EQ(item.error, GetLastError()) << Narrow(item.path);
        }
        else
        {
            ASSERT_NE(INVALID_FILE_ATTRIBUTES, attributes) << Narrow(item.path);
            EXPECT_EQ(item.attributes, attributes & FILE_ATTRIBUTE_DIRECTORY) << Narrow(item.path);
        }
    }
}

// A marker of another key is another drive and stays out of the cache; a cached record of another key is not
// the last word either: the folder's marker is read again, and what it says now decides.
TEST_F(DriveMarkerRead, ForeignKeyIsAnotherDriveAndLeavesTheCacheAlone)
{
    m_drive.WriteMarker(TEXT("Moved"), TEXT("K=old|RM=\\Moved\\.Velmount"));
    ASSERT_NE(m_object->ReadDriveMarker(m_drive.Path(TEXT("Moved"))), nullptr); // cached: no target yet
    m_drive.WriteMarker(TEXT("Mine"), TEXT("K=mine|RM=\\Mine\\.Velmount"));
    // No RM either: with a target set this marker never reaches completion, so nothing is raised.
    m_drive.WriteMarker(TEXT("Theirs"), TEXT("K=theirs"));
    m_object->m_targetDrive = m_object->ReadDriveMarker(m_drive.Path(TEXT("Mine")));
    ASSERT_NE(m_object->m_targetDrive, nullptr);
    ASSERT_EQ(m_object->m_driveCache.GetCount(), 2u);

    EXPECT_FALSE(m_object->IsOnSameDrive(m_drive.Path(TEXT("Theirs\\a.txt")), m_object->m_targetDrive));
    EXPECT_EQ(m_object->m_driveCache.GetCount(), 2u);
    EXPECT_TRUE(m_object->IsOnSameDrive(m_drive.Path(TEXT("Mine\\a.txt")), m_object->m_targetDrive));
    EXPECT_FALSE(m_object->IsOnSameDrive(m_drive.Path(TEXT("Mine\\a.txt")), nullptr));
    EXPECT_FALSE(m_object->IsOnSameDrive(m_drive.Path(TEXT("Nowhere\\a.txt")), m_object->m_targetDrive));

    EXPECT_FALSE(m_object->IsOnSameDrive(m_drive.Path(TEXT("Moved\\a.txt")), m_object->m_targetDrive));
    m_drive.WriteMarker(TEXT("Moved"), TEXT("K=mine|RM=\\Moved\\.Velmount"));
    EXPECT_TRUE(m_object->IsOnSameDrive(m_drive.Path(TEXT("Moved\\a.txt")), m_object->m_targetDrive));
}

TEST_F(DriveMarkerRead, MarkersWithoutKeyAreOneDrive)
{
    m_drive.WriteMarker(TEXT("One"), TEXT("CI=T|RM=\\One\\.Velmount"));
    m_drive.WriteMarker(TEXT("Two"), TEXT("MI=T|RM=\\Two\\.Velmount"));
    DriveInfo* one = m_object->ReadDriveMarker(m_drive.Path(TEXT("One")));
    ASSERT_NE(one, nullptr);
    EXPECT_TRUE(m_object->IsOnSameDrive(m_drive.Path(TEXT("Two\\x")), one));
}

TEST_F(DriveMarkerRead, ItemPathWithoutBackslashRaises)
{
    DriveInfo* record = nullptr;
    EXPECT_EQ(E_INVALIDARG, Raised([&] { m_object->FindDriveForItem(TEXT("a.txt"), record); }));
    std::unique_ptr<DriveInfo> drive(ParseDriveMarker(TEXT(""), TEXT("")));
    EXPECT_EQ(E_INVALIDARG, Raised([&] { m_object->IsOnSameDrive(TEXT("a.txt"), drive.get()); }));
}
} // namespace
