#include "module/ScriptExpansion.h"

#include "module/Registration.h"
#include "module/RegistryScript.h"

#include <cstdlib>
#include <cstring>

namespace
{
// The frame that moves an HKCR root block under the user's classes key.
const WCHAR FRAME_OPENING[] = TEXT("HKCU\r\n{\tSoftware\r\n\t{\r\n\t\tClasses");
const WCHAR FRAME_CLOSING[] = TEXT("\r\n\t}\r\n}\r\n");
const WCHAR MOVED_ROOT[] = TEXT("HKCR");
const int FRAME_OPENING_LENGTH = 31;
const int FRAME_CLOSING_LENGTH = 9;
const int MOVED_ROOT_LENGTH = 4;
static_assert(sizeof(FRAME_OPENING) / sizeof(WCHAR) == FRAME_OPENING_LENGTH + 1, "frame opening");
static_assert(sizeof(FRAME_CLOSING) / sizeof(WCHAR) == FRAME_CLOSING_LENGTH + 1, "frame closing");

LPWSTR CopyText(LPCWSTR text)
{
    size_t length = static_cast<size_t>(lstrlenW(text));
    auto copy = static_cast<LPWSTR>(std::malloc((length + 1) * sizeof(WCHAR)));
    if (copy)
        std::memcpy(copy, text, (length + 1) * sizeof(WCHAR));
    return copy;
}

// Grows an array of text pointers by one zeroed slot; the old array stays valid on failure.
bool GrowSlots(LPWSTR*& slots, int count)
{
    auto grown = static_cast<LPWSTR*>(std::realloc(slots, (static_cast<size_t>(count) + 1) * sizeof(LPWSTR)));
    if (!grown)
        return false;
    grown[count] = nullptr;
    slots = grown;
    return true;
}

bool StartsWith(LPCWSTR text, LPCWSTR prefix, int length)
{
    for (int i = 0; i < length; ++i)
        if (text[i] != prefix[i])
            return false;
    return true;
}
} // namespace

BOOL ReplacementMap::AddPair(LPCWSTR name, LPCWSTR value)
{
    if (!name || !value)
        return FALSE;
    LPWSTR nameCopy = CopyText(name);
    LPWSTR valueCopy = CopyText(value);
    // Both arrays grow before either gets the pair, so a failure leaves m_count matching both.
    if (!nameCopy || !valueCopy || !GrowSlots(m_names, m_count) || !GrowSlots(m_values, m_count))
    {
        std::free(nameCopy);
        std::free(valueCopy);
        return FALSE;
    }
    m_names[m_count] = nameCopy;
    m_values[m_count] = valueCopy;
    ++m_count;
    return TRUE;
}

LPCWSTR ReplacementMap::LookupReplacement(LPCWSTR name) const
{
    for (int i = 0; i < m_count; ++i)
        if (lstrcmpiW(m_names[i], name) == 0)
            return m_values[i];
    return nullptr;
}

HRESULT ReplacementMap::ClearPairs()
{
    for (int i = 0; i < m_count; ++i)
    {
        std::free(m_names[i]);
        std::free(m_values[i]);
    }
    std::free(m_names);
    std::free(m_values);
    m_names = nullptr;
    m_values = nullptr;
    m_count = 0;
    return S_OK;
}

BOOL AppendText(ScriptBuffer& buffer, LPCWSTR text, int count)
{
    if (count < 0)
        return FALSE;
    // Wraps like the 32-bit sum it is; a wrapped sum is no larger than its parts.
    int needed = static_cast<int>(static_cast<unsigned>(buffer.m_length) + static_cast<unsigned>(count) + 1u);
    if (needed <= buffer.m_length || needed <= count)
        return FALSE;
    if (needed >= buffer.m_capacity)
    {
        int capacity = buffer.m_capacity > 0 ? buffer.m_capacity : 1;
        do
        {
            if (capacity > 0x3FFFFFFF)
                return FALSE;
            capacity *= 2;
        } while (needed >= capacity);
        ULONGLONG bytes = static_cast<ULONGLONG>(capacity) * sizeof(WCHAR);
        if (bytes > 0xFFFFFFFFull)
            return FALSE;
        auto grown = static_cast<LPWSTR>(CoTaskMemRealloc(buffer.m_text, static_cast<SIZE_T>(bytes)));
        if (!grown)
            return FALSE;
        buffer.m_text = grown;
        buffer.m_capacity = capacity;
    }
    if (count)
        std::memcpy(buffer.m_text + buffer.m_length, text, static_cast<size_t>(count) * sizeof(WCHAR));
    buffer.m_length += count;
    buffer.m_text[buffer.m_length] = 0;
    return TRUE;
}

HRESULT ExpandScript(ScriptParser& parser, LPCWSTR source, LPWSTR* expanded)
{
    if (!source || !expanded)
        return E_POINTER;
    *expanded = nullptr;

    ULONGLONG length = static_cast<ULONGLONG>(lstrlenW(source));
    ULONGLONG capacity = length * 2 < 100 ? 1000 : length * 2;
    if (capacity * sizeof(WCHAR) > 0xFFFFFFFFull)
        return E_OUTOFMEMORY;
    ScriptBuffer out;
    out.m_text = static_cast<LPWSTR>(CoTaskMemAlloc(static_cast<SIZE_T>(capacity * sizeof(WCHAR))));
    if (!out.m_text)
        return E_OUTOFMEMORY;
    out.m_capacity = static_cast<int>(capacity);
    out.m_text[0] = 0;

    HRESULT hr = S_OK;
    parser.m_cursor = source;
    const bool perUser = g_perUserRegistration == 1;
    int depth = 0;
    bool inQuotes = false;
    bool framed = false;

    while (*parser.m_cursor)
    {
        if (perUser && depth == 0 && StartsWith(parser.m_cursor, MOVED_ROOT, MOVED_ROOT_LENGTH))
        {
            parser.m_cursor += MOVED_ROOT_LENGTH;
            if (!AppendText(out, FRAME_OPENING, FRAME_OPENING_LENGTH))
            {
                hr = E_OUTOFMEMORY;
                break;
            }
            framed = true;
            if (!*parser.m_cursor)
                break;
        }
        WCHAR c = *parser.m_cursor;
        if (perUser && c == '\'')
        {
            if (!inQuotes)
                inQuotes = true;
            else if (parser.m_cursor[1] == '\'')
            {
                // A doubled quote inside quotes: both halves go out, the second by the common path below.
                ++parser.m_cursor;
                if (!AppendText(out, TEXT("'"), 1))
                {
                    hr = E_OUTOFMEMORY;
                    break;
                }
            }
            else
                inQuotes = false;
        }
        else if (perUser && !inQuotes && c == '{')
            ++depth;
        else if (perUser && !inQuotes && c == '}')
        {
            --depth;
            if (depth == 0 && framed)
            {
                if (!AppendText(out, FRAME_CLOSING, FRAME_CLOSING_LENGTH))
                {
                    hr = E_OUTOFMEMORY;
                    break;
                }
                framed = false;
            }
        }

        c = *parser.m_cursor;
        if (c != '%')
        {
            // The whole character, also when it is a surrogate pair that CharNextW steps over at once.
            LPCWSTR next = CharNextW(parser.m_cursor);
            if (!AppendText(out, parser.m_cursor, static_cast<int>(next - parser.m_cursor)))
            {
                hr = E_OUTOFMEMORY;
                break;
            }
            parser.m_cursor = next;
            continue;
        }
        ++parser.m_cursor;
        if (*parser.m_cursor == '%')
        {
            if (!AppendText(out, TEXT("%"), 1))
            {
                hr = E_OUTOFMEMORY;
                break;
            }
            parser.m_cursor = CharNextW(parser.m_cursor);
            continue;
        }
        LPCWSTR end = parser.m_cursor;
        while (*end && *end != '%')
            ++end;
        if (!*end)
        {
            hr = DISP_E_EXCEPTION;
            break;
        }
        if (end - parser.m_cursor > MAX_REPLACEMENT_NAME)
        {
            hr = E_FAIL;
            break;
        }
        WCHAR name[MAX_REPLACEMENT_NAME + 1];
        int nameLength = static_cast<int>(end - parser.m_cursor);
        std::memcpy(name, parser.m_cursor, static_cast<size_t>(nameLength) * sizeof(WCHAR));
        name[nameLength] = 0;
        LPCWSTR value =
            parser.m_registrar ? parser.m_registrar->m_replacements.LookupReplacement(name) : nullptr;
        if (!value)
        {
            hr = DISP_E_EXCEPTION;
            break;
        }
        if (!AppendText(out, value, lstrlenW(value)))
        {
            hr = E_OUTOFMEMORY;
            break;
        }
        parser.m_cursor = CharNextW(end);
    }

    if (FAILED(hr))
    {
        CoTaskMemFree(out.m_text);
        return hr;
    }
    *expanded = out.m_text;
    return S_OK;
}
