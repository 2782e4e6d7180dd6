// A private copy of a library in a fresh temporary folder, loaded with LoadLibraryW as an installer or the
// shell loads it. Each copy is a library of its own, with its own statics (the per-user flag among them).
#pragma once

#include "tests/module/RegistryDump.h"

#include <filesystem>
#include <string>

WText PathText(const std::filesystem::path& path);

class LibraryCopy
{
public:
    // Copies `source` to `relative` (folders and file name) below the fresh folder and loads it.
    LibraryCopy(const std::filesystem::path& source, const std::filesystem::path& relative);
    ~LibraryCopy();
    LibraryCopy(const LibraryCopy&) = delete;
    LibraryCopy& operator=(const LibraryCopy&) = delete;

    HMODULE Module() const { return m_module; }
    bool Loaded() const { return m_module != nullptr; }
    // The library's path as the loader reports it (GetModuleFileNameW).
    const std::string& Path() const { return m_path; }
    // Where the copy stands, for files put beside it.
    std::filesystem::path Folder() const { return m_file.parent_path(); }

    template <typename Function> Function Export(const char* name) const
    {
        return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(m_module, name)));
    }

private:
    std::filesystem::path m_root;
    std::filesystem::path m_file;
    HMODULE m_module = nullptr;
    std::string m_path;
};
