// The interpreter against the registry API: the stand-in's tree on the host, a scratch key of the real
// registry under Windows or Wine (HKCU\Software\VelmountTests).
#include "module/Registration.h"
#include "module/RegistryScript.h"
#include "tests/module/RegistryDump.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
const WCHAR SCRATCH[] = TEXT("Software\\VelmountTests\\Script");

// Puts `body` into the scratch key, four block levels below the root.
WText InScratch(const WText& body)
{
    return TEXT("HKCU\r\n{\r\n\tNoRemove Software\r\n\t{\r\n\t\tNoRemove VelmountTests\r\n\t\t{\r\n\t\t\t"
                "NoRemove Script\r\n\t\t\t{\r\n") +
           body + TEXT("\r\n\t\t\t}\r\n\t\t}\r\n\t}\r\n}\r\n");
}

class RegistryScriptTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_saved = g_perUserRegistration;
        g_perUserRegistration = 0;
        DeleteTree(HKEY_CURRENT_USER, SCRATCH);
        SetString(HKEY_CURRENT_USER, SCRATCH, nullptr, nullptr);
        m_registrar.AddReplacement(TEXT("Module"), TEXT("C:\\It''s\\Velmount.dll"));
    }
    void TearDown() override
    {
        DeleteTree(HKEY_CURRENT_USER, TEXT("Software\\VelmountTests"));
        g_perUserRegistration = m_saved;
    }

    HRESULT Run(const WText& script, BOOL registering)
    {
        ScriptParser parser;
        parser.m_registrar = &m_registrar;
        return RunScript(parser, script.c_str(), registering);
    }
    HRESULT RunInScratch(const WText& body, BOOL registering) { return Run(InScratch(body), registering); }
    std::vector<std::string> Scratch() { return DumpKey(HKEY_CURRENT_USER, SCRATCH); }

    BYTE m_saved = 0;
    CRegObject m_registrar;
};

typedef std::vector<std::string> Lines;

struct ScriptCase
{
    const char* what;
    const WCHAR* body;
    HRESULT result;
    Lines after; // the scratch key after registering, as DumpKey shows it
};

const ScriptCase REGISTER_CASES[] = {
    {"key with default value and values",
     TEXT("k = s 'text' { val n = d '7' val 'm' = s 'x' }"),
     S_OK,
     {"", "k", "k : @ = SZ:text", "k : m = SZ:x", "k : n = DWORD:7"}},
    {"a doubled quote is one quote", TEXT("k = s 'it''s'"), S_OK, {"", "k", "k : @ = SZ:it's"}},
    {"the module's path comes back with one quote",
     TEXT("k = s '%MODULE%'"),
     S_OK,
     {"", "k", "k : @ = SZ:C:\\It's\\Velmount.dll"}},
    // The brace that then closes the scratch key early leaves one too many at the end: no root follows it.
    {"a glued opener is part of the name", TEXT("CLSID{ }"), DISP_E_EXCEPTION, {"", "CLSID{"}},
    {"a quoted closer ends the block", TEXT("a '}'"), DISP_E_EXCEPTION, {"", "a"}},
    {"a quoted keyword is the keyword", TEXT("'Val' v = s 'x'"), S_OK, {"", " : v = SZ:x"}},
    {"binary pairs, any other digit counts as 0",
     TEXT("val b = b '0aFf0G'"),
     S_OK,
     {"", " : b = BINARY:0aff00"}},
    {"empty binary", TEXT("val b = b ''"), S_OK, {"", " : b = BINARY:"}},
    {"odd binary", TEXT("k { val b = b 'abc' }"), E_FAIL, {""}},
    {"multi string", TEXT("val m = m 'a\\0b'"), S_OK, {"", " : m = MULTI_SZ:a|b||"}},
    {"multi string ending in a separator", TEXT("val m = m 'a\\0'"), S_OK, {"", " : m = MULTI_SZ:a||"}},
    {"a double separator cuts the list", TEXT("val m = m 'a\\0\\0b'"), S_OK, {"", " : m = MULTI_SZ:a||"}},
    {"number in hexadecimal", TEXT("val d = d '&H10'"), S_OK, {"", " : d = DWORD:16"}},
    {"not a number: the clean-up pass removes the block",
     TEXT("k { val d = d 'abc' }"),
     DISP_E_TYPEMISMATCH,
     {""}},
    {"unknown value type", TEXT("k { val v = q 'x' }"), DISP_E_EXCEPTION, {""}},
    {"no = behind a value name", TEXT("val v s 'x'"), DISP_E_EXCEPTION, {""}},
    {"backslash in a key name", TEXT("a\\b"), DISP_E_EXCEPTION, {""}},
    {"backslash behind ForceRemove", TEXT("ForceRemove a\\b"), DISP_E_EXCEPTION, {""}},
    {"a value name may hold a backslash", TEXT("val 'a\\b' = s 'x'"), S_OK, {"", " : a\\b = SZ:x"}},
    {"Delete writes nothing and eats its clause", TEXT("Delete gone = s 'x' k"), S_OK, {"", "k"}},
    {"a block behind a value has no key", TEXT("val v = s 'x' { k }"), DISP_E_EXCEPTION, {""}},
    // The clean-up pass stops at the same token, so what came before it stays.
    {"unterminated quote", TEXT("k = s 'open"), DISP_E_EXCEPTION, {"", "k"}},
};

TEST_F(RegistryScriptTest, RegistersWhatTheScriptSays)
{
    for (const ScriptCase& test : REGISTER_CASES)
    {
        SetUp();
        EXPECT_EQ(test.result, RunInScratch(test.body, TRUE)) << test.what;
        EXPECT_EQ(test.after, Scratch()) << test.what;
    }
}

TEST_F(RegistryScriptTest, EmptyAndMalformedScripts)
{
    EXPECT_EQ(S_OK, Run(TEXT(""), TRUE));
    EXPECT_EQ(DISP_E_EXCEPTION, Run(TEXT(" \r\n\t"), TRUE));
    EXPECT_EQ(DISP_E_EXCEPTION, Run(TEXT("HKXX { }"), TRUE));
    EXPECT_EQ(DISP_E_EXCEPTION, Run(TEXT("HKCU k"), TRUE));
    EXPECT_EQ(DISP_E_EXCEPTION, Run(TEXT("HKCU {"), TRUE));
    EXPECT_EQ(S_OK, Run(TEXT("hkey_current_user { } HKCU { }"), TRUE)); // roots in any case, several blocks
}

TEST_F(RegistryScriptTest, TokensUpTo4094Characters)
{
    WText name(255, 'n');
    WText fits(4094, 'v');
    ASSERT_EQ(S_OK, RunInScratch(TEXT("val ") + name + TEXT(" = s '") + fits + TEXT("'"), TRUE));
    DWORD bytes = 0;
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_CURRENT_USER, SCRATCH, 0, KEY_READ, &key));
    EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExW(key, name.c_str(), nullptr, nullptr, nullptr, &bytes));
    RegCloseKey(key);
    EXPECT_EQ(4095u * sizeof(WCHAR), bytes);

    WText tooLong(4095, 'v');
    EXPECT_EQ(DISP_E_EXCEPTION, RunInScratch(TEXT("val x = s '") + tooLong + TEXT("'"), TRUE));
    EXPECT_EQ(DISP_E_EXCEPTION, RunInScratch(TEXT("val x = s ") + tooLong, TRUE));
}

TEST_F(RegistryScriptTest, ForceRemoveReplacesATreeButNeverAProtectedOne)
{
    SetString(HKEY_CURRENT_USER, TEXT("Software\\VelmountTests\\Script\\Old\\Child"), TEXT("v"), TEXT("x"));
    SetString(HKEY_CURRENT_USER, TEXT("Software\\VelmountTests\\Script\\clsid\\Keep"), nullptr, TEXT("k"));
    ASSERT_EQ(S_OK, RunInScratch(TEXT("ForceRemove Old = s 'new'\r\nForceRemove CLSID { New }"), TRUE));
    EXPECT_EQ((Lines{"", "Old", "Old : @ = SZ:new", "clsid", "clsid\\Keep", "clsid\\Keep : @ = SZ:k",
                     "clsid\\New"}),
              Scratch());

    // Delete takes the tree and creates nothing; a missing tree is no failure.
    ASSERT_EQ(S_OK, RunInScratch(TEXT("Delete Old\r\nDelete Missing"), TRUE));
    EXPECT_FALSE(KeyExists(HKEY_CURRENT_USER, TEXT("Software\\VelmountTests\\Script\\Old")));
}

TEST_F(RegistryScriptTest, UnregisterTakesOutWhatItNamesAndKeepsTheRest)
{
    const WText body = TEXT("NoRemove Kept { ForceRemove Gone = s 'x' { val v = s 'y' Inner } }\r\n"
                            "Shared { Named }\r\n"
                            "Values { val del = s 'z' NoRemove val keep = s 'w' }");
    ASSERT_EQ(S_OK, RunInScratch(body, TRUE));
    // A key the script doesn't know keeps its parent; data in the registry needn't match the script's.
    SetString(HKEY_CURRENT_USER, TEXT("Software\\VelmountTests\\Script\\Shared\\Unknown"), nullptr, nullptr);
    SetString(HKEY_CURRENT_USER, TEXT("Software\\VelmountTests\\Script\\Values"), TEXT("del"),
              TEXT("changed"));

    ASSERT_EQ(S_OK, RunInScratch(body, FALSE));
    // Values are no reason to keep a key: Values goes with the value that NoRemove kept.
    const Lines expected = {"", "Kept", "Shared", "Shared\\Unknown"};
    EXPECT_EQ(expected, Scratch());
    // Nothing left to take: a second pass is as good as the first, and so is a value of a missing key.
    EXPECT_EQ(S_OK, RunInScratch(body, FALSE));
    EXPECT_EQ(S_OK, RunInScratch(TEXT("Missing { val v = s 'x' Deeper { val w = d '1' } }"), FALSE));
    EXPECT_EQ(expected, Scratch());
}

TEST_F(RegistryScriptTest, AFailedBlockIsUndoneButEarlierRootBlocksStay)
{
    const WText first = InScratch(TEXT("First = s 'x'"));
    const WText second = InScratch(TEXT("Second { val ok = s 'y' } Third { val bad = d 'no' }"));
    EXPECT_EQ(DISP_E_TYPEMISMATCH, Run(first + second, TRUE));
    EXPECT_EQ((Lines{"", "First", "First : @ = SZ:x"}), Scratch());
}

WText Nest(int levels)
{
    WText text;
    for (int i = 0; i < levels; ++i)
        text += TEXT("k { ");
    for (int i = 0; i < levels; ++i)
        text += TEXT("} ");
    return text;
}

TEST_F(RegistryScriptTest, TooDeepANestingRegistersNothing)
{
    // The root block and the three keys of the scratch frame are four levels.
    const int deepest = MAX_SCRIPT_BLOCK_DEPTH - 4;
    EXPECT_EQ(DISP_E_EXCEPTION, RunInScratch(TEXT("Before = s 'x' ") + Nest(deepest + 1), TRUE));
    EXPECT_EQ(Lines{""}, Scratch());
    EXPECT_EQ(DISP_E_EXCEPTION, RunInScratch(Nest(deepest + 1), FALSE));
    EXPECT_EQ(DISP_E_EXCEPTION, RunInScratch(Nest(1000), TRUE));
    // Also a root block that comes after a well-formed one: the whole script is measured before anything
    // runs.
    EXPECT_EQ(DISP_E_EXCEPTION, Run(InScratch(TEXT("First = s 'x'")) + InScratch(Nest(deepest + 1)), TRUE));
    EXPECT_EQ(Lines{""}, Scratch());

    EXPECT_EQ(S_OK, RunInScratch(Nest(deepest), TRUE));
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, (WText(SCRATCH) + TEXT("\\k\\k\\k")).c_str()));
    EXPECT_EQ(S_OK, RunInScratch(Nest(deepest), FALSE));
    EXPECT_EQ(Lines{""}, Scratch());
}

TEST_F(RegistryScriptTest, PerUserFrameMovesClassesUnderTheUser)
{
    g_perUserRegistration = 1;
    const WText script =
        TEXT("HKCR\r\n{\r\n\tNoRemove VelmountTestsClasses\r\n\t{\r\n\t\tForceRemove Handler = s "
             "'{7031db56-aef0-4a42-b4c9-bfdf2abe4765}'\r\n\t}\r\n}\r\n");
    ASSERT_EQ(S_OK, Run(script, TRUE));
    EXPECT_EQ((Lines{"", "Handler", "Handler : @ = SZ:{7031db56-aef0-4a42-b4c9-bfdf2abe4765}"}),
              DumpKey(HKEY_CURRENT_USER, TEXT("Software\\Classes\\VelmountTestsClasses")));
    ASSERT_EQ(S_OK, Run(script, FALSE));
    EXPECT_EQ(Lines{""}, DumpKey(HKEY_CURRENT_USER, TEXT("Software\\Classes\\VelmountTestsClasses")));
    // Software and Classes have subkeys of their own, so the frame's keys stay.
    EXPECT_TRUE(KeyExists(HKEY_CURRENT_USER, TEXT("Software\\Classes")));
    DeleteTree(HKEY_CURRENT_USER, TEXT("Software\\Classes\\VelmountTestsClasses"));
}

TEST_F(RegistryScriptTest, DeleteKeyTreeTakesEveryLevel)
{
    SetString(HKEY_CURRENT_USER, TEXT("Software\\VelmountTests\\Script\\T\\a\\b\\c"), TEXT("v"), TEXT("x"));
    SetString(HKEY_CURRENT_USER, TEXT("Software\\VelmountTests\\Script\\T\\d"), nullptr, TEXT("y"));
    RegistryKey parent;
    ASSERT_EQ(ERROR_SUCCESS, parent.OpenKey(HKEY_CURRENT_USER, SCRATCH, KEY_READ | KEY_WRITE));
    EXPECT_EQ(ERROR_SUCCESS, DeleteKeyTree(parent, TEXT("T")));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, DeleteKeyTree(parent, TEXT("T")));
    EXPECT_EQ(Lines{""}, Scratch());
}
} // namespace
