// The library as a file the system loads: what it exports and what the loader says about it. (Whether its
// resources name the class and type library its code answers to, the registration tests read back.)
#include "module/ComModule.h"
#include "tests/module/ComModule/LibraryPath.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
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
} // namespace
