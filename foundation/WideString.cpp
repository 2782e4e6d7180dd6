#include "foundation/WideString.h"

#include "foundation/Hresult.h"

#include <atomic>
#include <cstring>

// A batch's block: the count of its texts still alive and its size, then the texts, each behind its header.
struct WideString::Batch::Block
{
    std::atomic<long> texts;
    size_t bytes;
};
static_assert(sizeof(WideString::Batch::Block) % alignof(WideString::Data) == 0, "texts start aligned");

namespace
{
constexpr int kMaxCapacity = 0x3FFFFFFE; // (capacity + 1) * 2 bytes must stay within a signed 32-bit size
constexpr int kLargeCapacity = 0x40000000;
constexpr int kLargeGrowth = 0x100000;
} // namespace

// The process-wide empty text: a zeroed header plus its terminator. Its share count is never touched, so
// empty strings cost no allocation and no atomic operation.
alignas(16) unsigned char WideString::s_emptyText[32] = {};

namespace
{
size_t DataBytes(int capacity)
{
    return sizeof(WideString::Data) + (static_cast<size_t>(capacity) + 1) * sizeof(WCHAR);
}
} // namespace

namespace
{
WideString::Data* Allocate(int capacity)
{
    if (capacity < 0 || capacity > kMaxCapacity)
        AtlThrow(E_OUTOFMEMORY);
    void* block = HeapAlloc(GetProcessHeap(), 0, DataBytes(capacity));
    if (!block)
        AtlThrow(E_OUTOFMEMORY);
    auto* data = static_cast<WideString::Data*>(block);
    new (&data->shares) std::atomic<long>(1);
    data->length = 0;
    data->capacity = capacity;
    data->blockOffset = 0;
    data->Text()[0] = 0;
    return data;
}

// Blocks double from a page, so one path costs little and a hundred thousand cost a few dozen allocations;
// a text that the current block has no room for and that is too long for a quarter of the largest block gets
// a block of its own.
constexpr size_t kFirstBlockBytes = 4096;
constexpr size_t kLargestBlockBytes = 256 * 1024;

// Blocks are kept for the next batch instead of going back to the heap: one of each size below the largest (a
// batch takes each of those once) and four of the largest. Given back a selection's worth at once, the heap
// returned their pages to the system and the next right-click took them again page fault by page fault:
// under Wine most of a 10,000-file menu's time, and of a 1,000-file menu's selection. The kept blocks (1.25
// MB) cover a 10,000-file menu; what a larger one frees beyond them goes back to the heap. They are kept only
// while menus come in quick succession: the library's owner frees them all once it has nothing in use
// (FreeSpareBlocks), so one large selection does not leave them with a file manager that runs for weeks.
class SpareBlocks
{
public:
    constexpr SpareBlocks() noexcept = default;
    SpareBlocks(const SpareBlocks&) = delete;
    SpareBlocks& operator=(const SpareBlocks&) = delete;
    // The library may be unloaded with blocks kept.
    ~SpareBlocks() { FreeAll(); }

    // Safe beside Take and Give on other threads: each block leaves its slot by one exchange, to one owner.
    void FreeAll() noexcept
    {
        for (std::atomic<void*>& slot : m_slots)
            if (void* block = slot.exchange(nullptr, std::memory_order_acquire))
                HeapFree(GetProcessHeap(), 0, block);
    }

    void* Take(size_t bytes) noexcept
    {
        int first = 0, last = 0;
        Slots(bytes, first, last);
        for (int slot = first; slot < last; ++slot)
            if (void* block = m_slots[slot].exchange(nullptr, std::memory_order_acquire))
                return block;
        return HeapAlloc(GetProcessHeap(), 0, bytes);
    }

    void Give(void* block, size_t bytes) noexcept
    {
        int first = 0, last = 0;
        Slots(bytes, first, last);
        for (int slot = first; slot < last; ++slot)
        {
            void* empty = nullptr;
            if (m_slots[slot].compare_exchange_strong(empty, block, std::memory_order_release))
                return;
        }
        HeapFree(GetProcessHeap(), 0, block);
    }

private:
    static constexpr int kSmallerSizes = 6; // 4 KB to 128 KB
    static constexpr int kLargestKept = 4;
    static_assert((kFirstBlockBytes << kSmallerSizes) == kLargestBlockBytes, "blocks double to the largest");

    // The slots [first, last) that keep blocks of `bytes`; none for other sizes.
    static void Slots(size_t bytes, int& first, int& last) noexcept
    {
        for (int size = 0; size < kSmallerSizes; ++size)
            if (bytes == kFirstBlockBytes << size)
            {
                first = size;
                last = size + 1;
                return;
            }
        if (bytes == kLargestBlockBytes)
        {
            first = kSmallerSizes;
            last = kSmallerSizes + kLargestKept;
        }
    }

    std::atomic<void*> m_slots[kSmallerSizes + kLargestKept] = {};
};

SpareBlocks g_spareBlocks;

void FreeData(WideString::Data* data) noexcept
{
    if (!data->blockOffset)
    {
        HeapFree(GetProcessHeap(), 0, data);
        return;
    }
    auto* block = reinterpret_cast<WideString::Batch::Block*>(reinterpret_cast<unsigned char*>(data) -
                                                              data->blockOffset);
    if (block->texts.fetch_sub(1, std::memory_order_acq_rel) == 1)
        g_spareBlocks.Give(block, block->bytes);
}

bool IsEmptyText(const WideString::Data* data)
{
    return data == WideString::EmptyText();
}
} // namespace

static_assert(sizeof(WideString::Data) + sizeof(WCHAR) <= sizeof(WideString::s_emptyText), "empty text fits");

int TextLength(LPCWSTR text)
{
    if (!text)
        return 0;
    size_t length = 0;
    while (text[length])
        ++length;
    if (length > 0x7FFFFFFF)
        AtlThrow(E_INVALIDARG);
    return static_cast<int>(length);
}

int CompareText(LPCWSTR a, LPCWSTR b)
{
    if (!a || !b)
        AtlThrow(E_FAIL);
    while (*a && *a == *b)
        ++a, ++b;
    return *a == *b ? 0 : (static_cast<unsigned>(*a) < static_cast<unsigned>(*b) ? -1 : 1);
}

WCHAR* WideString::Batch::ReserveElsewhere(int maxLength)
{
    if (maxLength < 0)
        AtlThrow(E_INVALIDARG);
    if (maxLength > kMaxCapacity - kReserveSlack)
        AtlThrow(E_OUTOFMEMORY);
    DropAlone();
    const int capacity = maxLength + kReserveSlack;
    const size_t bytes = RecordBytes(static_cast<size_t>(capacity));
    if (bytes > kLargestBlockBytes / 4)
    {
        m_alone = Allocate(capacity);
        return m_alone->Text();
    }
    // A record is larger than its header, so a block holds fewer texts than it has headers' worth of bytes:
    // the credits given to a new block never run out before its space does.
    if (!m_block || m_size - m_used < bytes || m_credits < 2)
    {
        Leave();
        const size_t size =
            m_blockBytes ? (m_blockBytes * 2 < kLargestBlockBytes ? m_blockBytes * 2 : kLargestBlockBytes)
                         : kFirstBlockBytes;
        void* memory = g_spareBlocks.Take(size);
        if (!memory)
            AtlThrow(E_OUTOFMEMORY);
        m_blockBytes = size;
        m_size = size;
        m_used = sizeof(Block);
        m_credits = static_cast<long>(size / sizeof(Data)) + 1;
        m_block = static_cast<Block*>(memory);
        new (&m_block->texts) std::atomic<long>(m_credits);
        m_block->bytes = size;
    }
    return Record()->Text();
}

void WideString::Batch::FreeSpareBlocks() noexcept
{
    g_spareBlocks.FreeAll();
}

WideString WideString::Batch::CommitElsewhere(int length) noexcept
{
    Data* data = m_alone;
    if (!data || length <= 0)
    {
        DropAlone();
        return WideString();
    }
    m_alone = nullptr;
    data->length = length;
    data->Text()[length] = 0;
    return WideString(data);
}

void WideString::Batch::DropAlone() noexcept
{
    if (m_alone)
        HeapFree(GetProcessHeap(), 0, m_alone);
    m_alone = nullptr;
}

// Gives back the credits no text took; the block goes when its texts are gone as well.
void WideString::Batch::Leave() noexcept
{
    DropAlone();
    if (!m_block)
        return;
    if (m_block->texts.fetch_sub(m_credits, std::memory_order_acq_rel) == m_credits)
        g_spareBlocks.Give(m_block, m_block->bytes);
    m_block = nullptr;
    m_credits = 0;
    m_used = m_size = 0;
}

WideString::WideString(LPCWSTR text) : m_data(EmptyText())
{
    SetText(text, TextLength(text));
}

WideString::WideString(LPCWSTR text, int length) : m_data(EmptyText())
{
    SetText(text, length);
}

WideString::WideString(const WideString& other) noexcept : m_data(other.m_data)
{
    if (!IsEmptyText(m_data))
        m_data->shares.fetch_add(1, std::memory_order_relaxed);
}

void WideString::Release() noexcept
{
    // A sole owner has no one to race: the locked decrement is spared for the common case, a list of
    // thousands of paths going away.
    if (!IsEmptyText(m_data) && (m_data->shares.load(std::memory_order_acquire) == 1 ||
                                 m_data->shares.fetch_sub(1, std::memory_order_acq_rel) == 1))
        FreeData(m_data);
    m_data = EmptyText();
}

WideString& WideString::operator=(const WideString& other) noexcept
{
    if (m_data != other.m_data)
    {
        Data* shared = other.m_data;
        if (!IsEmptyText(shared))
            shared->shares.fetch_add(1, std::memory_order_relaxed);
        Release();
        m_data = shared;
    }
    return *this;
}

WideString& WideString::operator=(WideString&& other) noexcept
{
    if (this != &other)
    {
        Release();
        m_data = other.m_data;
        other.m_data = EmptyText();
    }
    return *this;
}

WideString& WideString::operator=(LPCWSTR text)
{
    SetText(text, TextLength(text));
    return *this;
}

long WideString::GetShareCount() const noexcept
{
    return IsEmptyText(m_data) ? 0 : m_data->shares.load(std::memory_order_relaxed);
}
int WideString::GetCapacity() const noexcept
{
    return m_data->capacity;
}
void WideString::Empty() noexcept
{
    Release();
}

void WideString::SetLengthUnchecked(int length) noexcept
{
    m_data->length = length;
    m_data->Text()[length] = 0;
}

WCHAR* WideString::PrepareWrite(int length)
{
    if (length < 0)
        AtlThrow(E_INVALIDARG);
    bool shared = IsEmptyText(m_data) || m_data->shares.load(std::memory_order_acquire) > 1;
    if (!shared && length <= m_data->capacity)
        return m_data->Text();

    int capacity = length;
    if (!shared)
    {
        // Grow by half (or by a fixed step for huge texts) so repeated appends stay linear.
        int current = m_data->capacity;
        long long grown =
            static_cast<long long>(current) + (current > kLargeCapacity ? kLargeGrowth : current / 2);
        if (grown > capacity)
            capacity = grown > kMaxCapacity ? kMaxCapacity : static_cast<int>(grown);
    }
    Data* fresh = Allocate(capacity);
    int keep = m_data->length < capacity ? m_data->length : capacity;
    std::memcpy(fresh->Text(), m_data->Text(), static_cast<size_t>(keep) * sizeof(WCHAR));
    fresh->length = keep;
    fresh->Text()[keep] = 0;
    Release();
    m_data = fresh;
    return m_data->Text();
}

void WideString::SetText(LPCWSTR text, int length)
{
    if (length < 0 || (!text && length != 0))
        AtlThrow(E_INVALIDARG);
    if (length == 0)
    {
        Release();
        return;
    }
    // The source may lie inside our own buffer: remember where, since PrepareWrite may move it.
    const WCHAR* own = m_data->Text();
    bool inside = text >= own && text <= own + m_data->length;
    if (inside)
    {
        size_t offset = static_cast<size_t>(text - own);
        bool privateBuffer = !IsEmptyText(m_data) && m_data->shares.load(std::memory_order_acquire) == 1;
        if (privateBuffer)
        {
            std::memmove(m_data->Text(), m_data->Text() + offset,
                         static_cast<size_t>(length) * sizeof(WCHAR));
            SetLengthUnchecked(length);
            return;
        }
        // Shared: keep our reference to the old text alive while copying out of it.
        WideString keepAlive(*this);
        Data* fresh = Allocate(length);
        std::memcpy(fresh->Text(), keepAlive.m_data->Text() + offset,
                    static_cast<size_t>(length) * sizeof(WCHAR));
        Release();
        m_data = fresh;
        SetLengthUnchecked(length);
        return;
    }
    WCHAR* buffer = PrepareWrite(length);
    std::memcpy(buffer, text, static_cast<size_t>(length) * sizeof(WCHAR));
    SetLengthUnchecked(length);
}

void WideString::Append(const WideString& other)
{
    // Another buffer is held by `other` throughout and can be read in place. Only our own may be given up
    // while we write (appending a string to itself, or to a copy of itself): that one is read from a share
    // held for the duration.
    if (other.m_data != m_data)
    {
        Append(other.GetString(), other.GetLength());
        return;
    }
    WideString source(other);
    Append(source.GetString(), source.GetLength());
}

void WideString::Append(LPCWSTR text)
{
    Append(text, TextLength(text));
}

void WideString::Append(LPCWSTR text, int length)
{
    if (length < 0 || (!text && length != 0))
        AtlThrow(E_INVALIDARG);
    if (length == 0)
        return;
    int current = GetLength();
    if (static_cast<long long>(current) + length > 0x7FFFFFFF)
        AtlThrow(E_INVALIDARG);
    const WCHAR* own = m_data->Text();
    if (text >= own && text <= own + current)
    {
        WideString copy(text, length);
        Append(copy.GetString(), copy.GetLength());
        return;
    }
    WCHAR* buffer = PrepareWrite(current + length);
    std::memcpy(buffer + current, text, static_cast<size_t>(length) * sizeof(WCHAR));
    SetLengthUnchecked(current + length);
}

WideString WideString::Left(int count) const
{
    if (count < 0)
        count = 0;
    if (count >= GetLength())
        return *this;
    return WideString(GetString(), count);
}

WideString WideString::Mid(int start) const
{
    if (start < 0)
        start = 0;
    return Mid(start, GetLength() - start);
}

WideString WideString::Mid(int start, int count) const
{
    if (start < 0)
        start = 0;
    if (count < 0)
        count = 0;
    if (static_cast<long long>(start) + count > 0x7FFFFFFF)
        AtlThrow(HresultFromWin32(ERROR_ARITHMETIC_OVERFLOW));
    int length = GetLength();
    if (start > length)
        return WideString();
    if (start + count > length)
        count = length - start;
    if (start == 0 && count == length)
        return *this;
    return WideString(GetString() + start, count);
}

void WideString::MakeLower()
{
    int length = GetLength();
    if (length == 0)
        return;
    WCHAR* buffer = PrepareWrite(length);
    _wcslwr_s(buffer, static_cast<size_t>(length) + 1);
}

WideString WideString::Tokenize(LPCWSTR delimiters, int& position) const
{
    if (position < 0)
        AtlThrow(E_INVALIDARG);
    int length = GetLength();
    const WCHAR* text = GetString();
    if (position < length)
    {
        auto isDelimiter = [delimiters](WCHAR c)
        {
            for (const WCHAR* d = delimiters; d && *d; ++d)
                if (*d == c)
                    return true;
            return false;
        };
        int start = position;
        while (start < length && isDelimiter(text[start]))
            ++start;
        if (start < length)
        {
            int end = start;
            while (end < length && !isDelimiter(text[end]))
                ++end;
            position = end + 1;
            return Mid(start, end - start);
        }
    }
    position = -1;
    return WideString();
}

WCHAR* WideString::GetBuffer(int minLength)
{
    int length = GetLength();
    WCHAR* buffer = PrepareWrite(minLength > length ? minLength : length);
    return buffer;
}

void WideString::ReleaseBuffer(int newLength)
{
    if (IsEmptyText(m_data))
        return;
    if (newLength < 0)
    {
        newLength = 0;
        const WCHAR* text = m_data->Text();
        while (newLength < m_data->capacity && text[newLength])
            ++newLength;
    }
    if (newLength > m_data->capacity)
        AtlThrow(E_INVALIDARG);
    SetLengthUnchecked(newLength);
}

int WideString::Compare(LPCWSTR text) const
{
    return CompareText(GetString(), text);
}

namespace
{
// The system formats three patterns: a folder's marker path and the pipe name (%s) and the delete
// confirmation (%d). This formatter knows %s (wide text, "(null)" for null as the C runtime prints),
// %d, %u, %x and %%; anything else is an error of the counting pass. `out` null means count only.
long long FormatPass(LPCWSTR pattern, va_list arguments, WCHAR* out)
{
    long long written = 0;
    auto put = [&](WCHAR c)
    {
        if (out)
            out[written] = c;
        ++written;
    };
    auto putNumber = [&](unsigned long long value, unsigned base, bool negative)
    {
        WCHAR digits[24];
        int count = 0;
        do
        {
            unsigned digit = static_cast<unsigned>(value % base);
            digits[count++] = static_cast<WCHAR>(digit < 10 ? u'0' + digit : u'a' + digit - 10);
            value /= base;
        } while (value);
        if (negative)
            put(u'-');
        while (count)
            put(digits[--count]);
    };
    for (const WCHAR* p = pattern; *p; ++p)
    {
        if (*p != u'%')
        {
            put(*p);
            continue;
        }
        switch (*++p)
        {
        case u'%':
            put(u'%');
            break;
        case u's':
        {
            const WCHAR* text = va_arg(arguments, const WCHAR*);
            if (!text)
                text = TEXT("(null)");
            while (*text)
                put(*text++);
            break;
        }
        case u'd':
        {
            int value = va_arg(arguments, int);
            putNumber(value < 0 ? 0ull - static_cast<unsigned long long>(static_cast<long long>(value))
                                : static_cast<unsigned long long>(value),
                      10, value < 0);
            break;
        }
        case u'u':
            putNumber(va_arg(arguments, unsigned), 10, false);
            break;
        case u'x':
            putNumber(va_arg(arguments, unsigned), 16, false);
            break;
        default:
            return -1;
        }
        if (written > 0x7FFFFFFF)
            return -1;
    }
    return written;
}
} // namespace

void WideString::Format(LPCWSTR pattern, ...)
{
    va_list arguments;
    va_start(arguments, pattern);
    try
    {
        FormatV(pattern, arguments);
    }
    catch (...)
    {
        va_end(arguments);
        throw;
    }
    va_end(arguments);
}

void WideString::FormatV(LPCWSTR pattern, va_list arguments)
{
    if (!pattern)
        AtlThrow(E_INVALIDARG);
    va_list counting;
    va_copy(counting, arguments);
    long long length = FormatPass(pattern, counting, nullptr);
    va_end(counting);
    if (length < 0)
        AtlThrow(E_FAIL);
    if (length == 0)
    {
        Release();
        return;
    }
    // Arguments may point into this very string: write into a fresh buffer, then take it.
    WideString result;
    WCHAR* buffer = result.PrepareWrite(static_cast<int>(length));
    FormatPass(pattern, arguments, buffer);
    result.SetLengthUnchecked(static_cast<int>(length));
    *this = static_cast<WideString&&>(result);
}
