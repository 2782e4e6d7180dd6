// The pass that runs over a registry script before it is interpreted: %NAME% references are replaced from the
// registrar's map, and in per-user mode every HKCR root block is moved under HKCU\Software\Classes. The
// tokeniser never sees a % or the mode.
#pragma once

#include "platform/Win32.h"

class CRegObject;

// The name and value pairs of one registration run, in the order they were added. A name may stand twice;
// lookup takes the first. Every text is a private heap copy owned by the map.
struct ReplacementMap
{
    LPWSTR* m_names = nullptr;
    LPWSTR* m_values = nullptr;
    int m_count = 0;

    ReplacementMap() = default;
    ReplacementMap(const ReplacementMap&) = delete;
    ReplacementMap& operator=(const ReplacementMap&) = delete;
    ~ReplacementMap() { ClearPairs(); }

    // FALSE for a null name or value, or when memory runs out (the map is then as it was).
    BOOL AddPair(LPCWSTR name, LPCWSTR value);
    // The first value whose name equals `name` without regard to case, or null.
    LPCWSTR LookupReplacement(LPCWSTR name) const;
    HRESULT ClearPairs();
};

// Longest name a %NAME% reference may have.
const int MAX_REPLACEMENT_NAME = 31;

// The growing output of one expansion. m_text comes from CoTaskMemAlloc and is always terminated once it
// exists.
struct ScriptBuffer
{
    int m_length = 0;
    int m_capacity = 0;
    LPWSTR m_text = nullptr;
};

// Appends `count` units of `text`; FALSE when the buffer can't grow (it is then unchanged).
BOOL AppendText(ScriptBuffer& buffer, LPCWSTR text, int count);

// The state of one script run: where the reader stands and whose replacements apply. The depth fields keep
// arbitrary scripts from nesting blocks without bound (see RegistryScript.cpp).
struct ScriptParser
{
    LPCWSTR m_cursor = nullptr;
    CRegObject* m_registrar = nullptr;
    int m_blockDepth = 0;
    BOOL m_tooDeep = FALSE;
};

// Expands `source` into a new text that the caller frees with CoTaskMemFree. On failure *expanded stays null.
HRESULT ExpandScript(ScriptParser& parser, LPCWSTR source, LPWSTR* expanded);
