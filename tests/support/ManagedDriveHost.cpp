#ifndef _WIN32
#include "tests/support/ManagedDrive.h"

#include "platform/host/ControlFiles.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace TestSupport
{
namespace
{
std::string Narrow(const WideString& text)
{
    std::string out;
    for (int i = 0; i < text.GetLength(); ++i)
        out += static_cast<char>(text[i]);
    return out;
}
} // namespace

ManagedDrive::ManagedDrive(WCHAR letter) : m_letter(letter)
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/velmount-drive-XXXXXX";
    if (!mkdtemp(&pattern[0]))
        throw std::runtime_error("mkdtemp failed");
    std::u16string wide(pattern.begin(), pattern.end());
    m_backing = wide.c_str();
    VmHostMapDrive(letter, pattern.c_str());
}

ManagedDrive::~ManagedDrive()
{
    VmHostMapDrive(m_letter, nullptr);
    std::error_code ignored;
    std::filesystem::remove_all(Narrow(m_backing), ignored);
}
} // namespace TestSupport
#endif
