#include "tools/FakeService/ServiceScript.h"

#include <cerrno>
#include <cstdlib>

const char SERVICE_SCRIPT_HELP[] =
    "Script: one step a line, played in order after the client's request has arrived; '#' outside double\n"
    "quotes starts a comment.\n"
    "  send KIND PHASE [V0 .. V5] [source=TEXT] [target=TEXT] [drives=TEXT] [spare=TEXT] [reserved=N]\n"
    "      one well-formed message; missing values are 0, texts empty. Numbers are decimal or 0x-hex.\n"
    "      TEXT is UTF-8; put it in double quotes when it holds spaces (no escapes: backslashes are kept).\n"
    "  raw [HEX ..]\n"
    "      one message of exactly these bytes (spaces between bytes allowed); 'raw' alone is a zero-byte\n"
    "      message. For malformed messages: lengths past the end, short headers, missing values.\n"
    "  oversize BYTES\n"
    "      one message of BYTES bytes (at least 64): zeros, except that its last 64 bytes are a well-formed\n"
    "      message of kind 99 (the end). A client that takes the rest of an oversize message for a message\n"
    "      of its own ends the exchange there and misses what follows.\n"
    "  pause MS\n"
    "      wait, still reading what the client sends; a cancel cuts the pause short.\n"
    "  vanish\n"
    "      close the pipe at once, as a service that dies.\n"
    "  close\n"
    "      close the pipe once the client has read everything sent.\n"
    "  on-cancel\n"
    "      the steps after this line are played instead of the rest of the script once a cancel (kind 81)\n"
    "      arrived. Without this line the answer to a cancel is 'send 21 99'.\n"
    "After the last step the service stays connected and silent until the client closes its end.\n";

namespace
{
void PutNumber(std::vector<BYTE>& out, ULONGLONG value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<BYTE>(value >> (8 * i)));
}

void PutText(std::vector<BYTE>& out, const std::string& text)
{
    size_t length = text.size();
    while (length >= 0x80)
    {
        out.push_back(static_cast<BYTE>((length & 0x7F) | 0x80));
        length >>= 7;
    }
    out.push_back(static_cast<BYTE>(length));
    out.insert(out.end(), text.begin(), text.end());
}

bool TakeNumber(const BYTE*& at, const BYTE* end, int bytes, ULONGLONG& value)
{
    if (end - at < bytes)
        return false;
    value = 0;
    for (int i = bytes - 1; i >= 0; --i)
        value = value << 8 | at[i];
    at += bytes;
    return true;
}

bool TakeText(const BYTE*& at, const BYTE* end, std::string& text)
{
    ULONGLONG length = 0;
    for (int shift = 0;; shift += 7)
    {
        if (shift == 35 || at >= end)
            return false;
        BYTE byte = *at++;
        length |= static_cast<ULONGLONG>(byte & 0x7F) << shift;
        if (!(byte & 0x80))
            break;
    }
    if (length > static_cast<ULONGLONG>(end - at))
        return false;
    text.assign(reinterpret_cast<const char*>(at), static_cast<size_t>(length));
    at += length;
    return true;
}

// Whitespace-separated words; a double quote starts or ends a stretch in which spaces belong to the word.
std::vector<std::string> Words(const std::string& line)
{
    std::vector<std::string> words;
    std::string word;
    bool quoted = false, any = false;
    for (char c : line)
    {
        if (c == '"')
        {
            quoted = !quoted;
            any = true;
        }
        else if (!quoted && (c == ' ' || c == '\t' || c == '\r'))
        {
            if (any)
                words.push_back(word);
            word.clear();
            any = false;
        }
        else
        {
            word += c;
            any = true;
        }
    }
    if (any)
        words.push_back(word);
    return words;
}

bool Number(const std::string& word, ULONGLONG& value)
{
    if (word.empty() || word[0] == '-')
        return false;
    errno = 0;
    char* end = nullptr;
    value = std::strtoull(word.c_str(), &end, 0);
    return errno == 0 && end && *end == 0;
}

bool Hex(const std::string& word, std::vector<BYTE>& out)
{
    if (word.size() % 2)
        return false;
    for (size_t i = 0; i < word.size(); i += 2)
    {
        ULONGLONG value = 0;
        if (!Number("0x" + word.substr(i, 2), value))
            return false;
        out.push_back(static_cast<BYTE>(value));
    }
    return true;
}

bool ParseSend(const std::vector<std::string>& words, ServiceStep& step, std::string& problem)
{
    ServiceMessage message;
    ULONGLONG number = 0;
    if (words.size() < 3 || !Number(words[1], number) || number > 0xFFFFFFFFu)
        return problem = "send needs KIND and PHASE", false;
    message.kind = static_cast<DWORD>(number);
    if (!Number(words[2], number) || number > 0xFFFFFFFFu)
        return problem = "send needs KIND and PHASE", false;
    message.phase = static_cast<DWORD>(number);
    size_t values = 0;
    for (size_t i = 3; i < words.size(); ++i)
    {
        const std::string& word = words[i];
        size_t equals = word.find('=');
        if (equals == std::string::npos)
        {
            if (values == 6 || !Number(word, number))
                return problem = "bad value '" + word + "'", false;
            message.values[values++] = number;
            continue;
        }
        std::string name = word.substr(0, equals), text = word.substr(equals + 1);
        if (name == "source")
            message.source = text;
        else if (name == "target")
            message.target = text;
        else if (name == "drives")
            message.drives = text;
        else if (name == "spare")
            message.spare = text;
        else if (name == "reserved" && Number(text, number) && number <= 0xFFFFFFFFu)
            message.reserved = static_cast<DWORD>(number);
        else
            return problem = "bad field '" + word + "'", false;
    }
    step.action = ServiceStep::Write;
    step.bytes = EncodeServiceMessage(message);
    return true;
}

bool ParseStep(const std::vector<std::string>& words, ServiceStep& step, std::string& problem)
{
    const std::string& verb = words[0];
    ULONGLONG number = 0;
    if (verb == "send")
        return ParseSend(words, step, problem);
    if (verb == "raw")
    {
        step.action = ServiceStep::Write;
        for (size_t i = 1; i < words.size(); ++i)
            if (!Hex(words[i], step.bytes))
                return problem = "bad hex '" + words[i] + "'", false;
        return true;
    }
    if (verb == "oversize")
    {
        if (words.size() != 2 || !Number(words[1], number) || number < 64 || number > 0x7FFFFFFFu)
            return problem = "oversize needs BYTES (64 or more)", false;
        ServiceMessage end;
        end.kind = 99;
        std::vector<BYTE> tail = EncodeServiceMessage(end);
        step.action = ServiceStep::Write;
        step.bytes.assign(static_cast<size_t>(number) - tail.size(), 0);
        step.bytes.insert(step.bytes.end(), tail.begin(), tail.end());
        return true;
    }
    if (verb == "pause")
    {
        if (words.size() != 2 || !Number(words[1], number) || number > 0xFFFFFFFFu)
            return problem = "pause needs MS", false;
        step.action = ServiceStep::Pause;
        step.milliseconds = static_cast<DWORD>(number);
        return true;
    }
    if ((verb == "vanish" || verb == "close") && words.size() == 1)
    {
        step.action = verb == "vanish" ? ServiceStep::Vanish : ServiceStep::Close;
        return true;
    }
    problem = "unknown step '" + verb + "'";
    return false;
}
} // namespace

std::vector<BYTE> EncodeServiceMessage(const ServiceMessage& message)
{
    std::vector<BYTE> out;
    PutNumber(out, message.kind, 4);
    PutNumber(out, message.phase, 4);
    PutNumber(out, message.reserved, 4);
    for (const std::string* text : {&message.source, &message.target, &message.drives, &message.spare})
        PutText(out, *text);
    for (ULONGLONG value : message.values)
        PutNumber(out, value, 8);
    return out;
}

bool DecodeServiceMessage(const BYTE* bytes, size_t size, ServiceMessage& message)
{
    const BYTE* at = bytes;
    const BYTE* end = bytes + size;
    ULONGLONG number = 0;
    ServiceMessage decoded;
    for (DWORD* field : {&decoded.kind, &decoded.phase, &decoded.reserved})
    {
        if (!TakeNumber(at, end, 4, number))
            return false;
        *field = static_cast<DWORD>(number);
    }
    for (std::string* text : {&decoded.source, &decoded.target, &decoded.drives, &decoded.spare})
        if (!TakeText(at, end, *text))
            return false;
    for (ULONGLONG& value : decoded.values)
        if (!TakeNumber(at, end, 8, value))
            return false;
    if (at != end)
        return false;
    message = decoded;
    return true;
}

bool ServiceScript::Parse(const std::string& text, ServiceScript& script, std::string& error)
{
    ServiceScript parsed;
    std::vector<ServiceStep>* into = &parsed.steps;
    bool cancelSection = false;
    size_t start = 0;
    for (int number = 1; start <= text.size(); ++number)
    {
        size_t stop = text.find('\n', start);
        if (stop == std::string::npos)
            stop = text.size();
        std::string line = text.substr(start, stop - start);
        start = stop + 1;
        bool quoted = false;
        for (size_t i = 0; i < line.size(); ++i)
        {
            if (line[i] == '"')
                quoted = !quoted;
            else if (line[i] == '#' && !quoted)
            {
                line.erase(i); // a '#' inside a quoted text belongs to the text
                break;
            }
        }
        std::vector<std::string> words = Words(line);
        if (words.empty())
            continue;
        if (words[0] == "on-cancel" && words.size() == 1)
        {
            if (cancelSection)
                return error = "line " + std::to_string(number) + ": second on-cancel", false;
            cancelSection = true;
            into = &parsed.onCancel;
            continue;
        }
        ServiceStep step;
        std::string problem;
        if (!ParseStep(words, step, problem))
            return error = "line " + std::to_string(number) + ": " + problem, false;
        into->push_back(std::move(step));
    }
    if (!cancelSection)
    {
        ServiceStep stop;
        std::string ignored;
        ParseStep({"send", "21", "99"}, stop, ignored);
        parsed.onCancel.push_back(stop);
    }
    script = std::move(parsed);
    return true;
}

ServiceScript ServiceScript::DefaultCopy()
{
    ServiceScript script;
    std::string error;
    Parse("send 21 1\n"
          "send 21 2 2 8192\n"
          "pause 200\n"
          "send 21 3 1 4096 2 8192 source=C:\\windows\\win.ini target=C:\\windows\\temp\n"
          "pause 200\n"
          "send 21 3 2 8192 2 8192 source=C:\\windows\\system.ini target=C:\\windows\\temp\n"
          "send 21 4 2 8192\n",
          script, error);
    return script;
}
