// The CF_HDROP reader against the platform's own DragQueryFileW (real Win32 under Wine, the stand-in on the
// host) over generated blocks, and over blocks no file manager writes, each in memory of exactly its size so
// that AddressSanitizer sees any read past it.
#include "extension/CopyMoveExtension.h"
#include "extension/DropFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{
typedef std::basic_string<WCHAR> Text;

bool ReadInto(const std::vector<BYTE>& block, NodeList<WideString>& paths)
{
    std::unique_ptr<BYTE[]> exact(new BYTE[block.size()]);
    if (!block.empty())
        std::memcpy(exact.get(), block.data(), block.size());
    return ReadDropFiles(exact.get(), block.size(), paths);
}

std::vector<Text> Read(const std::vector<BYTE>& block, bool& read)
{
    NodeList<WideString> paths;
    read = ReadInto(block, paths);
    std::vector<Text> texts;
    for (POSITION position = paths.GetHeadPosition(); position;)
    {
        const WideString& path = paths.GetNext(position);
        texts.emplace_back(path.GetString(), static_cast<size_t>(path.GetLength()));
    }
    return texts;
}

// What Initialize took from the data before: every index DragQueryFileW gave a non-empty path for.
std::vector<Text> ReadWithDragQueryFile(const std::vector<BYTE>& block)
{
    HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, block.size());
    std::memcpy(GlobalLock(memory), block.data(), block.size());
    GlobalUnlock(memory);
    HDROP drop = static_cast<HDROP>(memory);
    std::vector<Text> texts;
    const UINT count = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0);
    for (UINT index = 0; index < count; ++index)
    {
        WCHAR path[SELECTED_PATH_CAPACITY] = {};
        if (DragQueryFileW(drop, index, path, SELECTED_PATH_CAPACITY) != 0)
            texts.emplace_back(path);
    }
    GlobalFree(memory);
    return texts;
}

std::vector<BYTE> Header(DWORD pFiles, BOOL wide)
{
    DROPFILES header = {};
    header.pFiles = pFiles;
    header.fWide = wide;
    std::vector<BYTE> block(pFiles > sizeof(header) ? pFiles : sizeof(header), 0x5A);
    std::memcpy(block.data(), &header, sizeof(header));
    return block;
}

void AddWide(std::vector<BYTE>& block, const Text& name)
{
    const BYTE* bytes = reinterpret_cast<const BYTE*>(name.c_str());
    block.insert(block.end(), bytes, bytes + (name.size() + 1) * sizeof(WCHAR));
}

// Names of the lengths that matter (short, 259, 260, 300) and of letters from several scripts: in UTF-16 with
// surrogate pairs, in ANSI every byte but 0.
struct Generator
{
    std::mt19937 random;

    // The large lists have short names, mostly: DragQueryFileW's cost grows with count * count * length.
    bool shortNames = false;

    size_t Length()
    {
        // Around 259 (the cut) and 1,036 (four bytes per character for 259 of them, as far as an ANSI name
        // is converted).
        static const size_t kEdges[] = {259, 260, 261, 300, 1000, 1035, 1036, 1037, 3000};
        if (random() % (shortNames ? 256 : 8) == 0)
            return kEdges[random() % (sizeof(kEdges) / sizeof(kEdges[0]))];
        return 1 + random() % (shortNames ? 12 : 80);
    }

    Text WideName()
    {
        static const WCHAR kLetters[] = {TEXT('a'), TEXT('Z'), TEXT('\\'), TEXT(' '), 0x00E9, 0x00DF,
                                         0x0416,    0x65E5,    0x672C,     0xFFFD,    0x20AC};
        Text name(Length(), TEXT('x'));
        for (size_t i = 0; i < name.size(); ++i)
        {
            if (random() % 16 == 0 && i + 1 < name.size())
            {
                name[i++] = static_cast<WCHAR>(0xD83D);
                name[i] = static_cast<WCHAR>(0xDE00 + random() % 64);
            }
            else
                name[i] = kLetters[random() % (sizeof(kLetters) / sizeof(kLetters[0]))];
        }
        return name;
    }

    // Names whose last three bytes are letters (see AgreesWithDragQueryFileW).
    bool lettersLast = false;

    std::string AnsiName()
    {
        std::string name(Length(), 'x');
        for (char& c : name)
            c = static_cast<char>(random() % 2 ? 'a' + random() % 26 : 1 + random() % 255);
        for (size_t i = name.size() > 3 ? name.size() - 3 : 0; lettersLast && i < name.size(); ++i)
            name[i] = static_cast<char>('a' + random() % 26);
        return name;
    }

    std::vector<BYTE> Block(bool wide, size_t count, DWORD pFiles)
    {
        std::vector<BYTE> block = Header(pFiles, wide);
        shortNames = count >= 1000;
        for (size_t i = 0; i < count; ++i)
        {
            if (wide)
                AddWide(block, WideName());
            else
            {
                std::string name = AnsiName();
                block.insert(block.end(), name.c_str(), name.c_str() + name.size() + 1);
            }
        }
        block.insert(block.end(), wide ? sizeof(WCHAR) : 1, 0);
        return block;
    }
};

struct Generated
{
    size_t count;
    DWORD pFiles;
};

// DragQueryFileW walks from the list's start for every index, so the largest blocks cost it
// 5,000 * 5,000 / 2 names: the counts stay few. ANSI names are read in the process's ANSI code page; a run
// that asks for a multibyte one (VELMOUNT_EXPECT_ACP, with the locale that gives it) checks that it got it.
TEST(DropFilesReader, AgreesWithDragQueryFileW)
{
    if (const char* expected = std::getenv("VELMOUNT_EXPECT_ACP"))
    {
#ifdef _WIN32
        ASSERT_EQ(GetACP(), static_cast<UINT>(std::atoi(expected)))
            << "the process did not get the ANSI code page it was started for";
#else
        GTEST_FAIL() << "the host has no ANSI code page but 1252, asked for " << expected;
#endif
    }
    const Generated shapes[] = {{1, 20}, {2, 20}, {3, 21}, {17, 32}, {300, 20}, {5000, 20}};
    Generator generator{std::mt19937(20)};
#ifdef _WIN32
    // Wine's DragQueryFileW reads a UTF-8 name whose last three bytes begin a sequence they don't complete on
    // into the next name (its decoder takes the terminator into the sequence); the reader, as Windows, stops
    // at the terminator (AnAnsiNameEndsAtItsTerminator). Everywhere else the two are compared.
    generator.lettersLast = GetACP() == CP_UTF8;
#endif
    for (bool wide : {true, false})
    {
        for (const Generated& shape : shapes)
        {
            SCOPED_TRACE(testing::Message() << (wide ? "wide" : "ANSI") << ", " << shape.count
                                            << " names at offset " << shape.pFiles);
            const std::vector<BYTE> block = generator.Block(wide, shape.count, shape.pFiles);
            bool read = false;
            const std::vector<Text> paths = Read(block, read);
            EXPECT_TRUE(read);
            EXPECT_EQ(paths.size(), shape.count);
            const std::vector<Text> expected = ReadWithDragQueryFile(block);
            ASSERT_EQ(paths.size(), expected.size());
            for (size_t i = 0; i < paths.size(); ++i)
                ASSERT_EQ(paths[i], expected[i])
                    << "name " << i << ": " << paths[i].size() << " and " << expected[i].size() << " units";
        }
    }
}

struct Hostile
{
    const char* name;
    std::vector<BYTE> block;
    bool read;
    size_t paths;
};

std::vector<BYTE> Cut(std::vector<BYTE> block, size_t bytes)
{
    block.resize(block.size() - bytes);
    return block;
}

std::vector<BYTE> Grown(std::vector<BYTE> block, size_t bytes)
{
    block.resize(block.size() + bytes, 0x41);
    return block;
}

std::vector<BYTE> WithPFiles(std::vector<BYTE> block, DWORD pFiles)
{
    std::memcpy(block.data(), &pFiles, sizeof(pFiles));
    return block;
}

std::vector<BYTE> Wide(std::initializer_list<const WCHAR*> names, size_t closingZeros = 1, DWORD pFiles = 20)
{
    std::vector<BYTE> block = Header(pFiles, TRUE);
    for (const WCHAR* name : names)
        AddWide(block, name);
    block.insert(block.end(), closingZeros * sizeof(WCHAR), 0);
    return block;
}

std::vector<BYTE> Ansi(const std::vector<BYTE>& list)
{
    std::vector<BYTE> block = Header(20, FALSE);
    block.resize(block.size() + list.size());
    std::copy(list.begin(), list.end(), block.end() - static_cast<std::ptrdiff_t>(list.size()));
    return block;
}

// A name is the bytes before its terminator, however its last byte would begin a character in the code page.
TEST(DropFilesReader, AnAnsiNameEndsAtItsTerminator)
{
    bool read = false;
    const std::vector<Text> paths = Read(Ansi({'C', ':', '\\', 'a', 0xE3, 0, 'b', 'c', 0, 0}), read);
    ASSERT_TRUE(read);
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_EQ(paths[0].substr(0, 4), Text(TEXT("C:\\a")));
    EXPECT_LE(paths[0].size(), 5u) << "a character of its own at most for the last byte";
    EXPECT_EQ(paths[1], Text(TEXT("bc")));
}

TEST(DropFilesReader, HostileBlocksStayInsideAndChangeNothing)
{
    const std::vector<BYTE> two = Wide({TEXT("C:\\a"), TEXT("C:\\b")});
    const std::vector<BYTE> ansiTwo = Ansi({'C', ':', '\\', 'a', 0, 'b', 0, 0});
    const Hostile blocks[] = {
        {"empty", {}, false, 0},
        {"header cut short", Cut(Header(20, TRUE), 1), false, 0},
        {"header only", Header(20, TRUE), false, 0},
        {"pFiles at the end", WithPFiles(two, static_cast<DWORD>(two.size())), false, 0},
        {"pFiles far outside", WithPFiles(two, 0xFFFFFFF0), false, 0},
        {"pFiles on the last byte", WithPFiles(two, static_cast<DWORD>(two.size() - 1)), false, 0},
        {"no closing empty name", Wide({TEXT("C:\\a"), TEXT("C:\\b")}, 0), false, 0},
        {"last name unended", Cut(two, 2 * sizeof(WCHAR)), false, 0},
        {"closing name half there", Cut(two, 1), false, 0},
        {"names at an odd offset", Wide({TEXT("C:\\a")}, 1, 21), true, 1},
        {"odd size, a stray byte behind the list", Grown(two, 1), true, 2},
        {"ANSI without closing name", Ansi({'C', ':', '\\', 'a', 0}), false, 0},
        {"ANSI without any zero", Ansi({'C', ':', '\\', 'a'}), false, 0},
        {"ANSI list", Ansi({'C', ':', '\\', 'a', 0, 'b', 0, 0}), true, 2},
        // An ANSI list is searched for its zeros byte by byte: a pFiles behind the end must not become a
        // search of the memory after the block.
        {"ANSI pFiles at the end", WithPFiles(ansiTwo, static_cast<DWORD>(ansiTwo.size())), false, 0},
        {"ANSI pFiles past the end", WithPFiles(ansiTwo, static_cast<DWORD>(ansiTwo.size() + 1)), false, 0},
        {"ANSI pFiles far outside", WithPFiles(ansiTwo, 0xFFFFFFF0), false, 0},
        {"ANSI pFiles on the last byte", WithPFiles(ansiTwo, static_cast<DWORD>(ansiTwo.size() - 1)), true,
         0},
        {"empty list, one zero", Wide({}, 1), true, 0},
        {"empty list, the shell's two zeros", Wide({}, 2), true, 0},
        // pFiles 0 reads the header itself, as DragQueryFileW would: its first unit (pFiles) is 0.
        {"pFiles inside the header", WithPFiles(two, 0), true, 0},
    };
    for (const Hostile& hostile : blocks)
    {
        SCOPED_TRACE(hostile.name);
        NodeList<WideString> before;
        before.AddTail(TEXT("X:\\held"));
        EXPECT_EQ(ReadInto(hostile.block, before), hostile.read);
        EXPECT_EQ(before.GetCount(), 1 + hostile.paths);
        EXPECT_EQ(before.GetHead(), TEXT("X:\\held"));
    }
}
} // namespace
