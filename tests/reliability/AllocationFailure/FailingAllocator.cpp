#include "tests/reliability/AllocationFailure/FailingAllocator.h"

#include "platform/Win32.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>

#include <execinfo.h>
#include <link.h>

// The real allocators behind the linker's wrapping (-Wl,--wrap=NAME).
extern "C"
{
    void* __real_malloc(size_t size);
    void* __real_realloc(void* block, size_t size);
    LPVOID __real_HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
    LPVOID __real_CoTaskMemAlloc(SIZE_T bytes);
    LPVOID __real_CoTaskMemRealloc(LPVOID block, SIZE_T bytes);
    BSTR __real_SysAllocString(const OLECHAR* text);
}

// The program's own code lies between these (GNU ld); a caller outside it is the platform or the runtime.
extern "C" char __executable_start;
extern "C" char etext;

namespace
{
thread_local bool t_armed = false;
thread_local long t_failAt = 0;
thread_local long t_seen = 0;
thread_local bool t_failed = false;

std::atomic<long> g_seenByLastArmed{0};
std::mutex g_sitesLock;
std::set<const void*>* g_sites = nullptr; // made on first use, never freed: operator new may outlive statics

bool FromProgram(const void* caller)
{
    return caller >= static_cast<const void*>(&__executable_start) &&
           caller < static_cast<const void*>(&etext);
}

// Where the platform's shared library lies. Its code may call template code that the program holds (the
// dynamic linker binds both to one copy), so an allocation from the program's text can still be made on the
// platform's behalf; the stack tells.
struct Range
{
    const char* low = nullptr;
    const char* high = nullptr;
};

struct Search
{
    const char* address;
    Range* range;
};

int FindObject(dl_phdr_info* info, size_t, void* data)
{
    auto* wanted = static_cast<Search*>(data);
    const char* low = nullptr;
    const char* high = nullptr;
    for (int i = 0; i < info->dlpi_phnum; ++i)
    {
        if (info->dlpi_phdr[i].p_type != PT_LOAD)
            continue;
        const char* start = reinterpret_cast<const char*>(info->dlpi_addr + info->dlpi_phdr[i].p_vaddr);
        const char* end = start + info->dlpi_phdr[i].p_memsz;
        if (!low || start < low)
            low = start;
        if (!high || end > high)
            high = end;
    }
    if (!low || wanted->address < low || wanted->address >= high)
        return 0;
    wanted->range->low = low;
    wanted->range->high = high;
    return 1;
}

const Range& PlatformRange()
{
    static const Range range = []
    {
        Range found;
        Search search{reinterpret_cast<const char*>(&GetProcessHeap), &found};
        dl_iterate_phdr(FindObject, &search);
        return found;
    }();
    return range;
}

// A platform frame with the program's code above it: the program called into the platform, which allocates
// through the program's copy of some template. A thread the platform started has its frames at the top
// instead, with none of the program's above them.
bool ForPlatform()
{
    const int DEPTH = 32;
    void* frames[DEPTH];
    int count = backtrace(frames, DEPTH);
    const Range& platform = PlatformRange();
    bool inPlatform = false;
    for (int i = 0; i < count; ++i)
    {
        const char* at = static_cast<const char*>(frames[i]);
        if (at >= platform.low && at < platform.high)
            inPlatform = true;
        else if (inPlatform && FromProgram(at))
            return true;
    }
    return false;
}

// true when this allocation must fail.
bool Refuse(const void* caller)
{
    if (!t_armed || !FromProgram(caller))
        return false;
    t_armed = false; // the stack walk and the record below may allocate
    if (ForPlatform())
    {
        t_armed = true;
        return false;
    }
    g_seenByLastArmed = ++t_seen;
    if (t_seen != t_failAt)
    {
        t_armed = true;
        return false;
    }
    t_failed = true;
    {
        std::lock_guard<std::mutex> guard(g_sitesLock);
        if (!g_sites)
            g_sites = new std::set<const void*>;
        g_sites->insert(caller);
    }
    t_armed = true;
    return true;
}

void* Allocate(size_t size, const void* caller)
{
    if (Refuse(caller))
        return nullptr;
    return __real_malloc(size ? size : 1);
}
} // namespace

namespace FailingAllocator
{
void Arm(long failAt)
{
    t_seen = 0;
    g_seenByLastArmed = 0;
    t_failAt = failAt;
    t_failed = false;
    t_armed = true;
}

long Disarm()
{
    t_armed = false;
    return t_seen;
}

long SeenByLastArmed()
{
    return g_seenByLastArmed;
}

bool Failed()
{
    return t_failed;
}

const std::set<const void*>& FailedSites()
{
    static const std::set<const void*> none;
    std::lock_guard<std::mutex> guard(g_sitesLock);
    return g_sites ? *g_sites : none;
}
} // namespace FailingAllocator

void* operator new(size_t size)
{
    void* block = Allocate(size, __builtin_return_address(0));
    if (!block)
        throw std::bad_alloc();
    return block;
}
void* operator new[](size_t size)
{
    void* block = Allocate(size, __builtin_return_address(0));
    if (!block)
        throw std::bad_alloc();
    return block;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size, __builtin_return_address(0));
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size, __builtin_return_address(0));
}
void operator delete(void* block) noexcept
{
    std::free(block);
}
void operator delete[](void* block) noexcept
{
    std::free(block);
}
void operator delete(void* block, size_t) noexcept
{
    std::free(block);
}
void operator delete[](void* block, size_t) noexcept
{
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept
{
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    std::free(block);
}

extern "C"
{
    void* __wrap_malloc(size_t size)
    {
        return Refuse(__builtin_return_address(0)) ? nullptr : __real_malloc(size);
    }
    void* __wrap_realloc(void* block, size_t size)
    {
        return Refuse(__builtin_return_address(0)) ? nullptr : __real_realloc(block, size);
    }
    LPVOID __wrap_HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes)
    {
        if (Refuse(__builtin_return_address(0)))
        {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        return __real_HeapAlloc(heap, flags, bytes);
    }
    LPVOID __wrap_CoTaskMemAlloc(SIZE_T bytes)
    {
        return Refuse(__builtin_return_address(0)) ? nullptr : __real_CoTaskMemAlloc(bytes);
    }
    LPVOID __wrap_CoTaskMemRealloc(LPVOID block, SIZE_T bytes)
    {
        return Refuse(__builtin_return_address(0)) ? nullptr : __real_CoTaskMemRealloc(block, bytes);
    }
    BSTR __wrap_SysAllocString(const OLECHAR* text)
    {
        return Refuse(__builtin_return_address(0)) ? nullptr : __real_SysAllocString(text);
    }
}
