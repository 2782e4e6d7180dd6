#ifdef _WIN32
#include "tests/support/ProcessCounters.h"

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <cstdio>

namespace TestSupport
{
namespace
{
// Wine (8) answers GetProcessHandleCount with 0 and leaves PrivateUsage 0; Windows never does either for a
// running process. There the handles are counted by asking each possible value whether it is one (Wine gives
// out the lowest free value first, so a process's handles lie below 16,384), and the commit charge is read
// from PagefileUsage, which the system documents as the same figure.
const ULONG_PTR HANDLE_VALUES_PROBED = 16384;

unsigned long ProbedHandles()
{
    unsigned long count = 0;
    for (ULONG_PTR value = 4; value < HANDLE_VALUES_PROBED; value += 4)
    {
        DWORD flags = 0;
        count += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) != FALSE;
    }
    return count;
}
} // namespace

const unsigned long LATE_HANDLE_ALLOWANCE = 1;

unsigned long ProcessThreads()
{
    unsigned long threads = 0;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE)
        return 0;
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof(entry);
    const DWORD self = GetCurrentProcessId();
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
        threads += entry.th32OwnerProcessID == self;
    CloseHandle(snapshot);
    return threads;
}

ProcessCounters SampleProcessCounters()
{
    ProcessCounters counters;
    PROCESS_MEMORY_COUNTERS_EX memory = {};
    memory.cb = sizeof(memory);
    if (GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory),
                             sizeof(memory)))
        counters.privateBytes = memory.PrivateUsage ? memory.PrivateUsage : memory.PagefileUsage;
    DWORD handles = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &handles) && handles)
        counters.handles = handles;
    else
        counters.handles = ProbedHandles();
    counters.threads = ProcessThreads();
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
