// Initialize over the three call shapes, with real marker files, registry values, clipboard and data objects.
#include "extension/CopyMoveExtension.h"
#include "tests/support/ManagedDrive.h"
#include "tests/support/TestComObject.h"
#include "tests/support/World.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#ifndef _WIN32
#include "platform/host/ControlGdi.h"
#include "platform/host/ControlIdentity.h"
#include "platform/host/ControlInput.h"
#include "platform/host/ControlMemory.h"
#include "platform/host/HandleTable.h"
#endif

using namespace TestSupport;

namespace
{
typedef TestComObject<CVelmountCopyMoveExtension> Extension;

enum class Folder
{
    None,
    Managed,
    Plain,
    Virtual
};
enum class Data
{
    None,
    Paths,
    ZeroPaths,
    NoDropFiles,
    Unlockable
};
enum class Use
{
    Missing,
    Zero,
    One
};

class InitializeTest : public testing::Test
{
protected:
    void SetUp() override
    {
        g_moduleInstance = GetModuleHandleW(nullptr);
        WCHAR sid[SID_BUFFER_CAPACITY] = {};
        ASSERT_TRUE(CVelmountCopyMoveExtension::GetUserSidString(sid));
        m_sid = sid;
        RemoveUseValue(m_sid);
        SetClipboardFormats({});
        SetKeysDown({});
        m_drive.MakeFolder(TEXT("Managed\\Sub"));
        m_drive.MakeFolder(TEXT("Plain"));
        m_drive.WriteMarker(TEXT("Managed"), TEXT("K=vm-77|CI=T|MI=T|DA=0|RM=\\Managed\\.Velmount"));
        m_object = Extension::Create();
    }
    void TearDown() override
    {
        if (m_object)
            m_object->Release();
        for (DropDataObject* data : m_data)
            data->Release();
        RemoveUseValue(m_sid);
        SetClipboardFormats({});
        SetKeysDown({});
    }

    void SetUse(Use use)
    {
        if (use == Use::Missing)
            RemoveUseValue(m_sid);
        else
            SetUseValue(m_sid, use == Use::One ? 1 : 0);
    }

    DropDataObject* MakeData(const std::vector<WideString>& paths)
    {
        m_data.push_back(DropDataObject::Create(paths));
        return m_data.back();
    }

    DropDataObject* MakeData(Data data)
    {
        switch (data)
        {
        case Data::None:
            return nullptr;
        case Data::ZeroPaths:
            return MakeData(std::vector<WideString>());
        default:
            break;
        }
        DropDataObject* object =
            MakeData({m_drive.Path(TEXT("Plain\\a.txt")), m_drive.Path(TEXT("Plain\\b.txt"))});
        if (data == Data::NoDropFiles)
            object->WithoutDropFiles();
        if (data == Data::Unlockable)
            object->WithUnlockableDropFiles();
        return object;
    }

    HRESULT Run(Folder folder, IDataObject* data) { return Run(folder, data, m_object); }
    HRESULT Run(Folder folder, IDataObject* data, Extension* object)
    {
        switch (folder)
        {
        case Folder::None:
            return object->Initialize(nullptr, data, nullptr);
        case Folder::Virtual:
            return object->Initialize(ItemIdList::VirtualFolder().Get(), data, nullptr);
        case Folder::Managed:
            return object->Initialize(ItemIdList(m_drive.Path(TEXT("Managed"))).Get(), data, nullptr);
        case Folder::Plain:
            return object->Initialize(ItemIdList(m_drive.Path(TEXT("Plain"))).Get(), data, nullptr);
        }
        return E_UNEXPECTED;
    }

    ManagedDrive m_drive;
    WideString m_sid;
    Extension* m_object = nullptr;
    std::vector<DropDataObject*> m_data;
};

// A new object holds no record or bitmap, and no command sits at offset 0 (the one value a Quick position
// may never default to).
TEST_F(InitializeTest, ConstructionSetsTheTableValuesAndTouchesNothing)
{
    EXPECT_EQ(m_object->m_targetDrive, nullptr);
    EXPECT_EQ(m_object->m_menuBitmap, nullptr);
    for (LONG position : {m_object->m_quickCopyPos, m_object->m_quickMovePos, m_object->m_quickDeletePos})
        EXPECT_EQ(position, -1);
}

struct Shape
{
    const char* name;
    Folder folder;
    Data data;
    Use use;
    HRESULT result;
    LONG itemContext;
    LONG backgroundContext;
    LONG useApi;
    size_t files;
    bool folderRead;  // m_targetFolder was set
    bool driveSet;    // m_targetDrive is set afterwards
    int dropRequests; // how often CF_HDROP was asked for
};

class InitializeShapes : public InitializeTest, public testing::WithParamInterface<Shape>
{
};

TEST_P(InitializeShapes, DecisionTableRow)
{
    const Shape& row = GetParam();
    SetUse(row.use);
    DropDataObject* data = MakeData(row.data);
    EXPECT_EQ(Run(row.folder, data), row.result);
    EXPECT_EQ(m_object->m_itemContext, row.itemContext);
    EXPECT_EQ(m_object->m_backgroundContext, row.backgroundContext);
    EXPECT_EQ(m_object->m_useApi, row.useApi);
    EXPECT_EQ(m_object->m_selectedFiles.GetCount(), row.files);
    EXPECT_EQ(!m_object->m_targetFolder.IsEmpty(), row.folderRead);
    EXPECT_EQ(m_object->m_targetDrive != nullptr, row.driveSet);
    if (data)
    {
        EXPECT_EQ(data->DropFilesRequests(), row.dropRequests);
    }
    // Every way out of Initialize has the ids and the bitmap.
    EXPECT_EQ(m_object->m_processId, GetCurrentProcessId());
    EXPECT_NE(m_object->m_menuBitmap, nullptr);
}

const HRESULT OK = S_OK, BAD = E_INVALIDARG;
const Shape SHAPES[] = {
    {"BackgroundNoPath", Folder::Virtual, Data::None, Use::One, BAD, 0, 0, 1, 0, false, false, 0},
    {"BackgroundNoMarker", Folder::Plain, Data::None, Use::One, BAD, 0, 0, 1, 0, true, false, 0},
    {"BackgroundManaged", Folder::Managed, Data::None, Use::One, OK, 0, 1, 1, 0, true, true, 0},
    {"BackgroundWithoutUse", Folder::Managed, Data::None, Use::Missing, OK, 0, 1, 0, 0, true, true, 0},
    {"DropUseZero", Folder::Managed, Data::Paths, Use::Zero, BAD, 0, 0, 0, 0, false, false, 0},
    {"DropNoPath", Folder::Virtual, Data::Paths, Use::One, BAD, 0, 0, 1, 0, false, false, 0},
    {"DropNoMarker", Folder::Plain, Data::Paths, Use::One, BAD, 0, 0, 1, 0, true, false, 0},
    {"DropNoDropFiles", Folder::Managed, Data::NoDropFiles, Use::One, BAD, 0, 0, 1, 0, true, true, 1},
    {"DropUnlockable", Folder::Managed, Data::Unlockable, Use::One, BAD, 0, 0, 1, 0, true, true, 1},
    {"DropZeroPaths", Folder::Managed, Data::ZeroPaths, Use::One, E_FAIL, 0, 0, 1, 0, true, true, 1},
    {"DropPaths", Folder::Managed, Data::Paths, Use::One, OK, 0, 0, 1, 2, true, true, 1},
    {"ItemsNoDropFiles", Folder::None, Data::NoDropFiles, Use::Zero, BAD, 1, 0, 0, 0, false, false, 1},
    {"ItemsUnlockable", Folder::None, Data::Unlockable, Use::One, BAD, 1, 0, 1, 0, false, false, 1},
    {"ItemsZeroPaths", Folder::None, Data::ZeroPaths, Use::Missing, E_FAIL, 1, 0, 0, 0, false, false, 1},
    {"ItemsUseZero", Folder::None, Data::Paths, Use::Zero, OK, 1, 0, 0, 2, false, false, 1},
    {"ItemsUseOne", Folder::None, Data::Paths, Use::One, OK, 1, 0, 1, 2, false, false, 1},
    {"Nothing", Folder::None, Data::None, Use::One, E_FAIL, 1, 0, 1, 0, false, false, 0},
};
INSTANTIATE_TEST_SUITE_P(Rows, InitializeShapes, testing::ValuesIn(SHAPES),
                         [](const testing::TestParamInfo<Shape>& info)
                         { return std::string(info.param.name); });

// Every medium Initialize takes from the data object (the paths, the drop effect) goes back on every way out:
// on Windows a medium kept is the whole path list lost on every right-click. Counted once through owners in
// pUnkForRelease, once as blocks ReleaseStgMedium frees itself (on the host, the stand-in's live blocks).
TEST_F(InitializeTest, EveryMediumTakenIsReleased)
{
    SetClipboardFormats({TEXT("Preferred DropEffect")});
    for (const Shape& row : SHAPES)
    {
        if (row.data == Data::None)
            continue;
        for (bool owners : {true, false})
        {
            SCOPED_TRACE(testing::Message() << row.name << (owners ? ", with owners" : ", blocks alone"));
            SetUse(row.use);
            DropDataObject* data = MakeData(row.data);
            data->AddValue(TEXT("Preferred DropEffect"), 1);
            if (owners)
                data->WithMediumOwners();
#ifndef _WIN32
            const DWORD blocks = VmHostLiveGlobalBlocks();
#endif
            Extension* object = Extension::Create();
            EXPECT_EQ(Run(row.folder, data, object), row.result);
            object->Release();
            // The paths' medium whenever one was asked for and offered, and the drop effect's on a managed
            // target.
            const int taken = (row.data == Data::NoDropFiles ? 0 : row.dropRequests) +
                              (row.folder != Folder::None && row.driveSet ? 1 : 0);
            EXPECT_EQ(data->MediaHandedOut(), taken);
            if (owners)
            {
                EXPECT_EQ(data->MediaReleased(), data->MediaHandedOut());
            }
#ifndef _WIN32
            EXPECT_EQ(VmHostLiveGlobalBlocks(), blocks);
#endif
        }
    }
}

TEST_F(InitializeTest, DropKeepsTheShellsOrderAndCase)
{
    SetUse(Use::One);
    DropDataObject* data = MakeData({TEXT("C:\\Elsewhere\\B.TXT"), m_drive.Path(TEXT("Plain\\a.txt"))});
    ASSERT_EQ(Run(Folder::Managed, data), S_OK);
    EXPECT_EQ(m_object->m_targetFolder, m_drive.Path(TEXT("Managed")));
    EXPECT_EQ(m_object->m_targetDrive->folderPath, TEXT("v:\\managed"));
    EXPECT_EQ(m_object->m_targetDrive->key, TEXT("vm-77"));
    POSITION position = m_object->m_selectedFiles.GetHeadPosition();
    EXPECT_EQ(m_object->m_selectedFiles.GetNext(position), TEXT("C:\\Elsewhere\\B.TXT"));
    EXPECT_EQ(m_object->m_selectedFiles.GetNext(position), m_drive.Path(TEXT("Plain\\a.txt")));
}

// A block that doesn't hold a whole list is taken as no CF_HDROP at all, and adds nothing to what the list
// held. Which blocks those are is the reader's business; one of them is enough here.
TEST_F(InitializeTest, BrokenDropFilesCountAsNone)
{
    ASSERT_EQ(Run(Folder::None, MakeData({TEXT("C:\\a")})), S_OK);
    std::vector<BYTE> unclosed = DropFilesBlock({TEXT("C:\\b"), TEXT("C:\\c")});
    unclosed.resize(unclosed.size() - sizeof(WCHAR));
    m_data.push_back(DropDataObject::FromBlock(unclosed));
    EXPECT_EQ(Run(Folder::None, m_data.back()), E_INVALIDARG);
    ASSERT_EQ(m_object->m_selectedFiles.GetCount(), 1u);
    EXPECT_EQ(m_object->m_selectedFiles.GetHead(), TEXT("C:\\a"));
}

TEST_F(InitializeTest, SecondCallAddsToTheList)
{
    DropDataObject* data = MakeData({TEXT("C:\\a"), TEXT("C:\\b")});
    ASSERT_EQ(Run(Folder::None, data), S_OK);
    ASSERT_EQ(Run(Folder::None, data), S_OK);
    EXPECT_EQ(m_object->m_selectedFiles.GetCount(), 4u);
    // With neither folder nor data, the paths held from before still make it a success.
    EXPECT_EQ(Run(Folder::None, nullptr), S_OK);
}

TEST_F(InitializeTest, NewFolderWithAnotherKeyGivesAnIncompleteTarget)
{
    m_drive.MakeFolder(TEXT("Other"));
    m_drive.WriteMarker(TEXT("Other"), TEXT("K=other|RM=\\Other\\.Velmount"));
    ASSERT_EQ(Run(Folder::Managed, nullptr), S_OK);
    m_object->m_targetFolder = TEXT("");
    EXPECT_EQ(m_object->Initialize(ItemIdList(m_drive.Path(TEXT("Other"))).Get(), nullptr, nullptr), S_OK);
    ASSERT_NE(m_object->m_targetDrive, nullptr);
    EXPECT_EQ(m_object->m_targetDrive->key, TEXT("other"));
    EXPECT_TRUE(m_object->m_targetDrive->mountPath.IsEmpty());
    EXPECT_EQ(m_object->m_targetFolder, m_drive.Path(TEXT("Other")));
    EXPECT_EQ(m_object->m_driveCache.GetCount(), 1u) << "only the first target's record is cached";
}

TEST_F(InitializeTest, MarkerThatCannotBeCompletedFailsCleanly)
{
    m_drive.WriteMarker(TEXT("Managed"), TEXT("K=vm-77|CI=T"));
#ifndef _WIN32
    size_t handles = VmHost::OpenHandleCount();
#endif
    EXPECT_EQ(Run(Folder::Managed, nullptr), E_INVALIDARG);
    EXPECT_EQ(m_object->m_targetDrive, nullptr);
    EXPECT_EQ(m_object->m_targetFolder, m_drive.Path(TEXT("Managed")));
    EXPECT_EQ(m_object->m_backgroundContext, 0);
    EXPECT_TRUE(m_object->m_driveCache.IsEmpty());
#ifndef _WIN32
    EXPECT_EQ(VmHost::OpenHandleCount(), handles) << "the marker's handle is closed";
#endif
}

TEST_F(InitializeTest, DropReadsEffectAndKeysItemsDoNot)
{
    SetUse(Use::One);
    SetClipboardFormats({TEXT("Preferred DropEffect")});
    SetKeysDown({VK_CONTROL, VK_SHIFT, VK_MENU, VK_DELETE});
    DropDataObject* data = MakeData({TEXT("C:\\a")});
    data->AddValue(TEXT("Preferred DropEffect"), 2);
    ASSERT_EQ(Run(Folder::Managed, data), S_OK);
    EXPECT_EQ(m_object->m_dropEffect, 2);
    EXPECT_EQ(m_object->m_keyState, MODIFIER_CONTROL | MODIFIER_SHIFT | MODIFIER_ALT | MODIFIER_DELETE);

    Extension* items = Extension::Create();
    EXPECT_EQ(items->Initialize(nullptr, data, nullptr), S_OK);
    EXPECT_EQ(items->m_dropEffect, 0);
    EXPECT_EQ(items->m_keyState, 0);
    EXPECT_TRUE(items->m_driveCache.IsEmpty()) << "item context reads no marker";
    items->Release();
}

TEST_F(InitializeTest, UseOfAnotherTypeCountsAsZero)
{
    const WCHAR text[] = TEXT("1");
    SetUseValueOfType(m_sid, REG_SZ, text, sizeof(text));
    EXPECT_EQ(CVelmountCopyMoveExtension::ReadUseValue(VELMOUNT_EXTENSIONS_KEY, m_sid), 0u);
    SetUseValue(m_sid, 7);
    EXPECT_EQ(CVelmountCopyMoveExtension::ReadUseValue(VELMOUNT_EXTENSIONS_KEY, m_sid), 7u);
    EXPECT_EQ(CVelmountCopyMoveExtension::ReadUseValue(VELMOUNT_EXTENSIONS_KEY, TEXT("S-1-5-0")), 0u);
    EXPECT_EQ(CVelmountCopyMoveExtension::ReadUseValue(TEXT("Software\\Morvenlith\\Nothing"), m_sid), 0u);
}

TEST_F(InitializeTest, MenuBitmapIsTheSmallIconSize)
{
    ASSERT_EQ(Run(Folder::Managed, nullptr), S_OK);
    ASSERT_NE(m_object->m_menuBitmap, nullptr);
    BITMAP info = {};
    ASSERT_EQ(GetObjectW(m_object->m_menuBitmap, sizeof(info), &info), static_cast<int>(sizeof(info)));
    EXPECT_EQ(info.bmWidth, GetSystemMetrics(SM_CXSMICON));
    EXPECT_EQ(info.bmHeight, GetSystemMetrics(SM_CYSMICON));
}

// The clipboard says which format counts, the data object gives its value.
TEST_F(InitializeTest, DropEffectFromTheFormatTheClipboardNames)
{
    const struct
    {
        const char* what;
        bool preferredOnClipboard, performedOnClipboard;
        int preferredOffered, performedOffered; // -1: not offered
        LONG expected;
    } rows[] = {
        {"copy and link", true, false, 5, -1, 1},
        {"move and link", true, false, 6, -1, 2},
        {"link", true, false, 4, -1, 4},
        {"scroll", true, false, 8, -1, 0},
        {"copy or move", true, false, 3, -1, 1},
        {"Preferred on the clipboard only", true, true, -1, 2, 0},
        {"Performed when Preferred is not on the clipboard", false, true, 1, 2, 2},
        {"nothing on the clipboard", false, false, 2, 2, 0},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        if (row.preferredOnClipboard && row.performedOnClipboard)
            SetClipboardFormats({TEXT("Preferred DropEffect"), TEXT("Performed DropEffect")});
        else if (row.preferredOnClipboard)
            SetClipboardFormats({TEXT("Preferred DropEffect")});
        else if (row.performedOnClipboard)
            SetClipboardFormats({TEXT("Performed DropEffect")});
        else
            SetClipboardFormats({});
        DropDataObject* data = MakeData({TEXT("C:\\a")});
        if (row.preferredOffered >= 0)
            data->AddValue(TEXT("Preferred DropEffect"), static_cast<DWORD>(row.preferredOffered));
        if (row.performedOffered >= 0)
            data->AddValue(TEXT("Performed DropEffect"), static_cast<DWORD>(row.performedOffered));
        EXPECT_EQ(CVelmountCopyMoveExtension::GetDropEffect(data), row.expected);
    }
    EXPECT_EQ(CVelmountCopyMoveExtension::GetDropEffect(nullptr), 0);
}

#ifndef _WIN32
// The token, the session and the mouse buttons can't be arranged from a test on Windows.
TEST_F(InitializeTest, NoSidChangesNothing)
{
    VmHostSetUserSid(nullptr);
    HRESULT result = Run(Folder::Managed, nullptr);
    VmHostSetUserSid(m_sid);
    EXPECT_EQ(result, E_INVALIDARG);
    EXPECT_EQ(m_object->m_menuBitmap, nullptr);
    EXPECT_EQ(m_object->m_processId, 0u);
    EXPECT_TRUE(m_object->m_targetFolder.IsEmpty());
}

TEST_F(InitializeTest, SidIsCutTo63Characters)
{
    const WCHAR* longSid = TEXT("S-1-5-21-4294967295-4294967295-4294967295-4294967295-4294967295-1001");
    ASSERT_TRUE(VmHostSetUserSid(longSid));
    WCHAR text[SID_BUFFER_CAPACITY];
    bool found = CVelmountCopyMoveExtension::GetUserSidString(text);
    VmHostSetUserSid(m_sid);
    ASSERT_TRUE(found);
    EXPECT_EQ(WideString(text), WideString(longSid).Left(63));
}

TEST_F(InitializeTest, SessionAndMouseButtons)
{
    VmHostSetSession(7, FALSE);
    VmHostSetAsyncKeyState(VK_LBUTTON, TRUE);
    VmHostSetAsyncKeyState(VK_RBUTTON, TRUE);
    SetUse(Use::One);
    EXPECT_EQ(Run(Folder::Managed, MakeData({TEXT("C:\\a")})), S_OK);
    VmHostSetAsyncKeyState(VK_LBUTTON, FALSE);
    VmHostSetAsyncKeyState(VK_RBUTTON, FALSE);
    EXPECT_EQ(m_object->m_sessionId, 7u);
    EXPECT_EQ(m_object->m_keyState, MODIFIER_LEFT_BUTTON | MODIFIER_RIGHT_BUTTON);

    VmHostSetSession(7, TRUE);
    Extension* failing = Extension::Create();
    EXPECT_EQ(failing->Initialize(nullptr, m_data.back(), nullptr), S_OK);
    VmHostSetSession(1, FALSE);
    EXPECT_EQ(failing->m_sessionId, 0u);
    failing->Release();
}

TEST_F(InitializeTest, ReleaseGivesBackBitmapsAndRecords)
{
    DWORD before = VmHostLiveGdiObjects();
    ASSERT_EQ(Run(Folder::Managed, nullptr), S_OK);
    ASSERT_EQ(Run(Folder::Managed, nullptr), S_OK);
    EXPECT_EQ(VmHostLiveGdiObjects(), before + 1) << "a second Initialize replaces the bitmap";
    m_object->Release();
    m_object = nullptr;
    EXPECT_EQ(VmHostLiveGdiObjects(), before);
}
#endif
} // namespace
