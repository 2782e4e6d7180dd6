// Prints every key and value below each key named on the command line (HKLM\... or HKCU\...), one line each,
// prefixed with that key: the package tests compare what an installation leaves with diff.
#include "tests/module/RegistryDump.h"

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
    {
        HKEY root = std::strncmp(argv[i], "HKCU\\", 5) == 0   ? HKEY_CURRENT_USER
                    : std::strncmp(argv[i], "HKLM\\", 5) == 0 ? HKEY_LOCAL_MACHINE
                                                              : nullptr;
        if (!root)
        {
            std::fprintf(stderr, "registry_footprint: %s is not below HKLM\\ or HKCU\\\n", argv[i]);
            return 2;
        }
        std::vector<std::string> lines = DumpKey(root, Widen(argv[i] + 5).c_str());
        if (lines.empty())
            std::printf("%s (absent)\n", argv[i]);
        for (const std::string& line : lines)
            std::printf("%s | %s\n", argv[i], line.c_str());
    }
    return 0;
}
