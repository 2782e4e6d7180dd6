#include "foundation/BinMap.h"
#include "foundation/NodeList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
std::u16string Text(LPCWSTR s)
{
    return std::u16string(reinterpret_cast<const char16_t*>(s));
}

template <typename V> std::vector<std::u16string> KeysInOrder(const BinMap<V>& map)
{
    std::vector<std::u16string> keys;
    WideString key;
    V value;
    for (POSITION p = map.GetStartPosition(); p;)
    {
        map.GetNextAssoc(p, key, value);
        keys.push_back(Text(key));
    }
    return keys;
}

WideString Numbered(int i)
{
    WideString s;
    s.Format(TEXT("x:\\folder%d"), i);
    return s;
}
} // namespace

TEST(NodeList, KeepsInsertionOrderAndHeadInsertions)
{
    NodeList<WideString> list;
    list.AddTail(TEXT("b"));
    list.AddTail(TEXT("c"));
    list.AddHead(TEXT("a"));
    std::vector<std::u16string> seen;
    for (POSITION p = list.GetHeadPosition(); p;)
        seen.push_back(Text(list.GetNext(p)));
    EXPECT_EQ(seen, (std::vector<std::u16string>{u"a", u"b", u"c"}));
    EXPECT_EQ(list.GetCount(), 3u);
    list.RemoveAll();
    EXPECT_EQ(list.GetCount(), 0u);
    EXPECT_EQ(list.GetHeadPosition(), nullptr);
    list.AddTail(TEXT("again"));
    EXPECT_EQ(Text(list.GetHead()), u"again");
}

TEST(NodeList, ManyValuesAcrossBlocksReleaseTheirStrings)
{
    WideString shared(TEXT("shared text"));
    {
        NodeList<WideString> list;
        for (int i = 0; i < 1001; ++i)
            list.AddTail(shared);
        EXPECT_EQ(shared.GetShareCount(), 1002);
        size_t walked = 0;
        for (POSITION p = list.GetHeadPosition(); p; list.GetNext(p))
            ++walked;
        EXPECT_EQ(walked, 1001u);
        list.RemoveAll();
        EXPECT_EQ(shared.GetShareCount(), 1);
        list.AddTail(shared);
    }
    EXPECT_EQ(shared.GetShareCount(), 1) << "destruction releases what is left";
}

TEST(BinMap, HashesAsTheServiceExpects)
{
    EXPECT_EQ(HashKey(TEXT("")), 0u);
    EXPECT_EQ(HashKey(TEXT("x:")), 4018u);
    EXPECT_EQ(HashKey(TEXT("x:\\")), 132686u);
}

TEST(BinMap, ThresholdsAndGrowthTable)
{
    struct Row
    {
        UINT bins;
        size_t high, low;
    } rows[] = {{17, 38, 0}, {53, 119, 0}, {163, 366, 40}, {521, 1172, 130}, {1627, 3660, 406}};
    size_t wanted = 12;
    for (const Row& r : rows)
    {
        EXPECT_EQ(BinMapHighThreshold(r.bins), r.high) << r.bins;
        EXPECT_EQ(BinMapLowThreshold(r.bins), r.low) << r.bins;
        EXPECT_EQ(BinMapNextBinCount(wanted), r.bins) << wanted;
        wanted = r.high + 1;
    }
    EXPECT_EQ(BinMapNextBinCount(20000000), 26666666u) << "past the table, the wanted count itself";
    EXPECT_EQ(g_binMapPrimes[60], 0xFFFFFFFFu);
    EXPECT_EQ(g_binMapPrimes[59], 13316089u);
}

TEST(BinMap, GrowsAtElements39_120_367_1173)
{
    BinMap<int> map;
    EXPECT_EQ(map.GetHashTableSize(), 17u);
    struct Step
    {
        int elements;
        UINT binsBefore, binsAfter;
    } steps[] = {{39, 17, 53}, {120, 53, 163}, {367, 163, 521}, {1173, 521, 1627}};
    int inserted = 0;
    for (const Step& step : steps)
    {
        while (inserted < step.elements - 1)
            map.SetAt(Numbered(inserted), inserted), ++inserted;
        EXPECT_EQ(map.GetHashTableSize(), step.binsBefore) << step.elements;
        map.SetAt(Numbered(0), 42); // replacing a value never grows
        EXPECT_EQ(map.GetHashTableSize(), step.binsBefore);
        map.SetAt(Numbered(inserted), inserted), ++inserted;
        EXPECT_EQ(map.GetHashTableSize(), step.binsAfter) << step.elements;
    }
    int value = 0;
    for (int i = 1; i < inserted; ++i)
        ASSERT_TRUE(map.Lookup(Numbered(i), value) && value == i) << i;
    ASSERT_TRUE(map.Lookup(Numbered(0), value));
    EXPECT_EQ(value, 42);
    EXPECT_EQ(map.GetCount(), static_cast<size_t>(inserted));
}

TEST(BinMap, IteratesBinsAscendingNewestFirstInAChain)
{
    // "b" (98) and "s" (115) share bin 13 of 17; "a" is bin 12; "x:" bin 6; "x:\" bin 1.
    BinMap<int> map;
    map.SetAt(WideString(TEXT("b")), 1);
    map.SetAt(WideString(TEXT("x:")), 2);
    map.SetAt(WideString(TEXT("s")), 3);
    map.SetAt(WideString(TEXT("a")), 4);
    map.SetAt(WideString(TEXT("x:\\")), 5);
    EXPECT_EQ(KeysInOrder(map), (std::vector<std::u16string>{u"x:\\", u"x:", u"a", u"s", u"b"}));
}

TEST(BinMap, HashEqualKeysAreDistinctAndGrowthReversesTheirChain)
{
    // Keys with equal hashes stay in one chain at every size, so only the rehash can reorder them.
    // "Ab" and "BA": 65*33+98 = 2243, 66*33+65 = 2243.
    BinMap<int> map;
    map.SetAt(WideString(TEXT("Ab")), 1);
    map.SetAt(WideString(TEXT("BA")), 2);
    int value = 0;
    EXPECT_TRUE(map.Lookup(TEXT("Ab"), value));
    EXPECT_EQ(value, 1);
    EXPECT_TRUE(map.Lookup(TEXT("BA"), value));
    EXPECT_EQ(value, 2);
    EXPECT_FALSE(map.Lookup(TEXT("ab"), value)) << "keys compare exactly";
    EXPECT_EQ(KeysInOrder(map), (std::vector<std::u16string>{u"BA", u"Ab"}));
    for (int i = 0; map.GetHashTableSize() == 17; ++i)
        map.SetAt(Numbered(i), i);
    std::vector<std::u16string> pair;
    for (const auto& k : KeysInOrder(map))
        if (k == u"Ab" || k == u"BA")
            pair.push_back(k);
    EXPECT_EQ(pair, (std::vector<std::u16string>{u"Ab", u"BA"}));
}

TEST(BinMap, EmptyMapsIterateNothingRejectNullKeysAndReleaseTheirKeys)
{
    BinMap<int> never;
    EXPECT_EQ(never.GetStartPosition(), nullptr);
    int value = 7;
    EXPECT_FALSE(never.Lookup(TEXT("x:"), value));
    EXPECT_THROW(never.Lookup(nullptr, value), CAtlException);

    // A key is shared, not copied, and RemoveAll gives it back.
    WideString key(TEXT("x:\\photos"));
    BinMap<int> emptied;
    emptied.SetAt(key, 1);
    EXPECT_EQ(key.GetShareCount(), 2);
    emptied.RemoveAll();
    EXPECT_EQ(key.GetShareCount(), 1);
    EXPECT_EQ(emptied.GetStartPosition(), nullptr);
    EXPECT_EQ(emptied.GetCount(), 0u);
    emptied.SetAt(WideString(TEXT("y:")), 2);
    EXPECT_EQ(KeysInOrder(emptied), (std::vector<std::u16string>{u"y:"}));
}
