// The stand-in's own way between UTF-16 texts and the host's UTF-8 (paths, .reg files, traces): the same
// conversion WideCharToMultiByte and MultiByteToWideChar make for CP_UTF8, without measuring through the API
// first. Not part of the Win32 subset.
#pragma once

#include "platform/host/Types.h"

#include <string>

namespace VmHost
{
std::string Utf8(const WCHAR* text, size_t units);
// Up to the text's terminator; a null text is empty.
std::string Utf8(const WCHAR* text);
std::u16string Utf16(const char* bytes, size_t count);

inline std::string Utf8(const std::u16string& text)
{
    return Utf8(text.data(), text.size());
}
inline std::u16string Utf16(const std::string& text)
{
    return Utf16(text.data(), text.size());
}
} // namespace VmHost
