#include "tests/module/LibraryCopy.h"

#include <atomic>

namespace fs = std::filesystem;

WText PathText(const fs::path& path)
{
#ifdef _WIN32
    return path.wstring();
#else
    return path.u16string();
#endif
}

LibraryCopy::LibraryCopy(const fs::path& source, const fs::path& relative)
{
    // Names of one length, so that a test can work out the length of a path before it makes it.
    static std::atomic<int> counter{0};
    m_root = fs::temp_directory_path() /
             ("vm-reg-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(1000 + ++counter));
    m_file = m_root / relative;
    fs::create_directories(m_file.parent_path());
    fs::copy_file(source, m_file, fs::copy_options::overwrite_existing);
    m_module = LoadLibraryW(PathText(m_file).c_str());
    if (!m_module)
        return;
    WCHAR loaded[1024] = {};
    GetModuleFileNameW(m_module, loaded, 1024);
    m_path = Narrow(loaded);
}

LibraryCopy::~LibraryCopy()
{
    if (m_module)
        FreeLibrary(m_module);
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
}
