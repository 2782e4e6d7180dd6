// The one message layout on the service's pipe, in both directions:
//
//   kind u32 | phase u32 | reserved u32 | source | target | drives | spare | six u64 values
//
// little-endian, unpadded (the values follow the last string at any offset), each string a variable-length
// byte count (seven bits a byte, low group first, bit 7 on all but the last) and that many bytes of UTF-8.
// One message is one message of the pipe in message mode: no overall length, no magic, no checksum.
//
// Rules this channel holds to, beyond the layout itself:
// - A message never passes PIPE_MESSAGE_LIMIT bytes. The encoder is told where its buffer ends and fails the
//   whole message rather than write past it or send it cut short; nothing of a message that failed to encode
//   reaches the pipe.
// - The decoder is told how many bytes were read and never reads beyond them. A message whose fields need
// more
//   bytes than arrived (a length reaching past the end, fewer bytes than the fields, an empty message) is
//   malformed: DecodeMessage gives no message for it, and the worker drops it and reads on. Message framing
//   keeps the next message intact, so one bad message costs nothing but itself.
#pragma once

#include "foundation/WideString.h"
#include "platform/Win32.h"

constexpr DWORD PIPE_MESSAGE_LIMIT = 0x100000; // encoded bytes, both directions
constexpr DWORD PIPE_MESSAGE_MINIMUM = 64;     // header 12, four empty strings 4, values 48

// Kinds the client sends: the operation code of a request, or the cancel.
constexpr DWORD MSG_KIND_CANCEL = 81;
// Kinds the client receives besides the progress kinds 21, 22, 23, 31, 32 and 33.
constexpr DWORD MSG_KIND_QUIET = 51;
constexpr DWORD MSG_KIND_NOTICE = 98;
constexpr DWORD MSG_KIND_END = 99;

constexpr DWORD MSG_PHASE_NONE = 0;
constexpr DWORD MSG_PHASE_CALCULATING = 1;
constexpr DWORD MSG_PHASE_TOTALS = 2;
constexpr DWORD MSG_PHASE_PROGRESS = 3;
constexpr DWORD MSG_PHASE_FINAL = 4;
constexpr DWORD MSG_PHASE_STOP = 99;

// One message in memory. Members go in reverse order, so the teardown releases m_spare, m_drives, m_target
// and m_source in that order.
struct PipeMessage
{
    DWORD m_kind = 0;
    DWORD m_phase = 0;
    DWORD m_reserved = 0;
    WideString m_source;
    WideString m_target;
    WideString m_drives;
    WideString m_spare;
    ULONGLONG m_values[6] = {};
};

// Writes `text` (zero-terminated UTF-16, or null for an empty string) as a wire string at `cursor`, and
// returns the cursor behind it; returns null, having written nothing that counts, when it does not fit before
// `end`. The UTF-8 goes straight into the message: there is no scratch buffer, so no allocation can fail
// half-way.
BYTE* EncodeString(BYTE* cursor, const BYTE* end, LPCWSTR text);

// Reads the wire string at `cursor` into `destination` and returns the cursor of the next field, or null if
// the string reaches past `end`. A length of five continued bytes is refused: the destination stays as it was
// and the entry cursor comes back. A length that is 0 or negative as a signed 32-bit number gives an empty
// string. The text stops at the first U+0000 it decodes to, while the cursor moves by the whole length.
const BYTE* DecodeString(const BYTE* cursor, const BYTE* end, WideString& destination);

// The encoded size of the request SendRequest would write for these texts: what the caller checks against
// PIPE_MESSAGE_LIMIT before it starts an operation that could never be sent.
ULONGLONG EncodedRequestSize(LPCWSTR source, LPCWSTR target, LPCWSTR drives);

// Encodes the whole message into `buffer`; returns its size, or 0 if it would pass `capacity`.
DWORD EncodeMessage(const PipeMessage& message, BYTE* buffer, DWORD capacity);

// A new message from the `size` bytes read, owned by the caller (delete); null for a malformed message.
PipeMessage* DecodeMessage(const BYTE* buffer, DWORD size);

class PipeClient;

// Builds the request (kind = operation, phase 0, the three texts, the two ids in values 0 and 1) and writes
// it. Returns true if the write counts as done.
bool SendRequest(PipeClient& client, DWORD operation, LPCWSTR source, LPCWSTR target, LPCWSTR drives,
                 DWORD sessionId, DWORD processId);

// Writes the cancel message: kind 81, everything else zero or empty. Non-zero if the write counts as done.
int SendCancel(PipeClient& client);
