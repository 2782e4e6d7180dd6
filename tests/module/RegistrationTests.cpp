// Registration as an installer does it: a copy of the real library (the host's shared object, or the DLL
// under Windows and Wine) in a folder of the test's own, loaded with LoadLibraryW and driven through its
// exports. The footprint is read back through the registry API and compared entry by entry.
#include "module/ComModule.h"
#include "tests/module/LibraryCopy.h"

#ifndef _WIN32
#include "platform/host/ControlSystem.h"
#endif

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

namespace
{
namespace fs = std::filesystem;
typedef std::vector<std::string> Lines;

// The class id as the footprint must show it everywhere: the text of the product's GUID constant.
const std::string CLASS_ID = GuidText(CLSID_VelmountCopyMoveExtension);
const WText CLASS_KEY = TEXT("CLSID\\") + Widen(CLASS_ID);
const WCHAR APPROVED[] = TEXT("Software\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\Approved");
const WCHAR TYPE_LIBRARY_KEY[] = TEXT("TypeLib\\{F9F6B9EC-8D85-45A4-96C5-B13AE720EDD2}");
const WCHAR INTERFACE_KEY[] = TEXT("Interface\\{52BA795F-D7D2-49FE-ADE6-80BC4340A08C}");
const WCHAR MACHINE_CLASSES[] = TEXT("Software\\Classes\\");
const WCHAR* const USER_CLASSES = MACHINE_CLASSES;

// The script writes the handler under these keys (eight ForceRemove lines), each below NoRemove keys.
const WCHAR* const HANDLER_KEYS[] = {
    TEXT("*\\shellex\\ContextMenuHandlers\\Velmount.CopyMove"),
    TEXT("Directory\\BackGround\\shellex\\ContextMenuHandlers\\Velmount.CopyMove"),
    TEXT("Directory\\shellex\\DragDropHandlers\\Velmount.CopyMove"),
    TEXT("Directory\\shellex\\ContextMenuHandlers\\Velmount.CopyMove"),
    TEXT("Folder\\shellex\\DragDropHandlers\\Velmount.CopyMove"),
    TEXT("Folder\\shellex\\ContextMenuHandlers\\Velmount.CopyMove"),
    TEXT("Drive\\shellex\\ContextMenuHandlers\\Velmount.CopyMove"),
    TEXT("Drive\\shellex\\DragDropHandlers\\Velmount.CopyMove"),
};
// The top keys of the classes root that the script names; a test deletes the ones it created.
const WCHAR* const TOP_KEYS[] = {TEXT("CLSID"), TEXT("*"), TEXT("Directory"), TEXT("Folder"), TEXT("Drive")};

typedef HRESULT(WINAPI* ServerFunction)();
typedef HRESULT(WINAPI* InstallFunction)(BOOL install, LPCWSTR commandLine);

// A copy of the real library, driven through its registration exports.
class ProductCopy : public LibraryCopy
{
public:
    explicit ProductCopy(const fs::path& folder) : LibraryCopy(VELMOUNT_LIBRARY_FILE, folder / LibraryName())
    {
    }
    static fs::path LibraryName() { return fs::path(VELMOUNT_LIBRARY_FILE).filename(); }

    HRESULT Register() const { return Export<ServerFunction>("DllRegisterServer")(); }
    HRESULT Unregister() const { return Export<ServerFunction>("DllUnregisterServer")(); }
    HRESULT Install(BOOL install, LPCWSTR commandLine) const
    {
        return Export<InstallFunction>("DllInstall")(install, commandLine);
    }
};

// What the scripts leave under a classes key (machine's or user's), prefixed with each key's path.
Lines ScriptFootprint(HKEY root)
{
    Lines lines;
    std::vector<WText> keys{CLASS_KEY};
    keys.insert(keys.end(), std::begin(HANDLER_KEYS), std::end(HANDLER_KEYS));
    for (const WText& key : keys)
        for (const std::string& line : DumpKey(root, (MACHINE_CLASSES + key).c_str()))
            lines.push_back(Narrow(key.c_str()) + (line.empty() || line[0] == ' ' ? "" : "\\") + line);
    std::sort(lines.begin(), lines.end());
    return lines;
}

Lines ExpectedFootprint(const std::string& libraryPath)
{
    const std::string classKey = Narrow(CLASS_KEY.c_str());
    Lines lines = {
        classKey,
        classKey + " : @ = SZ:Velmount.CopyMove Extension",
        classKey + " : DisableProcessIsolation = DWORD:1",
        classKey + "\\InprocServer32",
        classKey + "\\InprocServer32 : @ = SZ:" + libraryPath,
        classKey + "\\InprocServer32 : ThreadingModel = SZ:Apartment",
    };
    for (const WCHAR* handler : HANDLER_KEYS)
    {
        lines.push_back(Narrow(handler));
        lines.push_back(Narrow(handler) + " : @ = SZ:" + CLASS_ID);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::string ApprovedValue()
{
    WCHAR text[256] = {};
    DWORD bytes = sizeof(text);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, APPROVED, Widen(CLASS_ID).c_str(), RRF_RT_REG_SZ, nullptr, text,
                     &bytes) != ERROR_SUCCESS)
        return "(none)";
    return Narrow(text);
}

// The registered type library's file, from the merged classes view or from one root's classes.
std::string TypeLibraryPath(HKEY root = HKEY_CLASSES_ROOT)
{
    WCHAR text[1024] = {};
    DWORD bytes = sizeof(text);
    WText key = WText(root == HKEY_CLASSES_ROOT ? TEXT("") : MACHINE_CLASSES) + TYPE_LIBRARY_KEY +
                TEXT("\\1.0\\409\\win64");
    if (RegGetValueW(root, key.c_str(), nullptr, RRF_RT_REG_SZ, nullptr, text, &bytes) != ERROR_SUCCESS)
        return "(none)";
    return Narrow(text);
}

// Every NoRemove key on the way to a handler, which unregistration leaves in place.
std::vector<WText> KeptKeys()
{
    std::vector<WText> kept{TEXT("CLSID")};
    for (const WCHAR* handler : HANDLER_KEYS)
    {
        WText path = handler;
        path.resize(path.rfind('\\'));
        kept.push_back(path);
    }
    return kept;
}

class RegistrationTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const WCHAR* top : TOP_KEYS)
        {
            m_machineHad.push_back(KeyExists(HKEY_LOCAL_MACHINE, (MACHINE_CLASSES + WText(top)).c_str()));
            m_userHad.push_back(KeyExists(HKEY_CURRENT_USER, (USER_CLASSES + WText(top)).c_str()));
        }
        m_approvedHad = KeyExists(HKEY_LOCAL_MACHINE, APPROVED);
        RemoveFootprint();
        SetString(HKEY_LOCAL_MACHINE, APPROVED, nullptr, nullptr);
#ifndef _WIN32
        VmHostResetShellChanges();
#endif
    }
    void TearDown() override
    {
        RemoveFootprint();
        RemoveCreatedKeys();
        if (!m_approvedHad)
            DeleteTree(HKEY_LOCAL_MACHINE, APPROVED);
    }

    // The top keys of either classes root that weren't there before the test, with all below them.
    void RemoveCreatedKeys()
    {
        for (size_t i = 0; i < std::size(TOP_KEYS); ++i)
        {
            if (!m_machineHad[i])
                DeleteTree(HKEY_LOCAL_MACHINE, (MACHINE_CLASSES + WText(TOP_KEYS[i])).c_str());
            if (!m_userHad[i])
                DeleteTree(HKEY_CURRENT_USER, (USER_CLASSES + WText(TOP_KEYS[i])).c_str());
        }
    }

    static void RemoveFootprint()
    {
        for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
        {
            DeleteTree(root, (MACHINE_CLASSES + WText(CLASS_KEY)).c_str());
            for (const WCHAR* handler : HANDLER_KEYS)
                DeleteTree(root, (MACHINE_CLASSES + WText(handler)).c_str());
            DeleteTree(root, (MACHINE_CLASSES + WText(TYPE_LIBRARY_KEY)).c_str());
            DeleteTree(root, (MACHINE_CLASSES + WText(INTERFACE_KEY)).c_str());
        }
        HKEY approved = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, APPROVED, 0, KEY_SET_VALUE, &approved) == ERROR_SUCCESS)
        {
            RegDeleteValueW(approved, Widen(CLASS_ID).c_str());
            RegCloseKey(approved);
        }
    }

    // The footprint of a registration in one mode, and nothing of the scripts in the other.
    void ExpectRegistered(const ProductCopy& library, bool perUser)
    {
        EXPECT_EQ(ExpectedFootprint(library.Path()),
                  ScriptFootprint(perUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE));
        EXPECT_EQ(Lines(), ScriptFootprint(perUser ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER));
        EXPECT_EQ("Velmount.CopyMove", ApprovedValue()) << "the approved list is the machine's in both modes";
        EXPECT_EQ(library.Path(), TypeLibraryPath());
        EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, INTERFACE_KEY));
#ifndef _WIN32 // Wine 8's RegisterTypeLibForUser registers for the whole machine.
        // The merged view can't tell the roots apart: a per-user type library lies under the user's classes
        // only.
        EXPECT_EQ(library.Path(), TypeLibraryPath(perUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE));
        EXPECT_EQ("(none)", TypeLibraryPath(perUser ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER));
#endif
    }

    void ExpectUnregistered(bool perUser)
    {
        EXPECT_EQ(Lines(), ScriptFootprint(HKEY_LOCAL_MACHINE));
        EXPECT_EQ(Lines(), ScriptFootprint(HKEY_CURRENT_USER));
        EXPECT_EQ("(none)", ApprovedValue());
        EXPECT_EQ("(none)", TypeLibraryPath());
        EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, INTERFACE_KEY));
        for (const WText& kept : KeptKeys())
            EXPECT_TRUE(
                KeyExists(perUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE, (USER_CLASSES + kept).c_str()))
                << Narrow(kept.c_str()) << " is NoRemove";
    }

    std::vector<bool> m_machineHad, m_userHad;
    bool m_approvedHad = false;
};

TEST_F(RegistrationTest, PerMachineFootprintComesAndGoes)
{
    // An apostrophe in the path must reach the registry once, neither doubled nor taken for a quote.
    ProductCopy library("It's Velmount");
    ASSERT_TRUE(library.Loaded());
    ASSERT_NE(std::string::npos, library.Path().find("It's Velmount"));

    // The scripts run in the system's default locale; the caller's comes back afterwards.
    ASSERT_TRUE(SetThreadLocale(0x0407));
    ASSERT_EQ(S_OK, library.Register());
    EXPECT_EQ(0x0407u, GetThreadLocale());
    SetThreadLocale(LOCALE_USER_DEFAULT);
    ExpectRegistered(library, false);
    // ForceRemove takes the old keys and writes them again: the same footprint, nothing twice.
    const Lines first = ScriptFootprint(HKEY_LOCAL_MACHINE);
    ASSERT_EQ(S_OK, library.Register());
    EXPECT_EQ(first, ScriptFootprint(HKEY_LOCAL_MACHINE));

    ASSERT_EQ(S_OK, library.Unregister());
    ExpectUnregistered(false);
    // The class script finds nothing left to take and succeeds; the system's UnRegisterTypeLib then refuses a
    // library that isn't registered, which ends the run before the application id script.
    EXPECT_TRUE(FAILED(library.Unregister()));
    ExpectUnregistered(false);
}

TEST_F(RegistrationTest, PerUserFootprintThroughTheInstallSwitch)
{
    ProductCopy library("Velmount");
    ASSERT_TRUE(library.Loaded());

    ASSERT_EQ(S_OK, library.Install(TRUE, TEXT("user")));
    ExpectRegistered(library, true);
    // The switch stays for the life of the library: the plain exports now work per user too.
    ASSERT_EQ(S_OK, library.Register());
    ExpectRegistered(library, true);

    ASSERT_EQ(S_OK, library.Install(FALSE, nullptr));
    ExpectUnregistered(true);
}

TEST_F(RegistrationTest, OnlyTheWholeWordSwitchesToPerUser)
{
    struct SwitchCase
    {
        const WCHAR* commandLine;
        bool perUser;
    };
    const SwitchCase cases[] = {
        {TEXT("user"), true}, {TEXT("USER"), true},   {TEXT("uSeR"), true}, {TEXT("users"), false},
        {TEXT("use"), false}, {TEXT("user "), false}, {TEXT(""), false},    {nullptr, false},
    };
    for (const SwitchCase& test : cases)
    {
        const std::string what = test.commandLine ? "\"" + Narrow(test.commandLine) + "\"" : "null";
        ProductCopy library("Switch");
        ASSERT_TRUE(library.Loaded());
        ASSERT_EQ(S_OK, library.Install(TRUE, test.commandLine)) << what;
        EXPECT_EQ(test.perUser, KeyExists(HKEY_CURRENT_USER, (USER_CLASSES + WText(CLASS_KEY)).c_str()))
            << what;
        EXPECT_EQ(!test.perUser, KeyExists(HKEY_LOCAL_MACHINE, (MACHINE_CLASSES + WText(CLASS_KEY)).c_str()))
            << what;
        // Install flag 0 unregisters, in the mode the same text selects.
        ASSERT_EQ(S_OK, library.Install(FALSE, test.commandLine)) << what;
        EXPECT_EQ(Lines(), ScriptFootprint(HKEY_LOCAL_MACHINE)) << what;
        EXPECT_EQ(Lines(), ScriptFootprint(HKEY_CURRENT_USER)) << what;
        // The user's kept keys would draw the next per-machine registration into the merged view's user side.
        RemoveCreatedKeys();
    }
}

TEST_F(RegistrationTest, AnUnknownSubkeyKeepsItsKeyAndAncestors)
{
    ProductCopy library("Velmount");
    ASSERT_TRUE(library.Loaded());
    ASSERT_EQ(S_OK, library.Register());
    const WText inproc = MACHINE_CLASSES + WText(CLASS_KEY) + TEXT("\\InprocServer32");
    SetString(HKEY_LOCAL_MACHINE, (inproc + TEXT("\\Unknown")).c_str(), nullptr, TEXT("x"));

    ASSERT_EQ(S_OK, library.Unregister());
    // The script's values go; the keys stay, and with them their default values.
    const std::string classKey = Narrow(CLASS_KEY.c_str());
    EXPECT_EQ(
        (Lines{classKey, classKey + " : @ = SZ:Velmount.CopyMove Extension", classKey + "\\InprocServer32",
               classKey + "\\InprocServer32 : @ = SZ:" + library.Path(),
               classKey + "\\InprocServer32\\Unknown", classKey + "\\InprocServer32\\Unknown : @ = SZ:x"}),
        ScriptFootprint(HKEY_LOCAL_MACHINE));
    EXPECT_TRUE(KeyExists(HKEY_LOCAL_MACHINE, TEXT("Software\\Classes\\CLSID")));
}

TEST_F(RegistrationTest, ARefusedApprovedListWritesNothing)
{
    ProductCopy library("Velmount");
    ASSERT_TRUE(library.Loaded());
    // A missing list counts as a refusal, and the list isn't created.
    DeleteTree(HKEY_LOCAL_MACHINE, APPROVED);
    EXPECT_EQ(E_ACCESSDENIED, library.Register());
    EXPECT_EQ(Lines(), ScriptFootprint(HKEY_LOCAL_MACHINE));
    EXPECT_EQ("(none)", TypeLibraryPath());
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, APPROVED));

    // DllInstall cleans up after a refusal: what an earlier per-user registration left goes.
    SetString(HKEY_LOCAL_MACHINE, APPROVED, nullptr, nullptr);
    ASSERT_EQ(S_OK, library.Install(TRUE, TEXT("user")));
    DeleteTree(HKEY_LOCAL_MACHINE, APPROVED);
    EXPECT_EQ(E_ACCESSDENIED, library.Install(TRUE, TEXT("user")));
    EXPECT_EQ(Lines(), ScriptFootprint(HKEY_CURRENT_USER));
    EXPECT_EQ("(none)", TypeLibraryPath());
}

#ifndef _WIN32 // Only the stand-in lets a test watch the debug output and the shell's notifications.
// Each export writes its fixed line; DllRegisterServer's comes after the work, so a refusal writes none, and
// DllInstall writes its own before the line of what it does. Only a registration that succeeded tells the
// shell that associations changed.
TEST_F(RegistrationTest, ExportsWriteTheirTraceLinesAndOnlyRegistrationNotifies)
{
    ProductCopy library("Velmount");
    ASSERT_TRUE(library.Loaded());
    // In this order each row finds the registry as it needs it; the refused ones find no approved list.
    const struct
    {
        const char* what;
        bool viaInstall, registering;
        HRESULT result;
        std::vector<std::u16string> exports; // the lines written, behind the product's prefix
        DWORD notifications;
    } rows[] = {
        {"register", false, true, S_OK, {u"DllRegisterServer"}, 1},
        {"unregister", false, false, S_OK, {u"DllUnregisterServer"}, 0},
        {"install", true, true, S_OK, {u"DllInstall", u"DllRegisterServer"}, 1},
        {"uninstall", true, false, S_OK, {u"DllInstall", u"DllUnregisterServer"}, 0},
        {"refused register", false, true, E_ACCESSDENIED, {}, 0},
        {"refused install cleans up", true, true, E_ACCESSDENIED, {u"DllInstall", u"DllUnregisterServer"}, 0},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.what);
        if (FAILED(row.result))
            DeleteTree(HKEY_LOCAL_MACHINE, APPROVED);
        VmHostResetShellChanges();
        VmHost::RecordDebugOutput(true);
        EXPECT_EQ(row.result, row.viaInstall    ? library.Install(row.registering, nullptr)
                              : row.registering ? library.Register()
                                                : library.Unregister());
        VmHost::RecordDebugOutput(false);
        std::vector<std::u16string> lines;
        for (const std::u16string& name : row.exports)
            lines.push_back(u"Velmount Copy Extension : " + name);
        EXPECT_EQ(lines, VmHost::DebugOutput());
        VmHostShellChange last = {};
        ASSERT_EQ(row.notifications, VmHostShellChangeCount(&last));
        if (row.notifications)
        {
            EXPECT_EQ(SHCNE_ASSOCCHANGED, last.eventId);
            EXPECT_EQ(SHCNF_IDLIST, last.flags);
            EXPECT_TRUE(last.item1Null && last.item2Null);
        }
    }
}
#endif

TEST_F(RegistrationTest, APathOf260CharactersIsTooLong)
{
    // The library's full path, as the loader reports it, is padded to exactly 260 characters.
    const size_t name = ProductCopy::LibraryName().string().size();
    ProductCopy probe("p");
    ASSERT_TRUE(probe.Loaded());
    const size_t root = probe.Path().size() - name - 3; // the folder "p" and two separators
    const size_t padding = 260 - root - 3 - name;
    ProductCopy library(fs::path(std::string(padding / 2, 'a')) / std::string(padding - padding / 2, 'b'));
    ASSERT_TRUE(library.Loaded());
    ASSERT_EQ(260u, library.Path().size()) << library.Path();
    EXPECT_EQ(HRESULT(0x8007007A), library.Register());
    EXPECT_EQ(Lines(), ScriptFootprint(HKEY_LOCAL_MACHINE));
}

#ifndef _WIN32
// Only the stand-in can play a system older than the approved list.
TEST_F(RegistrationTest, BeforeWindowsXpThereIsNoApprovedList)
{
    ProductCopy library("Velmount");
    ASSERT_TRUE(library.Loaded());
    DeleteTree(HKEY_LOCAL_MACHINE, APPROVED);
    VmHostSetSystemVersion(5, 0, 4);
    const HRESULT registered = library.Register();
    VmHostSetSystemVersion(10, 0, 0);
    ASSERT_EQ(S_OK, registered);
    EXPECT_EQ(ExpectedFootprint(library.Path()), ScriptFootprint(HKEY_LOCAL_MACHINE));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, APPROVED));
    // 5.1 with no service pack is enough to need the list.
    VmHostSetSystemVersion(5, 1, 0);
    const HRESULT refused = library.Register();
    VmHostSetSystemVersion(10, 0, 0);
    EXPECT_EQ(E_ACCESSDENIED, refused);
}
#endif
#ifdef _WIN32
// regsvr32 is Windows' own tool; the host has no such program.
DWORD RunRegsvr32(const std::string& switches, const ProductCopy& library)
{
    WText command =
        TEXT("regsvr32.exe ") + Widen(switches) + TEXT(" \"") + Widen(library.Path()) + TEXT("\"");
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &process))
        return GetLastError();
    DWORD code = WAIT_TIMEOUT;
    if (WaitForSingleObject(process.hProcess, 60000) == WAIT_OBJECT_0)
        GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return code;
}

TEST_F(RegistrationTest, Regsvr32LeavesTheFootprintInBothModes)
{
    ProductCopy library("Tool");
    ASSERT_TRUE(library.Loaded());
    ASSERT_EQ(0u, RunRegsvr32("/s", library));
    ExpectRegistered(library, false);
    ASSERT_EQ(0u, RunRegsvr32("/s /u", library));
    ExpectUnregistered(false);

    ASSERT_EQ(0u, RunRegsvr32("/s /n /i:user", library));
    ExpectRegistered(library, true);
    ASSERT_EQ(0u, RunRegsvr32("/s /u /n /i:user", library));
    ExpectUnregistered(true);
}
#endif
} // namespace
