// The library as a file the system loads: what it exports, what the loader says about it, and whether the
// identifiers spelled in its resources agree with the ones its code answers to.
#include "module/ComModule.h"
#include "tests/module/ComModule/LibraryPath.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace
{
std::string LowerGuidText(const GUID& id)
{
    char text[40];
    std::snprintf(text, sizeof(text), "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}",
                  static_cast<unsigned>(id.Data1), id.Data2, id.Data3, id.Data4[0], id.Data4[1], id.Data4[2],
                  id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6], id.Data4[7]);
    return text;
}

int Occurrences(const std::string& text, const std::string& what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

class ComModuleLibrary : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_path = TestLibraryPath();
        m_library = LoadLibraryW(m_path.c_str());
        ASSERT_NE(nullptr, m_library) << "error " << GetLastError();
    }
    void TearDown() override
    {
        if (m_library)
            FreeLibrary(m_library);
    }

    std::basic_string<WCHAR> m_path;
    HMODULE m_library = nullptr;
};

TEST_F(ComModuleLibrary, ExportsTheEntryPointsAndNothingOfItsInside)
{
    for (const char* name :
         {"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer", "DllInstall"})
        EXPECT_NE(nullptr, GetProcAddress(m_library, name)) << name;
    // Plain-named globals of the module and the extension: a program that has its own must not meet them.
    for (const char* name : {"ComModuleState", "g_moduleInstance", "g_perUserRegistration", "g_module"})
    {
        SetLastError(0);
        EXPECT_EQ(nullptr, GetProcAddress(m_library, name)) << name;
        EXPECT_EQ(static_cast<DWORD>(ERROR_PROC_NOT_FOUND), GetLastError()) << name;
    }
}

TEST_F(ComModuleLibrary, LoaderCountsLoadsAndNamesTheFile)
{
    HMODULE again = LoadLibraryW(m_path.c_str());
    EXPECT_EQ(m_library, again);
    EXPECT_TRUE(FreeLibrary(again));
    EXPECT_NE(nullptr, GetProcAddress(m_library, "DllCanUnloadNow")) << "one load is still open";

    WCHAR name[MAX_PATH * 4];
    DWORD length = GetModuleFileNameW(m_library, name, MAX_PATH * 4);
    ASSERT_GT(length, 0u);
    std::basic_string<WCHAR> full(name, length);
    std::basic_string<WCHAR> file = m_path.substr(m_path.find_last_of(TEXT("\\/")) + 1);
    ASSERT_GE(full.size(), file.size());
    EXPECT_EQ(file, full.substr(full.size() - file.size()));

    // A short buffer gets what fits and the buffer's size comes back with ERROR_INSUFFICIENT_BUFFER. Windows
    // terminates the text in the last character; Wine, as Windows XP did, fills all of it: only the start is
    // the same everywhere.
    WCHAR shortBuffer[8];
    SetLastError(0);
    EXPECT_EQ(8u, GetModuleFileNameW(m_library, shortBuffer, 8));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
    EXPECT_EQ(full.substr(0, 7), std::basic_string<WCHAR>(shortBuffer, 7));
}

TEST_F(ComModuleLibrary, MissingLibraryIsNotFound)
{
    std::basic_string<WCHAR> missing =
        m_path.substr(0, m_path.find_last_of(TEXT("\\/")) + 1) + TEXT("Absent.dll");
    SetLastError(0);
    EXPECT_EQ(nullptr, LoadLibraryW(missing.c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_MOD_NOT_FOUND), GetLastError());
}

// The class id lives in the code, in the class script and in the type library; they must agree.
TEST_F(ComModuleLibrary, ResourcesNameTheClassAndLibraryTheCodeAnswersTo)
{
    HRSRC found = FindResourceW(m_library, MAKEINTRESOURCEW(106), TEXT("REGISTRY"));
    ASSERT_NE(nullptr, found);
    auto bytes = static_cast<const char*>(LockResource(LoadResource(m_library, found)));
    ASSERT_NE(nullptr, bytes);
    std::string script(bytes, SizeofResource(m_library, found));
    // The class key and the eight handler keys (*, Directory\BackGround, and two each under Directory,
    // Folder and Drive).
    EXPECT_EQ(9, Occurrences(script, LowerGuidText(CLSID_VelmountCopyMoveExtension)));

    ITypeLib* library = nullptr;
    ASSERT_EQ(S_OK, LoadTypeLib(m_path.c_str(), &library));
    TLIBATTR* attributes = nullptr;
    ASSERT_EQ(S_OK, library->GetLibAttr(&attributes));
    EXPECT_EQ(LowerGuidText(LIBID_VelmountShellExtension), LowerGuidText(attributes->guid));
    library->ReleaseTLibAttr(attributes);
    library->Release();
}
} // namespace
