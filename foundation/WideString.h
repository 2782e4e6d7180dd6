// Reference-counted UTF-16 text. Copies share one buffer (one atomic increment); the first write through a
// shared copy gives the writer a private buffer, so a callee may lower-case its copy without the caller
// seeing it. Every failure is raised as a CAtlException carrying its result code.
#pragma once

#include "foundation/AtlException.h"
#include "platform/Win32.h"

#include <atomic>
#include <cstdarg>
#include <new>

class WideString
{
public:
    WideString() noexcept : m_data(EmptyText()) {}
    WideString(LPCWSTR text); // NOLINT: implicit, as plain text converts freely in the system's code
    WideString(LPCWSTR text, int length);
    WideString(const WideString& other) noexcept;
    WideString(WideString&& other) noexcept : m_data(other.m_data) { other.m_data = EmptyText(); }
    // Inline, so that the strings a list moves in and the emptied ones it leaves behind cost no call.
    ~WideString()
    {
        if (m_data != EmptyText())
            Release();
    }

    WideString& operator=(const WideString& other) noexcept;
    WideString& operator=(WideString&& other) noexcept;
    WideString& operator=(LPCWSTR text);

    // Replaces the content with `length` units of `text`; `text` may point into this string's own buffer.
    void SetText(LPCWSTR text, int length);
    void Append(const WideString& other);
    void Append(LPCWSTR text, int length);
    void Append(LPCWSTR text);
    WideString& operator+=(const WideString& other)
    {
        Append(other);
        return *this;
    }
    WideString& operator+=(LPCWSTR text)
    {
        Append(text);
        return *this;
    }

    int GetLength() const noexcept { return m_data->length; }
    bool IsEmpty() const noexcept { return GetLength() == 0; }
    void Empty() noexcept;
    LPCWSTR GetString() const noexcept { return m_data->Text(); }
    operator LPCWSTR() const noexcept { return GetString(); }
    WCHAR operator[](int index) const noexcept { return GetString()[index]; }

    WideString Left(int count) const;
    WideString Mid(int start) const;
    WideString Mid(int start, int count) const;
    void MakeLower();
    WideString Tokenize(LPCWSTR delimiters, int& position) const;
    void Format(LPCWSTR pattern, ...);
    void FormatV(LPCWSTR pattern, va_list arguments);

    // Direct writing, for readers that fill text in place (a path from the shell, a pipe's payload):
    // GetBuffer gives a private buffer of at least `minLength` units; ReleaseBuffer sets the length
    // (-1: up to the first U+0000).
    WCHAR* GetBuffer(int minLength);
    void ReleaseBuffer(int newLength = -1);

    int Compare(LPCWSTR text) const;
    friend bool operator==(const WideString& a, const WideString& b) { return a.Compare(b.GetString()) == 0; }
    friend bool operator!=(const WideString& a, const WideString& b) { return !(a == b); }
    friend bool operator==(const WideString& a, LPCWSTR b) { return a.Compare(b) == 0; }
    friend bool operator!=(const WideString& a, LPCWSTR b) { return !(a == b); }

    // How many strings share this text now (1 when private; the shared empty text reports 0).
    long GetShareCount() const noexcept;
    int GetCapacity() const noexcept;

    // The text lives right behind this header, in a heap block of its own or in a batch's block
    // (`blockOffset` bytes before the header; 0 for an own block). Only WideString.cpp writes it; it is
    // here so that reading a length or the text costs no call.
    struct Data
    {
        std::atomic<long> shares;
        int length;
        int capacity;
        unsigned blockOffset;
        WCHAR* Text() noexcept { return reinterpret_cast<WCHAR*>(this + 1); }
    };

    // The one empty text all empty strings share.
    static Data* EmptyText() noexcept { return reinterpret_cast<Data*>(s_emptyText); }
    alignas(16) static unsigned char s_emptyText[32];

    // Makes many short strings with one heap allocation for dozens of texts instead of one each: a selection
    // of thousands of paths otherwise spends more in the heap than in reading them. The strings are ordinary
    // in every other way (shared, written, released on any thread); a block goes back to the heap with the
    // last of its texts, however long the batch itself lives.
    class Batch
    {
    public:
        Batch() noexcept = default;
        ~Batch() { Leave(); }
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;

        // For a reader that copies while it looks for a text's end: room for up to `maxLength` units, and
        // for `kReserveSlack` more that it may overwrite, as it stores several units at a time. Commit, after
        // Reserve, makes the string of the first `length` units written there (length <= maxLength; 0
        // gives the empty string). Inline while the current block has room: a selection reserves per path.
        static constexpr int kReserveSlack = 7;
        WCHAR* Reserve(int maxLength)
        {
            if (!m_alone && m_credits >= 2 && maxLength >= 0 &&
                m_size - m_used >= RecordBytes(static_cast<size_t>(maxLength) + kReserveSlack))
                return Record()->Text();
            return ReserveElsewhere(maxLength);
        }
        WideString Commit(int length) noexcept
        {
            if (m_alone || length <= 0)
                return CommitElsewhere(length);
            Data* data = Record();
            new (&data->shares) std::atomic<long>(1);
            data->length = length;
            data->capacity = length;
            data->blockOffset = static_cast<unsigned>(m_used);
            data->Text()[length] = 0;
            m_used += RecordBytes(static_cast<size_t>(length));
            --m_credits;
            return WideString(data);
        }

        // Blocks that batches have finished with are kept for the next batch (up to 1.25 MB; a 10,000-text
        // selection's worth). This gives every kept block back to the heap; any thread, at any time.
        static void FreeSpareBlocks() noexcept;

        // Opaque outside WideString.cpp.
        struct Block;

    private:
        // Bytes of a text's header and `capacity` units with their terminator, rounded to the header's
        // alignment.
        static constexpr size_t RecordBytes(size_t capacity)
        {
            return (sizeof(Data) + (capacity + 1) * sizeof(WCHAR) + alignof(Data) - 1) / alignof(Data) *
                   alignof(Data);
        }
        Data* Record() const noexcept
        {
            return reinterpret_cast<Data*>(reinterpret_cast<unsigned char*>(m_block) + m_used);
        }
        WCHAR* ReserveElsewhere(int maxLength);
        WideString CommitElsewhere(int length) noexcept;
        void Leave() noexcept;
        void DropAlone() noexcept;

        Data* m_alone = nullptr; // room Reserve took in a heap block of its own, until Commit
        Block* m_block = nullptr;
        size_t m_used = 0;
        size_t m_size = 0;
        size_t m_blockBytes = 0;
        long m_credits = 0; // texts the current block may still take; its count holds them in advance
    };

private:
    explicit WideString(Data* data) noexcept : m_data(data) {}
    void Release() noexcept;
    // Makes the buffer private and able to hold `length` units; keeps the current text.
    WCHAR* PrepareWrite(int length);
    void SetLengthUnchecked(int length) noexcept;

    Data* m_data;
};

// Length of zero-terminated text, as a signed 32-bit count (raises E_INVALIDARG past 0x7FFFFFFF).
int TextLength(LPCWSTR text);
// Exact unit-by-unit comparison (wcscmp); raises E_FAIL for null text.
int CompareText(LPCWSTR a, LPCWSTR b);
