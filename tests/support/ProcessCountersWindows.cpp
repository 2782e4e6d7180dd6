#ifdef _WIN32
#include "tests/support/ProcessCounters.h"

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <cstdio>

namespace TestSupport
{
ProcessCounters SampleProcessCounters()
{
    ProcessCounters counters;
    PROCESS_MEMORY_COUNTERS_EX memory = {};
    memory.cb = sizeof(memory);
    if (GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory),
                             sizeof(memory)))
        counters.privateBytes = memory.PrivateUsage;
    DWORD handles = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &handles))
        counters.handles = handles;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot != INVALID_HANDLE_VALUE)
    {
        THREADENTRY32 entry = {};
        entry.dwSize = sizeof(entry);
        const DWORD self = GetCurrentProcessId();
        for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
            counters.threads += entry.th32OwnerProcessID == self;
        CloseHandle(snapshot); // counted in `handles` above, taken after them
    }
    return counters;
}

std::string DescribeCounters(const ProcessCounters& counters)
{
    char line[160];
    std::snprintf(line, sizeof line, "private %llu bytes, %lu handles, %lu threads", counters.privateBytes,
                  counters.handles, counters.threads);
    return line;
}
} // namespace TestSupport
#endif
