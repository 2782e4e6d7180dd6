#include "foundation/Hresult.h"
#include "foundation/WideString.h"

#include <gtest/gtest.h>

#ifndef _WIN32
#include "platform/host/ControlMemory.h"
#endif

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{
std::u16string Text(const WideString& s)
{
    return std::u16string(reinterpret_cast<const char16_t*>(s.GetString()), s.GetLength());
}

template <typename F> HRESULT RaisedBy(F&& f)
{
    try
    {
        f();
    }
    catch (const CAtlException& e)
    {
        return e.m_hr;
    }
    return S_OK;
}
} // namespace

TEST(Hresult, Win32NumbersMapIntoFacility7)
{
    EXPECT_EQ(HresultFromWin32(0), S_OK);
    EXPECT_EQ(HresultFromWin32(-5), -5);
    EXPECT_EQ(static_cast<DWORD>(HresultFromWin32(5)), 0x80070005u);
    EXPECT_EQ(static_cast<DWORD>(HresultFromWin32(534)), 0x80070216u);
    EXPECT_EQ(static_cast<DWORD>(HresultFromWin32(0x12345)), 0x80072345u);
    SetLastError(ERROR_BROKEN_PIPE);
    EXPECT_EQ(static_cast<DWORD>(HresultFromLastError()), 0x8007006Du);
}

TEST(WideString, CopiesShareAndWritesArePrivate)
{
    WideString original(TEXT("C:\\Data\\File.TXT"));
    WideString copy = original;
    EXPECT_EQ(original.GetString(), copy.GetString()) << "a copy shares the text";
    EXPECT_EQ(original.GetShareCount(), 2);

    copy.MakeLower();
    EXPECT_EQ(original, TEXT("C:\\Data\\File.TXT"));
    EXPECT_EQ(copy, TEXT("c:\\data\\file.txt"));
    EXPECT_EQ(original.GetShareCount(), 1);

    WideString appended = original;
    appended.Append(WideString(TEXT("!")));
    EXPECT_EQ(original, TEXT("C:\\Data\\File.TXT"));
    EXPECT_EQ(appended, TEXT("C:\\Data\\File.TXT!"));
}

TEST(WideString, EmptyStringsShareOneTextAndAllocateNothing)
{
    WideString a, b(TEXT("")), c(static_cast<LPCWSTR>(nullptr));
    EXPECT_EQ(a.GetString(), b.GetString());
    EXPECT_EQ(a.GetString(), c.GetString());
    EXPECT_EQ(a.GetShareCount(), 0);
    EXPECT_EQ(a.GetLength(), 0);
    EXPECT_EQ(a.GetString()[0], 0);
    WideString d(TEXT("x"));
    d.SetText(TEXT("ignored"), 0);
    EXPECT_EQ(d.GetString(), a.GetString()) << "a length of 0 empties, whatever the text";
    WideString e(TEXT("abc"));
    e.Format(TEXT(""));
    EXPECT_EQ(e.GetString(), a.GetString()) << "a format that writes nothing empties";
    // Neither may write the one text all empty strings share.
    a.MakeLower();
    a.ReleaseBuffer(5);
    EXPECT_EQ(a.GetLength(), 0);
    EXPECT_EQ(b.GetLength(), 0);
    EXPECT_EQ(b.GetString(), a.GetString());
}

TEST(WideString, ComparisonIsExactAndMakeLowerChangesOnlyAsciiCapitals)
{
    EXPECT_TRUE(WideString(TEXT("Key")) == TEXT("Key"));
    EXPECT_TRUE(WideString(TEXT("Key")) != TEXT("key"));
    EXPECT_TRUE(WideString(TEXT("Ke")) != WideString(TEXT("Key")));
    WideString s(TEXT("ÄBC-Z@[`{Ω"));
    s.MakeLower();
    EXPECT_EQ(s, TEXT("Äbc-z@[`{Ω"));
}

TEST(WideString, SetTextAndAppendFromItsOwnContent)
{
    WideString s(TEXT("0123456789"));
    s.SetText(s.GetString() + 3, 4);
    EXPECT_EQ(s, TEXT("3456"));

    WideString shared(TEXT("abcdefgh"));
    WideString other = shared;
    shared.SetText(shared.GetString() + 2, 3);
    EXPECT_EQ(shared, TEXT("cde"));
    EXPECT_EQ(other, TEXT("abcdefgh"));

    WideString whole(TEXT("same"));
    whole.SetText(whole.GetString(), whole.GetLength());
    EXPECT_EQ(whole, TEXT("same"));

    WideString twice(TEXT("ab"));
    twice.Append(twice);
    EXPECT_EQ(twice, TEXT("abab"));
    twice.Append(twice.GetString() + 1, 2);
    EXPECT_EQ(twice, TEXT("ababba"));
}

TEST(WideString, BadArgumentsAndImpossibleLengthsRaise)
{
    WideString s(TEXT("abc"));
    EXPECT_EQ(RaisedBy([&] { s.SetText(TEXT("x"), -1); }), E_INVALIDARG);
    EXPECT_EQ(RaisedBy([&] { s.SetText(nullptr, 2); }), E_INVALIDARG);
    EXPECT_EQ(RaisedBy([&] { s.Format(nullptr); }), E_INVALIDARG);
    EXPECT_EQ(RaisedBy([&] { s.Format(TEXT("%q")); }), E_FAIL);
    int position = -1;
    EXPECT_EQ(RaisedBy([&] { s.Tokenize(TEXT("|"), position); }), E_INVALIDARG);
    EXPECT_EQ(RaisedBy([&] { CompareText(nullptr, TEXT("a")); }), E_FAIL);
    // A range past 2^31 - 1 is an arithmetic overflow; one that ends exactly there is no error.
    EXPECT_EQ(static_cast<DWORD>(RaisedBy([&] { s.Mid(1, 0x7FFFFFFF); })), 0x80070216u);
    EXPECT_EQ(RaisedBy([&] { s.Mid(0, 0x7FFFFFFF); }), S_OK);
    EXPECT_EQ(static_cast<DWORD>(RaisedBy([&] { s.Mid(0x7FFFFFFF, 1); })), 0x80070216u);
    WideString empty;
    EXPECT_EQ(RaisedBy([&] { empty.GetBuffer(0x7FFFFFF0); }), E_OUTOFMEMORY);
    EXPECT_EQ(RaisedBy([&] { s.Append(TEXT("x"), 0x7FFFFFFE); }), E_INVALIDARG)
        << "sum of lengths past 0x7FFFFFFF";
    EXPECT_EQ(RaisedBy([&] { s.Append(TEXT("x"), -1); }), E_INVALIDARG);
    EXPECT_EQ(RaisedBy([&] { s.ReleaseBuffer(s.GetCapacity() + 1); }), E_INVALIDARG) << "beyond the buffer";
    WideString::Batch batch;
    EXPECT_EQ(RaisedBy([&] { batch.Reserve(0x3FFFFFFE); }), E_OUTOFMEMORY) << "no room for the slack";
    EXPECT_EQ(s, TEXT("abc")) << "a failed operation leaves the text";
}

TEST(WideString, LeftAndMidBounds)
{
    const WideString s(TEXT("abc"));
    struct Case
    {
        int start, count;
        const char16_t* expected;
    } cases[] = {
        {0, 3, u"abc"}, {1, 1, u"b"}, {3, 0, u""}, {2, 5, u"c"}, {4, 1, u""}, {-2, 2, u"ab"}, {1, -4, u""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Text(s.Mid(c.start, c.count)), c.expected) << c.start << "," << c.count;
    EXPECT_EQ(Text(s.Mid(4)), u"");
    EXPECT_EQ(Text(s.Mid(1)), u"bc");
    EXPECT_EQ(Text(s.Mid(-7)), u"abc");
    EXPECT_EQ(s.Mid(0).GetString(), s.GetString()) << "the whole range shares";

    EXPECT_EQ(Text(s.Left(0)), u"");
    EXPECT_EQ(Text(s.Left(-1)), u"");
    EXPECT_EQ(Text(s.Left(2)), u"ab");
    EXPECT_EQ(s.Left(3).GetString(), s.GetString());
    EXPECT_EQ(s.Left(99).GetString(), s.GetString());
}

TEST(WideString, TokenizeSkipsDelimiterRunsAndEndsWithEmpty)
{
    struct Case
    {
        const char16_t* text;
        const WCHAR* delimiters;
        std::vector<std::u16string> tokens;
        std::vector<int> positions; // after each token: one past the delimiter that ended it
    } cases[] = {
        {u"K=abc|RM=X:\\|DA=1", TEXT("|"), {u"K=abc", u"RM=X:\\", u"DA=1"}, {6, 13, 18}},
        {u"||a||b|", TEXT("|"), {u"a", u"b"}, {4, 7}},
        {u"|||", TEXT("|"), {}, {}},
        {u"", TEXT("|"), {}, {}},
        {u"single", TEXT("|"), {u"single"}, {7}},
        {u"a,b;c", TEXT(",;"), {u"a", u"b", u"c"}, {2, 4, 6}},
    };
    for (const Case& c : cases)
    {
        WideString s(reinterpret_cast<LPCWSTR>(c.text));
        int position = 0;
        std::vector<std::u16string> tokens;
        std::vector<int> positions;
        for (WideString token = s.Tokenize(c.delimiters, position); !token.IsEmpty();
             token = s.Tokenize(c.delimiters, position))
        {
            tokens.push_back(Text(token));
            positions.push_back(position);
        }
        EXPECT_EQ(tokens, c.tokens);
        EXPECT_EQ(positions, c.positions);
        EXPECT_EQ(position, -1);
    }
}

TEST(WideString, FormatsTheSystemsPatterns)
{
    WideString s;
    s.Format(TEXT("%s\\.Velmount"), TEXT("x:\\photos"));
    EXPECT_EQ(s, TEXT("x:\\photos\\.Velmount"));
    s.Format(TEXT("\\\\.\\pipe\\QX-%s"), TEXT("VM01"));
    EXPECT_EQ(s, TEXT("\\\\.\\pipe\\QX-VM01"));
    s.Format(TEXT("Are you sure you want to remove these %d items?"), 2);
    EXPECT_EQ(s, TEXT("Are you sure you want to remove these 2 items?"));
    s.Format(TEXT("%d %d %u%%"), -2147483647 - 1, 0, 4294967295u);
    EXPECT_EQ(s, TEXT("-2147483648 0 4294967295%"));
    s.Format(TEXT("%x %x %x|%s"), 0xABCDEF09u, 0u, 0xFFFFFFFFu, static_cast<LPCWSTR>(nullptr));
    EXPECT_EQ(s, TEXT("abcdef09 0 ffffffff|(null)"));
    WideString self(TEXT("ab"));
    self.Format(TEXT("%s-%s"), self.GetString(), self.GetString());
    EXPECT_EQ(self, TEXT("ab-ab"));
}

TEST(WideString, GrowsByHalfItsCapacity)
{
    WideString s(TEXT("0123456789"));
    EXPECT_EQ(s.GetCapacity(), 10);
    s.Append(TEXT("a"));
    EXPECT_EQ(s.GetCapacity(), 15);
    s.Append(TEXT("0123456789012345678901234567890"));
    EXPECT_EQ(s.GetCapacity(), 42) << "one write needing more than half gets what it needs";
    EXPECT_EQ(s.GetLength(), 42);
}

TEST(WideString, BufferWritingSetsLength)
{
    WideString s(TEXT("keep"));
    WideString copy = s;
    WCHAR* buffer = s.GetBuffer(260);
    buffer[0] = u'C';
    buffer[1] = u':';
    buffer[2] = 0;
    s.ReleaseBuffer();
    EXPECT_EQ(s, TEXT("C:"));
    EXPECT_EQ(copy, TEXT("keep"));
}

namespace
{
// A text written in place, as the selection reader writes each name.
WideString Written(WideString::Batch& batch, const std::u16string& text)
{
    const int length = static_cast<int>(text.size());
    std::memcpy(batch.Reserve(length), text.data(), text.size() * sizeof(char16_t));
    return batch.Commit(length);
}

void CheckBatchStrings()
{
    std::vector<std::u16string> texts;
    for (int length : {1, 7, 259, 40000, 0, 3, 1000, 70000, 12})
        for (int copy = 0; copy < 300; ++copy)
            texts.push_back(
                std::u16string(static_cast<size_t>(length), static_cast<char16_t>(u'A' + copy % 26)));
    std::vector<WideString> made;
    {
        WideString::Batch batch;
        for (const std::u16string& text : texts)
            made.push_back(Written(batch, text));
        EXPECT_EQ(HRESULT(E_INVALIDARG), RaisedBy([&] { batch.Reserve(-1); }));
        // Room reserved and not taken, in a block or on its own, goes with the batch (ASan: no leak).
        batch.Reserve(70000)[69999] = u'x';
        EXPECT_TRUE(batch.Commit(0).IsEmpty());
        batch.Reserve(70000);
    }
    for (size_t i = 0; i < made.size(); ++i)
    {
        ASSERT_EQ(texts[i], Text(made[i])) << i;
        ASSERT_EQ(made[i].IsEmpty() ? 0 : 1, made[i].GetShareCount()) << i;
    }
    // A shared copy is lowered privately; the sole owner writes in place or moves out when it grows.
    WideString copy = made[1];
    copy.MakeLower();
    EXPECT_EQ(texts[1], Text(made[1]));
    made[2].GetBuffer(1)[0] = u'z';
    made[3].Append(TEXT("tail"));
    EXPECT_EQ(u'z', made[2][0]);
    EXPECT_EQ(texts[3] + u"tail", Text(made[3]));
    // Released from the middle out, every second one first.
    for (size_t step : {2u, 1u})
        for (size_t i = made.size() / 2; i < made.size(); i += step)
        {
            made[i].Empty();
            made[made.size() - 1 - i].Empty();
        }
    EXPECT_EQ(texts[1].size(), static_cast<size_t>(copy.GetLength()));
}
} // namespace

// Texts of a batch share blocks, yet each string must behave as if it had its own: read back exactly, written
// privately, outliving the batch, and its block freed only with the last of them, in any order (ASan in
// host-asan reports a block freed early or never).
// The second round gets the largest blocks the first gave back.
TEST(WideString, BatchStringsAreOrdinaryStrings)
{
    for (int round = 0; round < 2; ++round)
        CheckBatchStrings();
}

// A reader may write kReserveSlack units beyond the longest text it reserved for. Filled with texts of every
// length, a batch meets every room a block can have left (and the step to a new block); each reservation then
// gets its maximum and the whole slack written, the way the selection reader writes a long name. Past a
// block's end that is a write AddressSanitizer (host-asan) reports; everywhere the texts must read back
// whole.
TEST(WideString, BatchReservationsHoldTheirSlackAtEveryRoomLeft)
{
    constexpr int kLongest = 259;
    const int written = kLongest + WideString::Batch::kReserveSlack;
    for (int fillers = 0; fillers <= 12; ++fillers)
        for (int extra = 0; extra <= kLongest; ++extra)
        {
            WideString::Batch batch;
            std::vector<WideString> made;
            for (int i = 0; i < fillers; ++i)
                made.push_back(Written(batch, std::u16string(kLongest, u'f')));
            made.push_back(Written(batch, std::u16string(static_cast<size_t>(extra), u'e')));
            for (int round = 0; round < 2; ++round)
            {
                WCHAR* room = batch.Reserve(kLongest);
                for (int i = 0; i < written; ++i)
                    room[i] = static_cast<WCHAR>(u'a' + i % 26);
                made.push_back(batch.Commit(kLongest));
            }
            for (size_t i = made.size() - 2; i < made.size(); ++i)
            {
                ASSERT_EQ(kLongest, made[i].GetLength()) << fillers << " " << extra;
                ASSERT_EQ(u'a' + (kLongest - 1) % 26, made[i][kLongest - 1]) << fillers << " " << extra;
            }
            ASSERT_EQ(std::u16string(static_cast<size_t>(extra), u'e'),
                      Text(made[static_cast<size_t>(fillers)]))
                << fillers << " " << extra << ": a text overwritten by the next one's slack";
        }
}

// Copies of one text go to two threads that write and release them at once: whichever writes while the other
// still holds the text must take a private buffer, and whichever writes after the other let go may write in
// place, which is safe only if the other's reads happened before its release. Under ThreadSanitizer
// (host-tsan) this looks for data races in the share count and the buffers; everywhere it checks that no text
// changed under its other holder.
TEST(WideString, CopiesAreWrittenAndReleasedOnOtherThreads)
{
    const int COUNT = 2000;
    const std::u16string original = u"Shared Path Of Item ";
    std::vector<WideString> lowered, appended;
    // Every second text from a batch, which gives up its block while the threads release texts of it.
    auto batch = std::make_unique<WideString::Batch>();
    for (int i = 0; i < COUNT; ++i)
    {
        WideString text = i % 2 ? WideString(TEXT("Shared Path Of Item ")) : Written(*batch, original);
        lowered.push_back(text);
        appended.push_back(text);
    }
    std::atomic<int> ready{0};
    std::atomic<int> mismatches{0};
    auto start = [&ready]
    {
        ++ready;
        while (ready.load() < 3)
            std::this_thread::yield();
    };
    std::thread lowering(
        [&]
        {
            start();
            for (WideString& text : lowered)
            {
                mismatches += Text(text) != original;
                text.MakeLower();
            }
        });
    std::thread appending(
        [&]
        {
            start();
            for (int i = 0; i < COUNT; ++i)
            {
                mismatches += Text(appended[i]) != original;
                if (i % 2)
                    appended[i].Append(TEXT("2"));
                else
                    appended[i].Empty(); // the other thread may now write in place
            }
        });
    start();
    batch.reset();
    lowering.join();
    appending.join();
    EXPECT_EQ(0, mismatches.load());
    for (int i = 0; i < COUNT; ++i)
    {
        EXPECT_EQ(u"shared path of item ", Text(lowered[i])) << i;
        EXPECT_EQ(i % 2 ? original + u"2" : u"", Text(appended[i])) << i;
        EXPECT_EQ(1, lowered[i].GetShareCount()) << i;
    }
}

// Host only: the count of live heap blocks is the stand-in's; Windows' heap reports none that exact.
#ifndef _WIN32
namespace
{
// A selection of `count` paths of 40 units, as the reader makes them.
std::vector<WideString> Selection(int count)
{
    const std::u16string path(40, u'p');
    std::vector<WideString> made;
    made.reserve(static_cast<size_t>(count));
    WideString::Batch batch;
    for (int i = 0; i < count; ++i)
        made.push_back(Written(batch, path));
    return made;
}
} // namespace

// What the blocks of finished selections cost while the library is in use: never more than the ten kept
// blocks, whatever the selection's size, and the kept ones serve the next selection instead of new ones. Then
// everything goes back on request, also after a small selection that followed a large one.
TEST(WideString, SpareBlocksAreBoundedReusedAndFreedOnRequest)
{
    const LONG KEPT_AT_MOST = 10; // one of each smaller size, four of the largest
    WideString::Batch::FreeSpareBlocks();
    const LONG before = VmHostLiveHeapBlocks();
    for (std::vector<int> sizes : {std::vector<int>{1}, {1000}, {100000}, {100000, 1}, {1, 100000, 1000}})
    {
        for (int count : sizes)
        {
            LONG held = 0;
            {
                std::vector<WideString> selection = Selection(count);
                held = VmHostLiveHeapBlocks() - before;
            }
            const LONG kept = VmHostLiveHeapBlocks() - before;
            EXPECT_GE(kept, 1) << count << " texts: their blocks are kept for the next selection";
            EXPECT_LE(kept, KEPT_AT_MOST) << count;
            if (held <= KEPT_AT_MOST)
            {
                std::vector<WideString> again = Selection(count);
                EXPECT_EQ(held, VmHostLiveHeapBlocks() - before)
                    << count << " texts: made in the kept blocks";
            }
        }
        WideString::Batch::FreeSpareBlocks();
        EXPECT_EQ(before, VmHostLiveHeapBlocks())
            << "after " << sizes.size() << " selections, the last of " << sizes.back() << " texts";
    }
}
#endif
