// The library's symbols read as a debugger reads them from a crash dump of the file manager: dbghelp, its
// search path the folder of the library's PDB and nothing else, finds that PDB by the name and GUID in the
// library's debug directory, and turns addresses inside the library into functions, source files and lines.
#include "platform/Win32.h"
#include "tests/module/ComModule/LibraryPath.h"

#include <dbghelp.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
using WString = std::basic_string<WCHAR>;

WString FolderOf(const WString& path)
{
    return path.substr(0, path.find_last_of(TEXT("\\/")));
}

WString FileNameOf(const WString& path)
{
    return path.substr(path.find_last_of(TEXT("\\/")) + 1);
}

std::string Narrow(const WString& text)
{
    return std::string(text.begin(), text.end()); // names and paths here are ASCII
}

// The library loaded into this process, and its symbols loaded by dbghelp with the given search path.
class Symbols
{
public:
    Symbols(const WString& library, const WString& searchPath) : m_module(LoadLibraryW(library.c_str()))
    {
        m_ready = m_module && SymInitializeW(m_process, searchPath.c_str(), FALSE);
        if (m_ready)
        {
            SymSetOptions(SymGetOptions() | SYMOPT_LOAD_LINES | SYMOPT_UNDNAME);
            m_base = SymLoadModuleExW(m_process, nullptr, library.c_str(), nullptr,
                                      reinterpret_cast<DWORD64>(m_module), 0, nullptr, 0);
        }
    }
    ~Symbols()
    {
        if (m_ready)
            SymCleanup(m_process);
        if (m_module)
            FreeLibrary(m_module);
    }
    Symbols(const Symbols&) = delete;
    Symbols& operator=(const Symbols&) = delete;

    bool Loaded() const { return m_base != 0; }
    HMODULE Module() const { return m_module; }

    IMAGEHLP_MODULEW64 ModuleInfo() const
    {
        IMAGEHLP_MODULEW64 info = {};
        info.SizeOfStruct = sizeof(info);
        if (!SymGetModuleInfoW64(m_process, m_base, &info))
            info.SymType = SymNone;
        return info;
    }

    struct Found
    {
        bool ok = false;
        WString name;
        DWORD64 address = 0;
        DWORD64 displacement = 0;
        ULONG size = 0;
    };

    Found FromAddress(DWORD64 address) const { return Look(address, nullptr); }
    Found FromName(const WString& name) const { return Look(0, name.c_str()); }

    struct Line
    {
        bool ok = false;
        WString file;
        DWORD number = 0;
    };

    Line LineAt(DWORD64 address) const
    {
        IMAGEHLP_LINEW64 line = {};
        line.SizeOfStruct = sizeof(line);
        DWORD displacement = 0;
        Line result;
        if (SymGetLineFromAddrW64(m_process, address, &displacement, &line) && line.FileName)
        {
            result.ok = true;
            result.file = line.FileName;
            result.number = line.LineNumber;
        }
        return result;
    }

private:
    Found Look(DWORD64 address, LPCWSTR name) const
    {
        std::vector<BYTE> buffer(sizeof(SYMBOL_INFOW) + MAX_SYM_NAME * sizeof(WCHAR));
        auto* symbol = reinterpret_cast<SYMBOL_INFOW*>(buffer.data());
        symbol->SizeOfStruct = sizeof(SYMBOL_INFOW);
        symbol->MaxNameLen = MAX_SYM_NAME;
        Found found;
        found.ok = name ? SymFromNameW(m_process, name, symbol)
                        : SymFromAddrW(m_process, address, &found.displacement, symbol);
        if (found.ok)
        {
            found.name.assign(symbol->Name, symbol->NameLen);
            found.address = symbol->Address;
            found.size = symbol->Size;
        }
        return found;
    }

    HANDLE m_process = GetCurrentProcess();
    HMODULE m_module = nullptr;
    bool m_ready = false;
    DWORD64 m_base = 0;
};

TEST(Symbols, TheLibraryPdbIsFoundThroughItsFolderAlone)
{
    const WString library = TestLibraryPath();
    Symbols symbols(library, FolderOf(library));
    ASSERT_TRUE(symbols.Loaded()) << Narrow(library);
    const IMAGEHLP_MODULEW64 info = symbols.ModuleInfo();
    EXPECT_EQ(info.SymType, SymPdb) << "symbols came from elsewhere than a PDB (SymExport: the exports only)";
    WString pdb = FileNameOf(info.LoadedPdbName);
    WString expected = FileNameOf(library);
    expected.replace(expected.size() - 3, 3, TEXT("pdb"));
    EXPECT_EQ(Narrow(pdb), Narrow(expected));
    EXPECT_TRUE(info.LineNumbers);
}

// A library without its PDB beside it falls back to its exports: what the first test tells apart.
TEST(Symbols, WithoutThePdbOnlyTheExportsAreKnown)
{
    const WString library = TestLibraryPath();
    WCHAR temp[MAX_PATH] = {};
    ASSERT_NE(GetTempPathW(MAX_PATH, temp), 0u);
    const WString folder = WString(temp) + TEXT("vm-symbols-") + std::to_wstring(GetCurrentProcessId());
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    const WString copy = folder + TEXT("\\") + FileNameOf(library);
    ASSERT_TRUE(CopyFileW(library.c_str(), copy.c_str(), FALSE));
    {
        Symbols symbols(copy, folder);
        ASSERT_TRUE(symbols.Loaded());
        EXPECT_NE(symbols.ModuleInfo().SymType, SymPdb);
        EXPECT_FALSE(symbols.FromName(TEXT("CVelmountCopyMoveExtension::ReadDriveMarker")).ok);
    }
    DeleteFileW(copy.c_str());
    RemoveDirectoryW(folder.c_str());
}

struct FunctionCase
{
    const char* label;
    const char* exportName; // found through the export table when set, else by its name in the PDB
    LPCWSTR symbolName;     // the name dbghelp gives it
    LPCWSTR sourceFile;     // the end of the source file's path, with either separator
    DWORD definitionLine;
};

class SymbolsOfFunction : public testing::TestWithParam<FunctionCase>
{
};

bool EndsWithPath(const WString& path, const WString& tail)
{
    if (path.size() < tail.size())
        return false;
    for (size_t i = 0; i < tail.size(); ++i)
    {
        WCHAR a = path[path.size() - tail.size() + i];
        WCHAR b = tail[i];
        if (a != b && !((a == '\\' || a == '/') && (b == '\\' || b == '/')))
            return false;
    }
    // A whole file name, not the end of a longer one.
    return path.size() == tail.size() || path[path.size() - tail.size() - 1] == '\\' ||
           path[path.size() - tail.size() - 1] == '/';
}

TEST_P(SymbolsOfFunction, AnAddressInsideGivesItsNameFileAndLine)
{
    const FunctionCase& c = GetParam();
    const WString library = TestLibraryPath();
    Symbols symbols(library, FolderOf(library));
    ASSERT_TRUE(symbols.Loaded());

    DWORD64 start = 0;
    if (c.exportName)
    {
        start = reinterpret_cast<DWORD64>(
            reinterpret_cast<void*>(GetProcAddress(symbols.Module(), c.exportName)));
        ASSERT_NE(start, 0u) << c.exportName;
    }
    else
    {
        const Symbols::Found byName = symbols.FromName(c.symbolName);
        ASSERT_TRUE(byName.ok) << Narrow(c.symbolName) << ": not in the PDB";
        start = byName.address;
    }
    const DWORD64 base = reinterpret_cast<DWORD64>(symbols.Module());
    ASSERT_GE(start, base);

    const Symbols::Found atStart = symbols.FromAddress(start);
    ASSERT_TRUE(atStart.ok);
    EXPECT_EQ(Narrow(atStart.name), Narrow(c.symbolName));
    EXPECT_EQ(atStart.address, start);
    ASSERT_GT(atStart.size, 8u) << "the PDB gives the function no size";

    // An address in the middle of the function, as a crash's instruction pointer would be.
    const DWORD64 inside = start + atStart.size / 2;
    const Symbols::Found atInside = symbols.FromAddress(inside);
    ASSERT_TRUE(atInside.ok);
    EXPECT_EQ(Narrow(atInside.name), Narrow(c.symbolName));
    EXPECT_EQ(atInside.displacement, atStart.size / 2);

    const Symbols::Line entry = symbols.LineAt(start);
    ASSERT_TRUE(entry.ok);
    EXPECT_TRUE(EndsWithPath(entry.file, c.sourceFile)) << Narrow(entry.file);
    // The entry's line is the definition's (its first line, or the brace below it).
    EXPECT_GE(entry.number, c.definitionLine);
    EXPECT_LE(entry.number, c.definitionLine + 1);

    const Symbols::Line middle = symbols.LineAt(inside);
    ASSERT_TRUE(middle.ok);
    EXPECT_GT(middle.number, 0u);
    EXPECT_FALSE(middle.file.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Library, SymbolsOfFunction,
    testing::Values(FunctionCase{"Export", "DllGetClassObject", TEXT("DllGetClassObject"),
                                 TEXT("module/ComModule.cpp"), VELMOUNT_EXPORT_LINE},
                    FunctionCase{"Internal", nullptr, TEXT("CVelmountCopyMoveExtension::ReadDriveMarker"),
                                 TEXT("extension/DriveMarker.cpp"), VELMOUNT_INTERNAL_LINE}),
    [](const testing::TestParamInfo<FunctionCase>& info) { return info.param.label; });
} // namespace
