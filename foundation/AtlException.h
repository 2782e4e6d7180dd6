// The raised failure: one 32-bit result code travelling up to the nearest COM wall.
#pragma once

#include "platform/Win32.h"

#include <exception>
#include <new>

class CAtlException
{
public:
    explicit CAtlException(HRESULT hr) noexcept : m_hr(hr) {}
    operator HRESULT() const noexcept { return m_hr; }

    HRESULT m_hr;
};

[[noreturn]] void AtlThrow(HRESULT hr);

// Every COM method, export and thread entry runs its body through this: whatever is raised below becomes a
// result code here, and nothing crosses into the caller's process. Allocation failure of plain records
// (std::bad_alloc) maps to E_OUTOFMEMORY; anything unforeseen to E_UNEXPECTED.
template <typename Body> HRESULT ComWall(Body&& body) noexcept
{
    try
    {
        return body();
    }
    catch (const CAtlException& failure)
    {
        return failure.m_hr;
    }
    catch (const std::bad_alloc&)
    {
        return E_OUTOFMEMORY;
    }
    catch (...)
    {
        return E_UNEXPECTED;
    }
}
