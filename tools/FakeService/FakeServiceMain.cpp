// FakeService: serves one service pipe from the command line, prints what the client sends, answers with a
// script.
#include "tools/FakeService/FakeService.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

namespace
{
const char USAGE[] =
    "Usage: FakeService --key KEY [--script FILE] [--sessions N]\n"
    "Serves \\\\.\\pipe\\QX-KEY as the Velmount service would, prints every message a client\n"
    "sends (fields and bytes), and answers each request by playing the script (without\n"
    "--script: a short copy of two items). Serves N connections, then ends; 0 (the\n"
    "default) serves until interrupted.\n\n";

std::basic_string<WCHAR> Widen(const std::string& text)
{
    std::basic_string<WCHAR> wide;
    int size = text.empty()
                   ? 0
                   : MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    if (size > 0)
    {
        wide.resize(static_cast<size_t>(size));
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &wide[0], size);
    }
    return wide;
}

int Fail(const std::string& problem)
{
    std::fprintf(stderr, "FakeService: %s\n", problem.c_str());
    return 2;
}
} // namespace

int main(int argc, char** argv)
{
    std::string key, scriptFile;
    int sessions = 0;
    for (int i = 1; i < argc; ++i)
    {
        std::string option = argv[i];
        if (option == "--help" || option == "-h")
        {
            std::printf("%s%s", USAGE, SERVICE_SCRIPT_HELP);
            return 0;
        }
        if (i + 1 >= argc)
            return Fail("missing value after " + option + " (see --help)");
        std::string value = argv[++i];
        if (option == "--key")
            key = value;
        else if (option == "--script")
            scriptFile = value;
        else if (option == "--sessions")
            sessions = std::atoi(value.c_str());
        else
            return Fail("unknown option " + option + " (see --help)");
    }
    if (key.empty())
        return Fail("--key is required (see --help)");

    ServiceScript script = ServiceScript::DefaultCopy();
    if (!scriptFile.empty())
    {
        std::ifstream file(scriptFile, std::ios::binary);
        if (!file)
            return Fail("cannot read " + scriptFile);
        std::stringstream text;
        text << file.rdbuf();
        std::string error;
        if (!ServiceScript::Parse(text.str(), script, error))
            return Fail(scriptFile + ", " + error);
    }

    FakeService service(Widen(key).c_str(), std::move(script), sessions);
    service.onReceived = [](const ReceivedMessage& received)
    {
        std::fputs(DescribeMessage(received).c_str(), stdout);
        std::fflush(stdout);
    };
    if (!service.Start())
        return Fail("cannot create the pipe (error " + std::to_string(GetLastError()) + ")");
    std::printf("serving \\\\.\\pipe\\QX-%s\n", key.c_str());
    std::fflush(stdout);
    if (sessions > 0)
        while (!service.WaitForSessions(sessions, 1000))
        {
        }
    else
        for (;;)
            service.WaitForSessions(1 << 30, 60000);
    service.Stop();
    return 0;
}
