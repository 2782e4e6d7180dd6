// CF_HDROP blocks of any content, as a hostile data object could offer them. The block lies in memory of
// exactly its size, so ASan stops any read past it. A refused block must leave the list as it was; an
// accepted one must agree with the stand-in's DragQueryFileW (which stays inside a block of known size) on
// the count and on the first names.
#include "extension/CopyMoveExtension.h"
#include "extension/DropFiles.h"
#include "fuzz/FuzzText.h"

#include <cstdint>
#include <cstring>
#include <memory>

namespace
{
using FuzzText::Check;

// DragQueryFileW walks from the list's start for every index: the names compared stay few.
constexpr UINT kNamesCompared = 64;
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::unique_ptr<BYTE[]> block(new BYTE[size]);
    if (size)
        std::memcpy(block.get(), data, size);
    NodeList<WideString> paths;
    paths.AddTail(TEXT("X:\\held"));
    const bool read = ReadDropFiles(block.get(), size, paths);
    Check(paths.GetHead() == TEXT("X:\\held"));
    if (!read)
    {
        Check(paths.GetCount() == 1);
        return 0;
    }

    HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, size);
    Check(memory != nullptr);
    std::memcpy(GlobalLock(memory), data, size);
    GlobalUnlock(memory);
    HDROP drop = static_cast<HDROP>(memory);
    Check(paths.GetCount() - 1 == DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0));
    POSITION position = paths.GetHeadPosition();
    paths.GetNext(position);
    for (UINT index = 0; position && index < kNamesCompared; ++index)
    {
        const WideString& path = paths.GetNext(position);
        Check(path.GetLength() > 0 && path.GetLength() < static_cast<int>(SELECTED_PATH_CAPACITY));
        WCHAR expected[SELECTED_PATH_CAPACITY] = {};
        Check(DragQueryFileW(drop, index, expected, SELECTED_PATH_CAPACITY) != 0);
        Check(path == expected);
    }
    GlobalFree(memory);
    return 0;
}
