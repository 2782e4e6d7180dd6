// The stand-in's one table of kernel objects. Not part of the Win32 surface: areas of platform/host use it to
// give their objects HANDLE values and to find them again. An object stays alive while its handle is open or
// while a call on it is running, so CloseHandle on one thread never pulls an object from under another.
#pragma once

#include "platform/host/Kernel.h"
#include "platform/host/Handles.h"

#include <cstddef>
#include <memory>

namespace VmHost
{
class KernelObject
{
public:
    virtual ~KernelObject() = default;

    // Defaults answer as Windows does for a handle of the wrong kind.
    virtual BOOL Read(void* buffer, DWORD size, DWORD* transferred);
    virtual BOOL Write(const void* buffer, DWORD size, DWORD* transferred);
    virtual DWORD Wait(DWORD milliseconds);
    virtual BOOL Flush();
    // Called once, when the last handle to the object is closed.
    virtual void OnClose() {}
};

HANDLE AddHandle(std::shared_ptr<KernelObject> object);
std::shared_ptr<KernelObject> FindHandle(HANDLE handle);
template <class T> std::shared_ptr<T> FindHandleOf(HANDLE handle)
{
    return std::dynamic_pointer_cast<T>(FindHandle(handle));
}
// Number of open handles, so a test can see that nothing was leaked.
size_t OpenHandleCount();
} // namespace VmHost
