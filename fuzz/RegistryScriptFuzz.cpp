// Registry scripts of any shape through expansion and the interpreter, registering and then unregistering
// against the stand-in's registry (emptied before each input). A script may fail with any HRESULT; it may
// not crash, leak, recurse without bound or leave the expansion's buffer unterminated.
//
// Input: byte 0 chooses per-user mode; every further byte is one character of the script (as the single-byte
// resource text reads), up to the first zero.
#include "module/Registration.h"
#include "module/RegistryScript.h"
#include "platform/host/ControlRegistry.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace
{
void Check(bool condition)
{
    if (!condition)
        std::abort();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    std::basic_string<WCHAR> script;
    for (size_t i = 1; i < size && data[i]; ++i)
        script += static_cast<WCHAR>(data[i]);

    VmHostRegistryReset();
    g_perUserRegistration = data[0] & 1;
    CRegObject registrar;
    registrar.AddReplacement(TEXT("MODULE"), TEXT("C:\\Program Files\\Velmount\\It's.dll"));
    registrar.AddReplacement(TEXT("APPID"), TEXT("{7031DB56-AEF0-4A42-B4C9-BFDF2ABE4765}"));
    registrar.AddReplacement(TEXT("Percent"), TEXT("%MODULE%"));

    ScriptParser expansion;
    expansion.m_registrar = &registrar;
    LPWSTR expanded = nullptr;
    HRESULT hr = ExpandScript(expansion, script.c_str(), &expanded);
    Check(SUCCEEDED(hr) == (expanded != nullptr));
    if (!expanded)
        return 0;
    Check(lstrlenW(expanded) >= 0);
    for (BOOL registering : {TRUE, FALSE})
    {
        ScriptParser parser;
        parser.m_registrar = &registrar;
        RunScript(parser, expanded, registering);
    }
    CoTaskMemFree(expanded);
    return 0;
}
