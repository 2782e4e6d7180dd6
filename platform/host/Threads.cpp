#include "platform/host/Threads.h"

#include "platform/host/ControlThreads.h"
#include "platform/host/HandleTable.h"
#include "platform/host/Kernel.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <dlfcn.h>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace
{
class ThreadObject : public VmHost::KernelObject
{
public:
    std::mutex m_lock;
    std::condition_variable m_ended;
    bool m_done = false;
    DWORD m_exitCode = STILL_ACTIVE;
    DWORD m_id = 0;

    void Finish(DWORD code)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_done)
            m_exitCode = code;
        m_done = true;
        m_ended.notify_all();
    }

    DWORD Wait(DWORD milliseconds) override
    {
        std::unique_lock<std::mutex> guard(m_lock);
        if (milliseconds == INFINITE)
            m_ended.wait(guard, [this] { return m_done; });
        else if (!m_ended.wait_for(guard, std::chrono::milliseconds(milliseconds), [this] { return m_done; }))
            return WAIT_TIMEOUT;
        return WAIT_OBJECT_0;
    }
};

struct StartBlock
{
    LPTHREAD_START_ROUTINE start;
    LPVOID parameter;
    std::shared_ptr<ThreadObject> thread;
};

thread_local ThreadObject* t_current = nullptr;
std::atomic<LONG> g_liveThreads{0};
thread_local HMODULE t_freeOnExit = nullptr;

// Marks the thread ended however it leaves: by returning, or by ExitThread's unwinding. A library handed to
// FreeLibraryAndExitThread is freed here, after the unwinding has left its code, since only this frame, in
// the stand-in itself, is sure to stay mapped.
struct EndGuard
{
    std::shared_ptr<ThreadObject> thread;
    ~EndGuard()
    {
        if (HMODULE module = t_freeOnExit)
        {
            t_freeOnExit = nullptr;
            FreeLibrary(module);
        }
        thread->Finish(thread->m_exitCode);
        --g_liveThreads;
    }
};

void* ThreadMain(void* raw)
{
    std::unique_ptr<StartBlock> block(static_cast<StartBlock*>(raw));
    EndGuard guard{block->thread};
    t_current = block->thread.get();
    block->thread->m_id = GetCurrentThreadId();
    DWORD code = block->start(block->parameter);
    block->thread->Finish(code);
    return nullptr;
}

std::atomic<bool> g_manualClock{false};
std::atomic<ULONGLONG> g_manualTicks{0};
std::atomic<DWORD> g_failCreateThread{0};
} // namespace

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T stackSize, LPTHREAD_START_ROUTINE startAddress,
                    LPVOID parameter, DWORD creationFlags, LPDWORD threadId)
{
    if (!startAddress || (creationFlags & CREATE_SUSPENDED))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    for (DWORD pending = g_failCreateThread.load(); pending;)
        if (g_failCreateThread.compare_exchange_weak(pending, pending - 1))
        {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
    auto thread = std::make_shared<ThreadObject>();
    auto* block = new StartBlock{startAddress, parameter, thread};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (stackSize >= 65536)
        pthread_attr_setstacksize(&attributes, stackSize);
    pthread_t id;
    ++g_liveThreads;
    int failed = pthread_create(&id, &attributes, ThreadMain, block);
    pthread_attr_destroy(&attributes);
    if (failed)
    {
        --g_liveThreads;
        delete block;
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (threadId)
        *threadId = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(thread.get()) >> 4);
    return VmHost::AddHandle(std::move(thread));
}

BOOL GetExitCodeThread(HANDLE handle, LPDWORD exitCode)
{
    std::shared_ptr<ThreadObject> thread = VmHost::FindHandleOf<ThreadObject>(handle);
    if (!thread || !exitCode)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    std::lock_guard<std::mutex> guard(thread->m_lock);
    *exitCode = thread->m_exitCode;
    return TRUE;
}

void ExitThread(DWORD exitCode)
{
    if (t_current)
    {
        std::lock_guard<std::mutex> guard(t_current->m_lock);
        t_current->m_exitCode = exitCode;
    }
    pthread_exit(nullptr); // unwinds the thread's stack, as leaving the start routine would
}

namespace
{
std::atomic<bool> g_recordSleeps{false};
std::mutex g_sleepsLock;
std::vector<DWORD> g_sleeps;
} // namespace

void VmHost::RecordSleeps(bool on)
{
    std::lock_guard<std::mutex> hold(g_sleepsLock);
    if (on)
        g_sleeps.clear();
    g_recordSleeps.store(on);
}

std::vector<DWORD> VmHost::Sleeps()
{
    std::lock_guard<std::mutex> hold(g_sleepsLock);
    return g_sleeps;
}

void Sleep(DWORD milliseconds)
{
    if (g_recordSleeps.load(std::memory_order_relaxed))
    {
        std::lock_guard<std::mutex> hold(g_sleepsLock);
        g_sleeps.push_back(milliseconds);
    }
    if (milliseconds == INFINITE)
        for (;;)
            std::this_thread::sleep_for(std::chrono::hours(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

ULONGLONG GetTickCount64(void)
{
    if (g_manualClock)
        return g_manualTicks;
    // Windows counts from boot; counting from an arbitrary point above 0 keeps "0 means never" meaningful.
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<ULONGLONG>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()) +
           1000000;
}

DWORD GetTickCount(void)
{
    return static_cast<DWORD>(GetTickCount64());
}

void VmHostSetTickCount(ULONGLONG ticks)
{
    g_manualTicks = ticks;
    g_manualClock = true;
}
void VmHostAdvanceTickCount(ULONGLONG milliseconds)
{
    g_manualTicks += milliseconds;
}
void VmHostUseRealTickCount(void)
{
    g_manualClock = false;
}
void VmHostFailCreateThread(DWORD count)
{
    g_failCreateThread = count;
}
LONG VmHostLiveThreads(void)
{
    return g_liveThreads.load();
}

// The loader calls belong to the loader area once it exists; these weak ones give a thread its hold on the
// shared object that holds an address, through dlopen's own reference count.
__attribute__((weak)) BOOL GetModuleHandleExW(DWORD flags, LPCWSTR moduleName, HMODULE* module)
{
    if (!module)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *module = nullptr;
    if (!(flags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS))
    {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    Dl_info info;
    if (!dladdr(reinterpret_cast<const void*>(moduleName), &info) || !info.dli_fname)
    {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return FALSE;
    }
    int mode = RTLD_NOW | RTLD_NOLOAD | ((flags & GET_MODULE_HANDLE_EX_FLAG_PIN) ? RTLD_NODELETE : 0);
    void* handle = dlopen(info.dli_fname, mode);
    if (!handle)
        handle = dlopen(nullptr, RTLD_NOW); // the main program, which is never unloaded
    if (!handle)
    {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return FALSE;
    }
    if (flags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT)
        dlclose(handle);
    *module = reinterpret_cast<HMODULE>(handle);
    return TRUE;
}

__attribute__((weak)) BOOL FreeLibrary(HMODULE module)
{
    if (!module || dlclose(reinterpret_cast<void*>(module)) != 0)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return TRUE;
}

void FreeLibraryAndExitThread(HMODULE module, DWORD exitCode)
{
    if (t_current)
        t_freeOnExit = module;
    else
        FreeLibrary(module);
    ExitThread(exitCode);
}
