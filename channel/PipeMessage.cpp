#include "channel/PipeMessage.h"

#include "channel/PipeClient.h"

#include <cstring>
#include <initializer_list>
#include <memory>

namespace
{
const size_t HEADER_SIZE = 12;
const size_t VALUES_SIZE = 6 * 8;

void PutU32(BYTE* at, DWORD value)
{
    for (int i = 0; i < 4; ++i)
        at[i] = static_cast<BYTE>(value >> (8 * i));
}

void PutU64(BYTE* at, ULONGLONG value)
{
    for (int i = 0; i < 8; ++i)
        at[i] = static_cast<BYTE>(value >> (8 * i));
}

DWORD GetU32(const BYTE* at)
{
    return static_cast<DWORD>(at[0]) | static_cast<DWORD>(at[1]) << 8 | static_cast<DWORD>(at[2]) << 16 |
           static_cast<DWORD>(at[3]) << 24;
}

ULONGLONG GetU64(const BYTE* at)
{
    ULONGLONG value = 0;
    for (int i = 7; i >= 0; --i)
        value = value << 8 | at[i];
    return value;
}
} // namespace

namespace
{
// The UTF-8 byte count of a text as a wire string carries it. The text ends at its terminator, so the UTF-8
// never holds a zero byte: the converted size is the encoded length.
int Utf8Length(LPCWSTR text, int& units)
{
    units = text ? lstrlenW(text) : 0;
    int length = units > 0 ? WideCharToMultiByte(CP_UTF8, 0, text, units, nullptr, 0, nullptr, nullptr) : 0;
    return length < 0 ? 0 : length;
}

size_t LengthBytes(DWORD length)
{
    size_t bytes = 1;
    for (; length >= 0x80; length >>= 7)
        ++bytes;
    return bytes;
}

void PutLength(BYTE* cursor, DWORD length)
{
    while (length >= 0x80)
    {
        *cursor++ = static_cast<BYTE>((length & 0x7F) | 0x80);
        length >>= 7;
    }
    *cursor = static_cast<BYTE>(length);
}

// One conversion where it can be: the text goes straight behind room for the longest length that could
// still fit, and moves up if its own length takes fewer bytes (for a text of more than 16,383 units in a
// message of at most 1 MiB the two are the same three bytes, so a large text never moves). Null when the
// conversion did not fit in that room, which leaves the exact measure to decide.
BYTE* EncodeStringOnce(BYTE* cursor, size_t room, LPCWSTR text, int units)
{
    size_t most = static_cast<size_t>(units) * 3; // UTF-8 bytes a UTF-16 unit can come to
    if (most > room - 1)
        most = room - 1;
    size_t prefix = LengthBytes(static_cast<DWORD>(most));
    if (room <= prefix)
        return nullptr;
    size_t capacity = room - prefix;
    int length = WideCharToMultiByte(CP_UTF8, 0, text, units, reinterpret_cast<LPSTR>(cursor + prefix),
                                     capacity > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(capacity), nullptr,
                                     nullptr);
    if (length <= 0)
        return nullptr;
    size_t needed = LengthBytes(static_cast<DWORD>(length));
    if (needed < prefix)
        std::memmove(cursor + needed, cursor + prefix, static_cast<size_t>(length));
    PutLength(cursor, static_cast<DWORD>(length));
    return cursor + needed + length;
}
} // namespace

BYTE* EncodeString(BYTE* cursor, const BYTE* end, LPCWSTR text)
{
    if (!cursor || cursor >= end)
        return nullptr;
    size_t room = static_cast<size_t>(end - cursor);
    if (text && *text)
    {
        if (BYTE* next = EncodeStringOnce(cursor, room, text, lstrlenW(text)))
            return next;
    }
    // A null text and an empty one are the same single byte 00.
    int units = 0;
    int length = Utf8Length(text, units);
    if (LengthBytes(static_cast<DWORD>(length)) + static_cast<size_t>(length) > room)
        return nullptr;
    PutLength(cursor, static_cast<DWORD>(length));
    cursor += LengthBytes(static_cast<DWORD>(length));
    if (length > 0 && WideCharToMultiByte(CP_UTF8, 0, text, units, reinterpret_cast<LPSTR>(cursor), length,
                                          nullptr, nullptr) != length)
        return nullptr; // the text changed size between the two passes: never send a length that lies
    return cursor + length;
}

ULONGLONG EncodedRequestSize(LPCWSTR source, LPCWSTR target, LPCWSTR drives)
{
    ULONGLONG size = HEADER_SIZE + VALUES_SIZE + 1; // the spare string is empty: one byte
    for (LPCWSTR text : {source, target, drives})
    {
        int units = 0;
        int length = Utf8Length(text, units);
        size += LengthBytes(static_cast<DWORD>(length)) + static_cast<ULONGLONG>(length);
    }
    return size;
}

const BYTE* DecodeString(const BYTE* cursor, const BYTE* end, WideString& destination)
{
    const BYTE* entry = cursor;
    DWORD value = 0;
    DWORD shift = 0;
    for (;;)
    {
        // Five bytes with bit 7 set carry no length a 32-bit reader accepts: refused, nothing consumed.
        if (shift == 35)
            return entry;
        if (cursor >= end)
            return nullptr;
        BYTE byte = *cursor++;
        value |= static_cast<DWORD>(byte & 0x7F) << shift; // bits past 31 are lost
        shift += 7;
        if (!(byte & 0x80))
            break;
    }
    LONG length = static_cast<LONG>(value);
    if (length <= 0)
    {
        destination.Empty();
        return cursor;
    }
    if (static_cast<size_t>(length) > static_cast<size_t>(end - cursor))
        return nullptr;
    // A byte never gives more than one UTF-16 unit, so `length` units are room enough, and the text converts
    // straight from the read buffer into the string: no copy of the payload on the way.
    WCHAR* text = destination.GetBuffer(length);
    int units = MultiByteToWideChar(CP_UTF8, 0, reinterpret_cast<LPCSTR>(cursor), length, text, length);
    if (units < 0)
        units = 0;
    text[units] = 0;
    // Up to the first U+0000: a zero byte in the payload ends the text there. Only a zero byte decodes to
    // U+0000 (an overlong form of it is invalid, and becomes U+FFFD), so without one the text is all it
    // decoded to, found without a second pass over a text of up to a million units.
    destination.ReleaseBuffer(std::memchr(cursor, 0, static_cast<size_t>(length)) ? -1 : units);
    return cursor + length;
}

DWORD EncodeMessage(const PipeMessage& message, BYTE* buffer, DWORD capacity)
{
    if (!buffer || capacity < HEADER_SIZE)
        return 0;
    const BYTE* end = buffer + capacity;
    PutU32(buffer, message.m_kind);
    PutU32(buffer + 4, message.m_phase);
    PutU32(buffer + 8, message.m_reserved);
    BYTE* cursor = buffer + HEADER_SIZE;
    cursor = EncodeString(cursor, end, message.m_source);
    cursor = EncodeString(cursor, end, message.m_target);
    cursor = EncodeString(cursor, end, message.m_drives);
    cursor = EncodeString(cursor, end, message.m_spare);
    if (!cursor || static_cast<size_t>(end - cursor) < VALUES_SIZE)
        return 0;
    for (const ULONGLONG value : message.m_values)
    {
        PutU64(cursor, value);
        cursor += 8;
    }
    return static_cast<DWORD>(cursor - buffer);
}

PipeMessage* DecodeMessage(const BYTE* buffer, DWORD size)
{
    if (!buffer || size < HEADER_SIZE)
        return nullptr;
    const BYTE* end = buffer + size;
    std::unique_ptr<PipeMessage> message(new PipeMessage);
    message->m_kind = GetU32(buffer);
    message->m_phase = GetU32(buffer + 4);
    message->m_reserved = GetU32(buffer + 8);
    const BYTE* cursor = buffer + HEADER_SIZE;
    for (WideString* field : {&message->m_source, &message->m_target, &message->m_drives, &message->m_spare})
        if (cursor)
            cursor = DecodeString(cursor, end, *field);
    if (!cursor || static_cast<size_t>(end - cursor) < VALUES_SIZE)
        return nullptr;
    for (ULONGLONG& value : message->m_values)
    {
        value = GetU64(cursor);
        cursor += 8;
    }
    return message.release();
}

bool SendRequest(PipeClient& client, DWORD operation, LPCWSTR source, LPCWSTR target, LPCWSTR drives,
                 DWORD sessionId, DWORD processId)
{
    PipeMessage request;
    request.m_kind = operation;
    request.m_source = source;
    request.m_target = target;
    request.m_drives = drives;
    request.m_values[0] = sessionId;
    request.m_values[1] = processId;
    return client.WriteMessage(request) != 0;
}

int SendCancel(PipeClient& client)
{
    PipeMessage cancel;
    cancel.m_kind = MSG_KIND_CANCEL;
    return client.WriteMessage(cancel);
}
