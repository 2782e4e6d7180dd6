#include "extension/DropFiles.h"
#include "extension/CopyMoveExtension.h"
#include "foundation/UnitSearch.h"

#include <cstddef>
#include <cstring>
#include <utility>

namespace
{
constexpr int kPathLimit = static_cast<int>(SELECTED_PATH_CAPACITY) - 1;
static_assert(WideString::Batch::kReserveSlack >= static_cast<int>(kCopyOverrunUnits),
              "a reserved text has room for what the copy overwrites");

// Takes back what a read appended unless it got to the closing empty name: a hostile block leaves the
// selection as it was, as a missing one does.
class AppendedPaths
{
public:
    explicit AppendedPaths(NodeList<WideString>& paths) noexcept : m_paths(paths), m_before(paths.GetCount())
    {
    }
    ~AppendedPaths()
    {
        if (!m_kept)
            while (m_paths.GetCount() > m_before)
                m_paths.RemoveTail();
    }
    AppendedPaths(const AppendedPaths&) = delete;
    AppendedPaths& operator=(const AppendedPaths&) = delete;
    void Keep() noexcept { m_kept = true; }

private:
    NodeList<WideString>& m_paths;
    size_t m_before;
    bool m_kept = false;
};

bool ReadWideNames(const BYTE* at, const BYTE* end, NodeList<WideString>& paths)
{
    // Each name is copied while its end is looked for: one pass over the block's bytes, not two.
    WideString::Batch texts;
    for (;;)
    {
        WCHAR* text = texts.Reserve(kPathLimit);
        const BYTE* nameEnd = CopyUntilUnit(at, end, 0, text, kPathLimit);
        if (!nameEnd)
            return false;
        const ptrdiff_t units = (nameEnd - at) / static_cast<ptrdiff_t>(sizeof(WCHAR));
        if (units == 0)
            return true;
        paths.AddTail(texts.Commit(units < kPathLimit ? static_cast<int>(units) : kPathLimit));
        at = nameEnd + sizeof(WCHAR);
    }
}

// A character of any code page takes at most four bytes (UTF-8's four-byte sequences give two units,
// GB18030's four-byte ones one) and gives at least one unit, and how its bytes decode depends on no byte
// after them. So the characters that begin in the first 4 * 259 bytes decode there as they do in the whole
// name and give at least 259 units: a longer name is converted that far only, then cut. A hostile name of
// half a gigabyte would otherwise be converted whole for the sake of its first 259 characters.
constexpr int kAnsiPrefixBytes = 4 * kPathLimit;

// A name converted whole is converted with its terminator, as the terminated string DragQueryFileW converts:
// Wine's UTF-8 decoder, given the name's length alone, drops whatever follows a lead byte that the end cuts
// short (and may take the terminator itself into such a sequence), where Windows gives U+FFFD and the rest.
// Every code page gives at most one unit per byte, so the converted bytes' count is room enough.
void AddAnsiName(const char* name, int bytes, NodeList<WideString>& paths)
{
    const int converted = bytes < kAnsiPrefixBytes ? bytes + 1 : kAnsiPrefixBytes;
    WCHAR text[kAnsiPrefixBytes + 1];
    int units = MultiByteToWideChar(CP_ACP, 0, name, converted, text, converted);
    if (units > 0 && text[units - 1] == 0)
        --units;
    if (units <= 0)
        return;
    paths.AddTail(WideString(text, units < kPathLimit ? units : kPathLimit));
}

bool ReadAnsiNames(const BYTE* at, const BYTE* end, NodeList<WideString>& paths)
{
    for (;;)
    {
        const void* zero = std::memchr(at, 0, static_cast<size_t>(end - at));
        if (!zero)
            return false;
        const BYTE* stop = static_cast<const BYTE*>(zero);
        if (stop == at)
            return true;
        const ptrdiff_t bytes = stop - at;
        if (bytes > 0x7FFFFFFF)
            return false;
        AddAnsiName(reinterpret_cast<const char*>(at), static_cast<int>(bytes), paths);
        at = stop + 1;
    }
}
} // namespace

bool ReadDropFiles(const BYTE* block, SIZE_T size, NodeList<WideString>& paths)
{
    if (!block || size < sizeof(DROPFILES))
        return false;
    DROPFILES header;
    std::memcpy(&header, block, sizeof(header));
    // DragQueryFileW takes pFiles and the list's end on trust and walks on past the block when either is
    // wrong; here both are checked against the size the medium reports.
    if (header.pFiles >= size)
        return false;
    AppendedPaths appended(paths);
    const BYTE* end = block + size;
    const bool read = header.fWide ? ReadWideNames(block + header.pFiles, end, paths)
                                   : ReadAnsiNames(block + header.pFiles, end, paths);
    if (read)
        appended.Keep();
    return read;
}
