#include "foundation/UnitSearch.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{
// Units whose bytes, read one byte off their grid, give U+0000 and a backslash: a search that loses the
// grid finds them where none is. And units with the top bit set (surrogates, U+FFFF, U+805C): a word-wide
// test that forgets a unit's own top bit takes them for a match.
constexpr WCHAR kGridFiller[] = {0x5C41, 0x4100, 0x0041, 0x4100};
constexpr WCHAR kHighFiller[] = {0xFFFF, 0x805C, 0xD83D, 0x8000};

struct UnitRun
{
    std::vector<BYTE> bytes;
    const BYTE* at;
    const BYTE* end;
};

// `units` units of `filler` at byte offset `shift`, the unit at `match` (if any, and every later third unit)
// replaced by `unit`, then `extraBytes` bytes of a half unit that must not be read as one.
UnitRun MakeRun(const WCHAR* filler, size_t shift, size_t units, size_t match, WCHAR unit, size_t extraBytes)
{
    UnitRun run;
    run.bytes.assign(shift + units * 2 + extraBytes + 8, 0xEE);
    for (size_t i = 0; i < units; ++i)
    {
        const WCHAR value = i >= match && (i - match) % 3 == 0 ? unit : filler[i % 4];
        run.bytes[shift + 2 * i] = static_cast<BYTE>(value);
        run.bytes[shift + 2 * i + 1] = static_cast<BYTE>(value >> 8);
    }
    for (size_t i = 0; i < extraBytes; ++i)
        run.bytes[shift + units * 2 + i] = static_cast<BYTE>(unit);
    run.at = run.bytes.data() + shift;
    run.end = run.at + units * 2 + extraBytes;
    return run;
}
} // namespace

// Every length up to a few words, every place of the first match (and none), at even and odd addresses,
// with a trailing odd byte or not: the first match, as a unit-by-unit search finds it.
TEST(UnitSearch, FindsTheFirstWholeUnitAndCopiesWhatPrecedesIt)
{
    for (const WCHAR* filler : {kGridFiller, kHighFiller})
    {
        for (WCHAR unit : {WCHAR(0), WCHAR(TEXT('\\'))})
            for (size_t shift : {0u, 1u})
                for (size_t extra : {0u, 1u})
                    for (size_t units = 0; units <= 40; ++units)
                        for (size_t match = 0; match <= units; ++match)
                        {
                            const UnitRun run = MakeRun(filler, shift, units, match, unit, extra);
                            const BYTE* expected = match < units ? run.at + match * 2 : nullptr;
                            SCOPED_TRACE(testing::Message()
                                         << "filler " << filler[0] << " unit " << unit << " shift " << shift
                                         << " extra " << extra << " units " << units << " match " << match);
                            ASSERT_EQ(expected, FindUnit(run.at, run.end, unit));

                            for (size_t limit : {0u, 1u, 5u, 8u, 13u, 259u})
                            {
                                std::vector<WCHAR> out(limit + kCopyOverrunUnits + 4, 0x7777);
                                ASSERT_EQ(expected, CopyUntilUnit(run.at, run.end, unit, out.data(), limit));
                                const size_t kept = match < limit ? match : limit;
                                for (size_t i = 0; i < kept; ++i)
                                    ASSERT_EQ(filler[i % 4], out[i]) << i;
                                for (size_t i = limit + kCopyOverrunUnits; i < out.size(); ++i)
                                    ASSERT_EQ(0x7777, out[i]) << "written past the room at " << i;
                            }
                        }
    }
}

TEST(UnitSearch, SameUnitsFindsADifferenceAnywhere)
{
    std::vector<WCHAR> a(24), b;
    for (size_t i = 0; i < a.size(); ++i)
        a[i] = kGridFiller[i % 4];
    for (size_t count = 0; count <= 20; ++count)
    {
        b = a;
        EXPECT_TRUE(SameUnits(a.data() + 1, b.data() + 1, count)) << count;
        for (size_t differing = 0; differing < count + 2; ++differing)
        {
            b = a;
            b[1 + differing] ^= 0x0100;
            EXPECT_EQ(differing >= count, SameUnits(a.data() + 1, b.data() + 1, count))
                << count << " " << differing;
        }
    }
}
