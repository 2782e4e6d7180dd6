#include "module/Registration.h"
#include "module/RegistryScript.h"
#include "module/ScriptExpansion.h"
#include "tests/module/RegistryDump.h"

#include <gtest/gtest.h>

namespace
{
// Per-user mode is the process-wide flag of DllInstall("user"); each test sets the mode it needs.
class ScriptExpansionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_saved = g_perUserRegistration;
        m_parser.m_registrar = &m_registrar;
        m_registrar.AddReplacement(TEXT("Module"), TEXT("C:\\Lib\\Velmount.dll"));
        m_registrar.AddReplacement(TEXT("Braces"), TEXT("{'}%"));
    }
    void TearDown() override { g_perUserRegistration = m_saved; }

    HRESULT Expand(const WCHAR* source, bool perUser, WText& out)
    {
        g_perUserRegistration = perUser ? 1 : 0;
        LPWSTR expanded = reinterpret_cast<LPWSTR>(static_cast<uintptr_t>(1));
        HRESULT hr = ExpandScript(m_parser, source, &expanded);
        out = expanded ? WText(expanded) : WText();
        if (FAILED(hr))
        {
            EXPECT_EQ(nullptr, expanded) << "a failed expansion hands out no text";
        }
        CoTaskMemFree(expanded);
        return hr;
    }

    BYTE m_saved = 0;
    CRegObject m_registrar;
    ScriptParser m_parser;
};

struct ExpansionCase
{
    const char* what;
    const WCHAR* source;
    bool perUser;
    HRESULT result;
    const WCHAR* expected;
};

#define FRAME_OPEN TEXT("HKCU\r\n{\tSoftware\r\n\t{\r\n\t\tClasses")
#define FRAME_CLOSE TEXT("\r\n\t}\r\n}\r\n")

const WCHAR NAME_31[] = TEXT("%abcdefghijklmnopqrstuvwxyz01234%");
const WCHAR NAME_32[] = TEXT("%abcdefghijklmnopqrstuvwxyz012345%");

const ExpansionCase EXPANSION_CASES[] = {
    {"name in lower case", TEXT("'%module%'"), false, S_OK, TEXT("'C:\\Lib\\Velmount.dll'")},
    {"name in capitals", TEXT("%MODULE%"), false, S_OK, TEXT("C:\\Lib\\Velmount.dll")},
    {"name in mixed case", TEXT("x%Module%y"), false, S_OK, TEXT("xC:\\Lib\\Velmount.dlly")},
    {"doubled percent", TEXT("100%%"), false, S_OK, TEXT("100%")},
    {"percent last", TEXT("abc%"), false, DISP_E_EXCEPTION, nullptr},
    {"no closing percent", TEXT("%Module"), false, DISP_E_EXCEPTION, nullptr},
    {"unknown name", TEXT("%Nothing%"), false, DISP_E_EXCEPTION, nullptr},
    {"name of 31 characters", NAME_31, false, S_OK, TEXT("thirty-one")},
    {"name of 32 characters", NAME_32, false, E_FAIL, nullptr},
    {"the closing percent is looked for before the length", TEXT("%abcdefghijklmnopqrstuvwxyz0123456789"),
     false, DISP_E_EXCEPTION, nullptr},
    {"empty source", TEXT(""), false, S_OK, TEXT("")},
    {"substitution isn't scanned again", TEXT("%Braces%"), true, S_OK, TEXT("{'}%")},
    {"unbalanced text per machine", TEXT("HKCR { { ' }"), false, S_OK, TEXT("HKCR { { ' }")},
    {"resource 101 per user", TEXT("HKCR\r\n{\r\n}\r\n"), true, S_OK,
     FRAME_OPEN TEXT("\r\n{\r\n") FRAME_CLOSE TEXT("}\r\n")},
    {"resource 101 per machine", TEXT("HKCR\r\n{\r\n}\r\n"), false, S_OK, TEXT("HKCR\r\n{\r\n}\r\n")},
    {"other roots stay", TEXT("HKLM\r\n{\r\n}\r\n"), true, S_OK, TEXT("HKLM\r\n{\r\n}\r\n")},
    {"only HKCR in capitals moves", TEXT("hkcr { }"), true, S_OK, TEXT("hkcr { }")},
    {"a quoted brace doesn't close the frame", TEXT("HKCR { a = s '}' }"), true, S_OK,
     FRAME_OPEN TEXT(" { a = s '}' ") FRAME_CLOSE TEXT("}")},
    {"doubled quotes pass unchanged", TEXT("HKCR { a = s 'it''s' }"), true, S_OK,
     FRAME_OPEN TEXT(" { a = s 'it''s' ") FRAME_CLOSE TEXT("}")},
    {"a braced key name counts up and down", TEXT("HKCR { {x} }"), true, S_OK,
     FRAME_OPEN TEXT(" { {x} ") FRAME_CLOSE TEXT("}")},
    {"one frame per root block", TEXT("HKCR { }HKCR { }"), true, S_OK,
     FRAME_OPEN TEXT(" { ") FRAME_CLOSE TEXT("}") FRAME_OPEN TEXT(" { ") FRAME_CLOSE TEXT("}")},
    {"braces that never close get no frame closing", TEXT("HKCR { { }"), true, S_OK,
     FRAME_OPEN TEXT(" { { }")},
    {"HKCR inside a block stays", TEXT("HKLM { HKCR }"), true, S_OK, TEXT("HKLM { HKCR }")},
    {"the root alone", TEXT("HKCR"), true, S_OK, FRAME_OPEN},
};

TEST_F(ScriptExpansionTest, ExpandsReferencesAndFramesPerUserRoots)
{
    m_registrar.AddReplacement(TEXT("abcdefghijklmnopqrstuvwxyz01234"), TEXT("thirty-one"));
    m_registrar.AddReplacement(TEXT("abcdefghijklmnopqrstuvwxyz012345"), TEXT("thirty-two"));
    for (const ExpansionCase& test : EXPANSION_CASES)
    {
        WText out;
        HRESULT hr = Expand(test.source, test.perUser, out);
        EXPECT_EQ(test.result, hr) << test.what;
        if (test.expected)
        {
            EXPECT_EQ(Narrow(test.expected), Narrow(out.c_str())) << test.what;
        }
    }
}

TEST_F(ScriptExpansionTest, NullArgumentsGivePointerErrors)
{
    LPWSTR out = nullptr;
    EXPECT_EQ(E_POINTER, ExpandScript(m_parser, nullptr, &out));
    EXPECT_EQ(E_POINTER, ExpandScript(m_parser, TEXT("x"), nullptr));
}

TEST_F(ScriptExpansionTest, LongScriptGrowsTheBuffer)
{
    // 2n is the first capacity; every reference to the long value outgrows it.
    WText value(600, 'v');
    m_registrar.AddReplacement(TEXT("Long"), value.c_str());
    WText source;
    for (int i = 0; i < 20; ++i)
        source += TEXT("[%Long%]");
    WText out;
    ASSERT_EQ(S_OK, Expand(source.c_str(), false, out));
    EXPECT_EQ(20u * 602u, out.size());
}

TEST(ReplacementMapTest, FirstOfTwinNamesWinsAndClearingIsRepeatable)
{
    ReplacementMap map;
    EXPECT_FALSE(map.AddPair(nullptr, TEXT("x")));
    EXPECT_FALSE(map.AddPair(TEXT("x"), nullptr));
    EXPECT_EQ(0, map.m_count);
    ASSERT_TRUE(map.AddPair(TEXT("APPID"), TEXT("first")));
    ASSERT_TRUE(map.AddPair(TEXT("appid"), TEXT("second")));
    EXPECT_EQ(2, map.m_count);
    EXPECT_EQ("first", Narrow(map.LookupReplacement(TEXT("AppId"))));
    EXPECT_EQ(nullptr, map.LookupReplacement(TEXT("Module")));
    EXPECT_EQ(S_OK, map.ClearPairs());
    EXPECT_EQ(S_OK, map.ClearPairs());
    EXPECT_EQ(0, map.m_count);
    EXPECT_EQ(nullptr, map.LookupReplacement(TEXT("APPID")));
}

TEST(ReplacementMapTest, RegistrarRefusesNullPairs)
{
    CRegObject registrar;
    EXPECT_EQ(E_INVALIDARG, registrar.AddReplacement(nullptr, TEXT("x")));
    EXPECT_EQ(E_INVALIDARG, registrar.AddReplacement(TEXT("x"), nullptr));
    EXPECT_EQ(S_OK, registrar.AddReplacement(TEXT("x"), TEXT("y")));
    EXPECT_EQ(E_NOTIMPL, registrar.QueryInterface(IID_IUnknown, nullptr));
    EXPECT_EQ(S_OK, registrar.ClearReplacements());
    EXPECT_EQ(0, registrar.m_replacements.m_count);
}

TEST(AppendTextTest, GrowsWhenTheTerminatorWouldReachTheCapacity)
{
    ScriptBuffer buffer;
    buffer.m_capacity = 8;
    buffer.m_text = static_cast<LPWSTR>(CoTaskMemAlloc(8 * sizeof(WCHAR)));
    ASSERT_TRUE(AppendText(buffer, TEXT("abcdef"), 6)); // capacity - 2 characters fit
    EXPECT_EQ(8, buffer.m_capacity);
    ASSERT_TRUE(AppendText(buffer, TEXT("g"), 1)); // one more doubles it
    EXPECT_EQ(16, buffer.m_capacity);
    EXPECT_EQ(7, buffer.m_length);
    EXPECT_EQ("abcdefg", Narrow(buffer.m_text));
    EXPECT_FALSE(AppendText(buffer, TEXT("x"), 0x7FFFFFFF)); // the sum wraps
    EXPECT_EQ(7, buffer.m_length);
    CoTaskMemFree(buffer.m_text);
}
} // namespace
