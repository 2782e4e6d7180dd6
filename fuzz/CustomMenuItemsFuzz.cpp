// The FMI text of a marker, which the service (or anyone who can write to the drive) controls: every line the
// parser keeps must be one the grammar gives, in order, and the list must own exactly what it reports.
//
// Input: the text as UTF-16LE, cut at the first U+0000 as a marker read is.
#include "extension/MenuPlan.h"
#include "fuzz/FuzzText.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{
using FuzzText::Check;
using FuzzText::Text;

struct Line
{
    Text caption;
    LONG code;
};

// Lines kept when caption, value and code are all non-empty.
std::vector<Line> Model(const Text& text)
{
    std::vector<Line> lines;
    for (const auto& [caption, value] : FuzzText::KeyValueTokens(text, TEXT('\n')))
    {
        LONG code = _wtoi(value.c_str());
        if (code != 0)
            lines.push_back({caption, code});
    }
    return lines;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const Text text = FuzzText::Units(data, size, size);

    // One item already in the list: the result counts the whole list, not only this call's lines.
    NodeList<CustomMenuItem*> items;
    auto* first = new CustomMenuItem;
    first->m_text = TEXT("first");
    first->m_operation = 7;
    items.AddTail(first);

    int count = ParseCustomMenuItems(WideString(text.c_str(), static_cast<int>(text.size())), items);
    std::vector<Line> expected = Model(text);
    Check(count == static_cast<int>(expected.size()) + 1);
    Check(items.GetCount() == expected.size() + 1);

    POSITION position = items.GetHeadPosition();
    Check(items.GetNext(position) == first);
    for (const Line& line : expected)
    {
        CustomMenuItem* item = items.GetNext(position);
        Check(item->m_operation == line.code && item->m_operation != 0);
        Check(Text(item->m_text.GetString(), item->m_text.GetLength()) == line.caption);
    }
    Check(position == nullptr);

    for (position = items.GetHeadPosition(); position;)
        delete items.GetNext(position);
    items.RemoveAll();
    return 0;
}
