// The service's side of the wire, written apart from the extension's own codec so that each checks the
// other: messages as the service builds and reads them (texts stay UTF-8, as on the wire), and the script
// that says what a fake service answers to a request.
#pragma once

#include "platform/Win32.h"

#include <string>
#include <vector>

struct ServiceMessage
{
    DWORD kind = 0;
    DWORD phase = 0;
    DWORD reserved = 0;
    std::string source; // UTF-8, as on the wire
    std::string target;
    std::string drives;
    std::string spare;
    ULONGLONG values[6] = {};
};

// kind, phase, reserved, four strings (variable-length byte count, UTF-8), six little-endian u64.
std::vector<BYTE> EncodeServiceMessage(const ServiceMessage& message);
// Strict: false for anything that is not exactly one well-formed message of `size` bytes (a length past the
// end, a length of more than five bytes, bytes left over).
bool DecodeServiceMessage(const BYTE* bytes, size_t size, ServiceMessage& message);

struct ServiceStep
{
    enum Action
    {
        Write,  // one message of `bytes` (well-formed, raw or oversize)
        Pause,  // `milliseconds`, still reading what the client sends
        Vanish, // close the pipe at once
        Close,  // close once the client has read everything sent
    };
    Action action = Write;
    std::vector<BYTE> bytes;
    DWORD milliseconds = 0;
};

struct ServiceScript
{
    std::vector<ServiceStep> steps;    // played after the request arrived
    std::vector<ServiceStep> onCancel; // played instead of the rest once a cancel arrived

    // One step a line; see SERVICE_SCRIPT_HELP. On failure `error` names the line and what is wrong.
    static bool Parse(const std::string& text, ServiceScript& script, std::string& error);
    // A short Quick Copy of two items: calculating, totals, two reports, final.
    static ServiceScript DefaultCopy();
};

extern const char SERVICE_SCRIPT_HELP[];
