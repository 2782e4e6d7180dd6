// Finding one UTF-16 unit in a run of bytes and comparing runs of units, four or eight units per step: the
// long path lists (a selection of 100,000 files) would otherwise spend most of their time on units one by
// one, or in a C runtime's memcmp that compares byte by byte.
#pragma once

#include "platform/Win32.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

// How many units beyond its limit CopyUntilUnit may overwrite: it stores whole words or vectors of units.
constexpr size_t kCopyOverrunUnits = 7;

namespace UnitSearchDetail
{
constexpr std::uint64_t kLowBits = 0x0001000100010001ull;
constexpr std::uint64_t kHighBits = 0x8000800080008000ull;

inline std::uint64_t LoadWord(const BYTE* at) noexcept
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "units are tested in memory order");
    std::uint64_t word;
    std::memcpy(&word, at, sizeof(word));
    return word;
}

// One flag per unit of `word` that equals the unit spread over `pattern`. A unit that matched is zero after
// the exclusive or and borrows into its top bit; the lowest flag is the first match (a borrow only flags
// units above a match).
inline std::uint64_t Matches(std::uint64_t word, std::uint64_t pattern) noexcept
{
    word ^= pattern;
    return (word - kLowBits) & ~word & kHighBits;
}

inline const BYTE* FirstMatch(const BYTE* at, std::uint64_t matches) noexcept
{
    return at + __builtin_ctzll(matches) / 16 * sizeof(WCHAR);
}

#ifdef __SSE2__
// Eight units per step where every x64 processor can: one bit per byte of the units equal to `target`, so
// the lowest bit is the first match's byte offset.
constexpr std::ptrdiff_t kVectorBytes = sizeof(__m128i);

inline unsigned VectorMatches(__m128i units, __m128i target) noexcept
{
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(units, target)));
}

inline __m128i LoadVector(const BYTE* at) noexcept
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}
#endif
} // namespace UnitSearchDetail

// The first unit equal to `unit` among the whole units in [at, end), or null. The units may start at any
// byte address: they are copied out, never dereferenced in place.
inline const BYTE* FindUnit(const BYTE* at, const BYTE* end, WCHAR unit) noexcept
{
    using namespace UnitSearchDetail;
    const std::uint64_t pattern = kLowBits * unit;
    const std::ptrdiff_t wholeBytes = (end - at) & ~static_cast<std::ptrdiff_t>(1);
    if (wholeBytes < static_cast<std::ptrdiff_t>(sizeof(std::uint64_t)))
    {
        for (const BYTE* stop = at + wholeBytes; at < stop; at += sizeof(WCHAR))
            if (static_cast<WCHAR>(at[0] | at[1] << 8) == unit)
                return at;
        return nullptr;
    }
    // The last word (or vector) ends at the last whole unit and may overlap the one before: the units tested
    // twice did not match the first time, so the lowest flag is still the first match.
#ifdef __SSE2__
    if (wholeBytes >= kVectorBytes)
    {
        const __m128i target = _mm_set1_epi16(static_cast<short>(unit));
        const BYTE* lastVector = at + wholeBytes - kVectorBytes;
        for (; at < lastVector; at += kVectorBytes)
            if (const unsigned matches = VectorMatches(LoadVector(at), target))
                return at + __builtin_ctz(matches);
        const unsigned matches = VectorMatches(LoadVector(lastVector), target);
        return matches ? lastVector + __builtin_ctz(matches) : nullptr;
    }
#endif
    const BYTE* last = at + wholeBytes - sizeof(std::uint64_t);
    for (; at < last; at += sizeof(std::uint64_t))
        if (const std::uint64_t matches = Matches(LoadWord(at), pattern))
            return FirstMatch(at, matches);
    const std::uint64_t matches = Matches(LoadWord(last), pattern);
    return matches ? FirstMatch(last, matches) : nullptr;
}

// As FindUnit, copying the units before the match to `out` on the way, several at a time: the first `limit`
// of them are kept, and up to kCopyOverrunUnits beyond those are overwritten, so `out` needs room for that.
inline const BYTE* CopyUntilUnit(const BYTE* at, const BYTE* end, WCHAR unit, WCHAR* out,
                                 size_t limit) noexcept
{
    using namespace UnitSearchDetail;
    size_t copied = 0;
#ifdef __SSE2__
    const __m128i target = _mm_set1_epi16(static_cast<short>(unit));
    for (; end - at >= kVectorBytes; at += kVectorBytes)
    {
        const __m128i units = LoadVector(at);
        if (copied < limit)
        {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + copied), units);
            copied += sizeof(units) / sizeof(WCHAR);
        }
        if (const unsigned matches = VectorMatches(units, target))
            return at + __builtin_ctz(matches);
    }
#endif
    const std::uint64_t pattern = kLowBits * unit;
    for (; end - at >= static_cast<std::ptrdiff_t>(sizeof(std::uint64_t)); at += sizeof(std::uint64_t))
    {
        const std::uint64_t word = LoadWord(at);
        if (copied < limit)
        {
            std::memcpy(out + copied, &word, sizeof(word));
            copied += sizeof(word) / sizeof(WCHAR);
        }
        if (const std::uint64_t matches = Matches(word, pattern))
            return FirstMatch(at, matches);
    }
    for (; end - at >= static_cast<std::ptrdiff_t>(sizeof(WCHAR)); at += sizeof(WCHAR))
    {
        const WCHAR found = static_cast<WCHAR>(at[0] | at[1] << 8);
        if (found == unit)
            return at;
        if (copied < limit)
            out[copied++] = found;
    }
    return nullptr;
}

// Whether the `count` units at `a` and `b` are the same.
inline bool SameUnits(const WCHAR* a, const WCHAR* b, size_t count) noexcept
{
    using UnitSearchDetail::LoadWord;
    constexpr size_t kWordUnits = sizeof(std::uint64_t) / sizeof(WCHAR);
    if (count < kWordUnits)
    {
        for (; count; ++a, ++b, --count)
            if (*a != *b)
                return false;
        return true;
    }
    const BYTE* left = reinterpret_cast<const BYTE*>(a);
    const BYTE* right = reinterpret_cast<const BYTE*>(b);
    // The last word ends with the last unit and may overlap the one before.
    const size_t lastByte = (count - kWordUnits) * sizeof(WCHAR);
    for (size_t byte = 0; byte < lastByte; byte += sizeof(std::uint64_t))
        if (LoadWord(left + byte) != LoadWord(right + byte))
            return false;
    return LoadWord(left + lastByte) == LoadWord(right + lastByte);
}
