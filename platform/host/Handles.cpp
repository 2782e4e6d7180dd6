#include "platform/host/HandleTable.h"

#include <mutex>
#include <unordered_map>

namespace VmHost
{
namespace
{
// Handle values are multiples of 4 from 0x1000 on, as kernel handles are: never null, never
// INVALID_HANDLE_VALUE, never the pseudo-handle of GetCurrentProcess.
struct Table
{
    std::mutex lock;
    std::unordered_map<ULONG_PTR, std::shared_ptr<KernelObject>> objects;
    ULONG_PTR next = 0x1000;
};

Table& TheTable()
{
    static Table* table = new Table; // never destroyed: threads may still close handles at process exit
    return *table;
}
} // namespace

BOOL KernelObject::Read(void*, DWORD, DWORD*)
{
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

BOOL KernelObject::Write(const void*, DWORD, DWORD*)
{
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

DWORD KernelObject::Wait(DWORD)
{
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
}

BOOL KernelObject::Flush()
{
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

HANDLE AddHandle(std::shared_ptr<KernelObject> object)
{
    Table& table = TheTable();
    std::lock_guard<std::mutex> guard(table.lock);
    ULONG_PTR value = table.next;
    table.next += 4;
    table.objects.emplace(value, std::move(object));
    return reinterpret_cast<HANDLE>(value);
}

std::shared_ptr<KernelObject> FindHandle(HANDLE handle)
{
    Table& table = TheTable();
    std::lock_guard<std::mutex> guard(table.lock);
    auto found = table.objects.find(reinterpret_cast<ULONG_PTR>(handle));
    return found == table.objects.end() ? nullptr : found->second;
}

size_t OpenHandleCount()
{
    Table& table = TheTable();
    std::lock_guard<std::mutex> guard(table.lock);
    return table.objects.size();
}
} // namespace VmHost

using VmHost::FindHandle;
using VmHost::KernelObject;

BOOL CloseHandle(HANDLE object)
{
    std::shared_ptr<KernelObject> closed;
    {
        VmHost::Table& table = VmHost::TheTable();
        std::lock_guard<std::mutex> guard(table.lock);
        auto found = table.objects.find(reinterpret_cast<ULONG_PTR>(object));
        if (found == table.objects.end())
        {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        closed = std::move(found->second);
        table.objects.erase(found);
    }
    closed->OnClose();
    return TRUE;
}

BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead, LPOVERLAPPED overlapped)
{
    if (bytesRead)
        *bytesRead = 0;
    std::shared_ptr<KernelObject> object = FindHandle(file);
    if (!object)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if ((!bytesRead && !overlapped) || (!buffer && bytesToRead))
    {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    DWORD transferred = 0;
    BOOL done = object->Read(buffer, bytesToRead, &transferred);
    if (bytesRead)
        *bytesRead = transferred;
    return done;
}

BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten, LPOVERLAPPED overlapped)
{
    if (bytesWritten)
        *bytesWritten = 0;
    std::shared_ptr<KernelObject> object = FindHandle(file);
    if (!object)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if ((!bytesWritten && !overlapped) || (!buffer && bytesToWrite))
    {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    DWORD transferred = 0;
    BOOL done = object->Write(buffer, bytesToWrite, &transferred);
    if (bytesWritten)
        *bytesWritten = transferred;
    return done;
}

DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds)
{
    std::shared_ptr<KernelObject> found = FindHandle(object);
    if (!found)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    return found->Wait(milliseconds);
}

BOOL FlushFileBuffers(HANDLE file)
{
    std::shared_ptr<KernelObject> found = FindHandle(file);
    if (!found)
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return found->Flush();
}
