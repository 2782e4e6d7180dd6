// What the process holds, as a task manager counts it: for a run that must end holding what it held after its
// warm-up. Windows (and Wine): the system's own counters. Host: the C runtime's heap and Linux's thread
// count, beside the stand-in's own tables of handles and global blocks, which the host's process counters
// never see.
#pragma once

#include <string>

namespace TestSupport
{
struct ProcessCounters
{
    // Windows: PrivateUsage (the commit charge) of GetProcessMemoryInfo. Host: bytes the C runtime's heap has
    // handed out and not taken back (what a leak or a kept block adds to), whoever asked.
    unsigned long long privateBytes = 0;
    // Windows: GetProcessHandleCount (under Wine, which has no such count, the handle values in use). Host:
    // the stand-in's open handles plus the process's open descriptors.
    unsigned long handles = 0;
    // The process's threads (Windows: a thread snapshot; host: Linux's count).
    unsigned long threads = 0;
    // Host only (0 on Windows, where a leaked block shows in privateBytes): GlobalAlloc blocks not yet freed.
    unsigned long globalBlocks = 0;
};

// Handles that may appear once in a process after any warm-up, whatever the code under test does: Windows
// (and Wine) give a lock its event at its first contention, and the run's own process-long locks (the C++
// runtime's, the test's) meet theirs when threads happen to collide, sometimes only late in a run. A leak per
// menu, operation or load of the library shows as more. Host: none; its counts are the stand-in's own.
extern const unsigned long LATE_HANDLE_ALLOWANCE;

ProcessCounters SampleProcessCounters();
// The threads alone: cheap enough to wait on.
unsigned long ProcessThreads();
// One line: "private 1234567 bytes, 12 handles, 3 threads[, 4 global blocks]".
std::string DescribeCounters(const ProcessCounters& counters);
} // namespace TestSupport
