// A request of 1 MiB through the codec: EncodeMessage (what WriteMessage sends) and DecodeMessage of the
// bytes, against the conversions of the same four strings alone, the least any codec must do: UTF-16 to
// UTF-8 for the encoder, UTF-8 back to UTF-16 for the decoder, and both for the round trip.
#include "bench/Baseline.h"
#include "channel/PipeMessage.h"

#include <memory>
#include <vector>

namespace
{
// A newline-terminated path list, one name in eight with a two-byte character, as long as the message limit
// allows: the header, the other three strings, the values and a three-byte length leave 80 bytes.
PipeMessage LargeRequest()
{
    PipeMessage request;
    request.m_kind = 12;
    request.m_target = TEXT("E:\\in");
    request.m_drives = TEXT("e:\n");
    request.m_values[0] = 1;
    request.m_values[1] = 6699;
    WideString path;
    int bytes = 0;
    for (int i = 0;; ++i)
    {
        path.Format(i % 8 ? TEXT("D:\\photos\\2021\\img%d.raw\n")
                          : TEXT("D:\\photos\\2021\\\x00e9t\x00e9%d.raw\n"),
                    i);
        int pathBytes = WideCharToMultiByte(CP_UTF8, 0, path, path.GetLength(), nullptr, 0, nullptr, nullptr);
        if (bytes + pathBytes > static_cast<int>(PIPE_MESSAGE_LIMIT) - 80)
            break;
        bytes += pathBytes;
        request.m_source.Append(path);
    }
    return request;
}

// The four strings as UTF-8, one after another, into `out`; returns the byte count.
int ConvertAlone(const PipeMessage& message, BYTE* out)
{
    int at = 0;
    for (const WideString* text : {&message.m_source, &message.m_target, &message.m_drives, &message.m_spare})
        if (!text->IsEmpty())
            at += WideCharToMultiByte(CP_UTF8, 0, text->GetString(), text->GetLength(),
                                      reinterpret_cast<LPSTR>(out) + at, PIPE_MESSAGE_LIMIT - at, nullptr,
                                      nullptr);
    return at;
}

// The `bytes` of UTF-8 in `plain` back to UTF-16, into `text`; returns the unit count.
int ConvertBack(const std::vector<BYTE>& plain, int bytes, std::vector<WCHAR>& text)
{
    return MultiByteToWideChar(CP_UTF8, 0, reinterpret_cast<LPCSTR>(plain.data()), bytes, text.data(),
                               static_cast<int>(text.size()));
}

struct Codec
{
    const PipeMessage request = LargeRequest();
    std::vector<BYTE> wire = std::vector<BYTE>(PIPE_MESSAGE_LIMIT);
    std::vector<BYTE> plain = std::vector<BYTE>(PIPE_MESSAGE_LIMIT);
    std::vector<WCHAR> text = std::vector<WCHAR>(PIPE_MESSAGE_LIMIT);
    DWORD size = 0;
    long checksum = 0;

    void Encode() { size = EncodeMessage(request, wire.data(), PIPE_MESSAGE_LIMIT); }
    void Decode()
    {
        std::unique_ptr<PipeMessage> decoded(DecodeMessage(wire.data(), size));
        checksum += decoded ? decoded->m_source.GetLength() : -1;
    }
    void Finish(benchmark::State& state)
    {
        benchmark::DoNotOptimize(checksum);
        if (size < PIPE_MESSAGE_LIMIT - 256)
            state.SkipWithError("the request does not fill the message");
        state.counters["message_bytes"] = size;
        state.SetBytesProcessed(state.iterations() * size);
    }
};

// The row that counts: encode and decode against the two conversions the text needs on its way out and
// back in.
void PipeMessageRoundTrip(benchmark::State& state)
{
    Codec codec;
    RunAgainstBaseline(
        state,
        [&]
        {
            codec.Encode();
            codec.Decode();
        },
        [&]
        {
            int bytes = ConvertAlone(codec.request, codec.plain.data());
            codec.checksum += ConvertBack(codec.plain, bytes, codec.text);
        });
    codec.Finish(state);
}

// The two halves on their own, each against the conversion in its own direction.
void PipeMessageEncode(benchmark::State& state)
{
    Codec codec;
    RunAgainstBaseline(
        state, [&] { codec.Encode(); },
        [&] { codec.checksum += ConvertAlone(codec.request, codec.plain.data()); });
    codec.Finish(state);
}

void PipeMessageDecode(benchmark::State& state)
{
    Codec codec;
    codec.Encode();
    int bytes = ConvertAlone(codec.request, codec.plain.data());
    RunAgainstBaseline(
        state, [&] { codec.Decode(); },
        [&] { codec.checksum += ConvertBack(codec.plain, bytes, codec.text); });
    codec.Finish(state);
}
} // namespace

BENCHMARK(PipeMessageRoundTrip)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PipeMessageEncode)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PipeMessageDecode)->UseManualTime()->Unit(benchmark::kMillisecond);
