// Drives WideString with a byte program over four slots and checks every result against a plain
// std::u16string model: sharing, copy-on-write, self-referencing writes and the bounds rules.
#include "foundation/WideString.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace
{
struct Reader
{
    const uint8_t* data;
    size_t size;
    size_t at = 0;
    bool More() const { return at < size; }
    uint8_t Byte() { return at < size ? data[at++] : 0; }
    int Small() { return static_cast<int>(Byte() % 24) - 4; } // -4..19, around the lengths in play
};

// Self-Append and Format double a string per step: without a ceiling a few hundred bytes of program ask for
// gigabytes. Writes that would pass it are skipped, which keeps every path reachable at small sizes.
constexpr size_t kLengthCeiling = 512;

std::u16string Model(const WideString& s)
{
    return std::u16string(reinterpret_cast<const char16_t*>(s.GetString()), s.GetLength());
}

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

std::u16string ModelMid(const std::u16string& s, int start, int count)
{
    if (start < 0)
        start = 0;
    if (count < 0)
        count = 0;
    int length = static_cast<int>(s.size());
    if (start > length)
        return u"";
    if (start + count > length)
        count = length - start;
    return s.substr(start, count);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const WCHAR kAlphabet[] = TEXT("aB|\\:x.Z\n=%");
    WideString slots[4];
    std::u16string model[4];
    Reader in{data, size};
    while (in.More())
    {
        uint8_t op = in.Byte();
        int a = in.Byte() % 4, b = in.Byte() % 4;
        switch (op % 10)
        {
        case 0:
        { // SetText from generated text
            WCHAR text[20];
            int n = in.Byte() % 20;
            for (int i = 0; i < n; ++i)
                text[i] = kAlphabet[in.Byte() % 11];
            slots[a].SetText(text, n);
            model[a] = std::u16string(reinterpret_cast<const char16_t*>(text), n);
            break;
        }
        case 1:
        { // SetText from a slice of its own text
            int start = in.Byte() % (model[a].size() + 1);
            int n = in.Byte() % (model[a].size() - start + 1);
            slots[a].SetText(slots[a].GetString() + start, n);
            model[a] = model[a].substr(start, n);
            break;
        }
        case 2:
            slots[a] = slots[b];
            model[a] = model[b];
            break;
        case 3:
            if (model[a].size() + model[b].size() > kLengthCeiling)
                break;
            slots[a].Append(slots[b]);
            model[a] += model[b];
            break;
        case 4:
            slots[a].MakeLower();
            for (auto& c : model[a])
                if (c >= u'A' && c <= u'Z')
                    c = static_cast<char16_t>(c + 32);
            break;
        case 5:
        {
            int start = in.Small(), count = in.Small();
            slots[a] = slots[b].Mid(start, count);
            model[a] = ModelMid(model[b], start, count);
            break;
        }
        case 6:
        {
            int count = in.Small();
            slots[a] = slots[b].Left(count);
            model[a] = model[b].substr(0, count < 0 ? 0 : count);
            break;
        }
        case 7:
        { // a full Tokenize loop must find exactly the non-empty pieces
            std::u16string joined;
            int position = 0;
            for (WideString t = slots[a].Tokenize(TEXT("|\n"), position); !t.IsEmpty();
                 t = slots[a].Tokenize(TEXT("|\n"), position))
            {
                Check(t.GetLength() > 0);
                joined += Model(t) + u"/";
            }
            Check(position == -1);
            std::u16string expected, piece;
            for (char16_t c : model[a] + u"|")
                if (c == u'|' || c == u'\n')
                {
                    if (!piece.empty())
                        expected += piece + u"/";
                    piece.clear();
                }
                else
                    piece += c;
            Check(joined == expected);
            break;
        }
        case 8:
        {
            if (model[b].size() + 12 > kLengthCeiling)
                break;
            int length = static_cast<int>(model[b].size());
            slots[a].Format(TEXT("%s-%d"), slots[b].GetString(), length);
            std::string digits = std::to_string(length);
            model[a] = model[b] + u"-" + std::u16string(digits.begin(), digits.end());
            break;
        }
        case 9:
        {
            WideString copy = slots[a];
            copy.Append(TEXT("!"));
            Check(Model(slots[a]) == model[a]); // the copy's write stays private
            break;
        }
        }
        for (int i = 0; i < 4; ++i)
        {
            Check(Model(slots[i]) == model[i]);
            Check(slots[i].GetString()[slots[i].GetLength()] == 0);
        }
    }
    return 0;
}
