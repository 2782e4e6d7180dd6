// What the text fuzzers share: turning fuzz bytes into UTF-16 the way a marker read does, a failed
// expectation as a crash libFuzzer keeps, and the KEY=VALUE token grammar that the marker and its FMI value
// both use, written out the long way as the model to check the parsers against.
#pragma once

#include "platform/Win32.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace FuzzText
{
typedef std::basic_string<WCHAR> Text;

inline void Check(bool condition)
{
    if (!condition)
        std::abort();
}

// UTF-16LE from at most `byteLimit` bytes, an odd last byte as a unit whose high byte is 0, up to the first
// U+0000.
inline Text Units(const uint8_t* data, size_t size, size_t byteLimit)
{
    Text text;
    for (size_t i = 0; i < size && i < byteLimit; i += 2)
    {
        WCHAR unit = static_cast<WCHAR>(data[i] | (i + 1 < size ? data[i + 1] << 8 : 0));
        if (unit == 0)
            break;
        text += unit;
    }
    return text;
}

// The tokens between runs of `delimiter` that split at their first '=' into a non-empty key and value.
inline std::vector<std::pair<Text, Text>> KeyValueTokens(const Text& text, WCHAR delimiter)
{
    std::vector<std::pair<Text, Text>> tokens;
    size_t start = 0;
    while (start <= text.size())
    {
        size_t end = text.find(delimiter, start);
        if (end == Text::npos)
            end = text.size();
        Text token = text.substr(start, end - start);
        start = end + 1;
        size_t equals = token.find(TEXT('='));
        if (equals != Text::npos && equals > 0 && equals + 1 < token.size())
            tokens.emplace_back(token.substr(0, equals), token.substr(equals + 1));
    }
    return tokens;
}
} // namespace FuzzText
