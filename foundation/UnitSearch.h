// Finding one UTF-16 unit in a run of bytes and comparing runs of units, four units per step: the readers of
// long path lists (a selection of 100,000 files) would otherwise spend most of their time on units one by
// one, or in a C runtime's memcmp that compares byte by byte.
#pragma once

#include "platform/Win32.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

// The first unit equal to `unit` among the whole units in [at, end), or null. The units may start at any
// byte address: they are copied out, never dereferenced in place.
inline const BYTE* FindUnit(const BYTE* at, const BYTE* end, WCHAR unit) noexcept
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "units are tested in memory order");
    constexpr std::uint64_t kLowBits = 0x0001000100010001ull;
    constexpr std::uint64_t kHighBits = 0x8000800080008000ull;
    const std::uint64_t pattern = kLowBits * unit;
    while (end - at >= static_cast<std::ptrdiff_t>(sizeof(std::uint64_t)))
    {
        std::uint64_t word;
        std::memcpy(&word, at, sizeof(word));
        word ^= pattern;
        // A unit that matched is zero now and borrows into its top bit; the lowest flagged unit is the
        // first match (a borrow only flags units above it).
        const std::uint64_t matches = (word - kLowBits) & ~word & kHighBits;
        if (matches)
            return at + __builtin_ctzll(matches) / 16 * sizeof(WCHAR);
        at += sizeof(word);
    }
    for (; end - at >= static_cast<std::ptrdiff_t>(sizeof(WCHAR)); at += sizeof(WCHAR))
    {
        WCHAR found;
        std::memcpy(&found, at, sizeof(found));
        if (found == unit)
            return at;
    }
    return nullptr;
}

// Whether the `count` units at `a` and `b` are the same.
inline bool SameUnits(const WCHAR* a, const WCHAR* b, size_t count) noexcept
{
    for (; count >= 4; a += 4, b += 4, count -= 4)
    {
        std::uint64_t left, right;
        std::memcpy(&left, a, sizeof(left));
        std::memcpy(&right, b, sizeof(right));
        if (left != right)
            return false;
    }
    for (; count; ++a, ++b, --count)
        if (*a != *b)
            return false;
    return true;
}
