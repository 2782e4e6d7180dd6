// Whatever arrives on the pipe: the bytes sit in a heap block of exactly the size read, so a read past the
// message is a sanitizer report, not a silent success. The decoder must give a message exactly when the
// framing holds, with the values where the framing puts them, and a decoded message must survive its own
// encoding unchanged.
#include "channel/PipeMessage.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace
{
void Check(bool condition)
{
    if (!condition)
        std::abort();
}

// Where the six values start when the strings' lengths all fit in the bytes received; 0 when they don't.
size_t FramedValuesAt(const uint8_t* data, size_t size)
{
    if (size < 12)
        return 0;
    size_t at = 12;
    for (int field = 0; field < 4; ++field)
    {
        size_t cursor = at;
        uint32_t value = 0;
        int bytes = 0;
        bool more = true;
        while (more && bytes < 5)
        {
            if (cursor >= size)
                return 0;
            uint8_t byte = data[cursor++];
            value |= bytes * 7 < 32 ? static_cast<uint32_t>(byte & 0x7F) << (bytes * 7) : 0;
            more = byte & 0x80;
            ++bytes;
        }
        if (more) // five continued bytes: refused, the next field starts at the same place
            continue;
        int32_t length = static_cast<int32_t>(value);
        if (length > 0 && static_cast<size_t>(length) > size - cursor)
            return 0;
        at = cursor + (length > 0 ? length : 0);
    }
    return size - at >= 48 ? at : 0;
}

bool Same(const WideString& a, const WideString& b)
{
    return a.GetLength() == b.GetLength() &&
           std::memcmp(a.GetString(), b.GetString(), a.GetLength() * sizeof(WCHAR)) == 0;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > PIPE_MESSAGE_LIMIT)
        return 0;
    std::unique_ptr<BYTE[]> exact(new BYTE[size ? size : 1]);
    std::memcpy(exact.get(), data, size);
    std::unique_ptr<PipeMessage> message(
        DecodeMessage(size ? exact.get() : nullptr, static_cast<DWORD>(size)));

    size_t valuesAt = FramedValuesAt(data, size);
    Check((message != nullptr) == (valuesAt != 0));
    if (!message)
        return 0;
    Check(message->m_kind == (data[0] | data[1] << 8 | data[2] << 16 | static_cast<uint32_t>(data[3]) << 24));
    for (int i = 0; i < 6; ++i)
    {
        uint64_t value = 0;
        std::memcpy(&value, data + valuesAt + 8 * i, 8); // the host is little-endian, as the wire is
        Check(message->m_values[i] == value);
    }
    for (const WideString* text :
         {&message->m_source, &message->m_target, &message->m_drives, &message->m_spare})
    {
        Check(text->GetLength() <= static_cast<int>(size));
        Check(text->GetString()[text->GetLength()] == 0);
    }

    // What was decoded encodes to something that decodes to the same message (the UTF-8 may differ: a
    // malformed sequence came in as U+FFFD and goes out as its proper encoding).
    static std::vector<BYTE> buffer(
        PIPE_MESSAGE_LIMIT); // once: clearing 1 MiB per run would be the whole cost
    DWORD encoded = EncodeMessage(*message, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (encoded == 0)
        return 0;
    Check(encoded >= PIPE_MESSAGE_MINIMUM);
    std::unique_ptr<PipeMessage> again(DecodeMessage(buffer.data(), encoded));
    Check(again != nullptr);
    Check(again->m_kind == message->m_kind && again->m_phase == message->m_phase &&
          again->m_reserved == message->m_reserved);
    Check(Same(again->m_source, message->m_source) && Same(again->m_target, message->m_target) &&
          Same(again->m_drives, message->m_drives) && Same(again->m_spare, message->m_spare));
    Check(std::memcmp(again->m_values, message->m_values, sizeof message->m_values) == 0);
    return 0;
}
