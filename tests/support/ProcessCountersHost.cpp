#ifndef _WIN32
#include "tests/support/ProcessCounters.h"

#include "platform/host/ControlMemory.h"
#include "platform/host/HandleTable.h"

#include <dirent.h>
#include <malloc.h>

#include <cstdio>
#include <cstring>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELMOUNT_ASAN_HEAP 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define VELMOUNT_ASAN_HEAP 1
#endif
#ifdef VELMOUNT_ASAN_HEAP
#include <sanitizer/allocator_interface.h>
#endif

namespace TestSupport
{
namespace
{
unsigned long HeapBytes()
{
#ifdef VELMOUNT_ASAN_HEAP
    // AddressSanitizer's allocator serves every block; glibc's figures would miss them all.
    return static_cast<unsigned long>(__sanitizer_get_current_allocated_bytes());
#else
    struct mallinfo2 info = mallinfo2();
    return static_cast<unsigned long>(info.uordblks + info.hblkhd);
#endif
}

unsigned long OpenDescriptors()
{
    unsigned long count = 0;
    if (DIR* folder = opendir("/proc/self/fd"))
    {
        while (dirent* entry = readdir(folder))
            count += entry->d_name[0] != '.';
        closedir(folder);
        --count; // the folder's own descriptor
    }
    return count;
}

} // namespace

unsigned long ProcessThreads()
{
    unsigned long threads = 0;
    if (FILE* status = std::fopen("/proc/self/status", "r"))
    {
        char line[256];
        while (std::fgets(line, sizeof line, status))
            if (std::strncmp(line, "Threads:", 8) == 0)
                threads = std::strtoul(line + 8, nullptr, 10);
        std::fclose(status);
    }
    return threads;
}

ProcessCounters SampleProcessCounters()
{
    ProcessCounters counters;
    counters.privateBytes = HeapBytes();
    counters.handles = static_cast<unsigned long>(VmHost::OpenHandleCount()) + OpenDescriptors();
    counters.threads = ProcessThreads();
    counters.globalBlocks = VmHostLiveGlobalBlocks();
    return counters;
}

const unsigned long LATE_HANDLE_ALLOWANCE = 0;

std::string DescribeCounters(const ProcessCounters& counters)
{
    char line[160];
    std::snprintf(line, sizeof line, "private %llu bytes, %lu handles, %lu threads, %lu global blocks",
                  counters.privateBytes, counters.handles, counters.threads, counters.globalBlocks);
    return line;
}
} // namespace TestSupport
#endif
