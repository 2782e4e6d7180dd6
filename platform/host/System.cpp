#include "platform/host/System.h"
#include "platform/host/ControlSystem.h"
#include "platform/host/Kernel.h"

#include <mutex>

namespace
{
std::mutex g_lock;
DWORD g_major = 10;
DWORD g_minor = 0;
WORD g_servicePackMajor = 0;
DWORD g_changeCount = 0;
VmHostShellChange g_lastChange = {};
thread_local LCID t_locale = 0x0409;

bool Compare(ULONGLONG actual, ULONGLONG wanted, BYTE condition)
{
    switch (condition)
    {
    case VER_EQUAL:
        return actual == wanted;
    case VER_GREATER:
        return actual > wanted;
    case VER_GREATER_EQUAL:
        return actual >= wanted;
    case VER_LESS:
        return actual < wanted;
    case VER_LESS_EQUAL:
        return actual <= wanted;
    default:
        return false;
    }
}

// Each field's condition sits in three bits of the mask, at the place of the field's bit in the type mask.
BYTE ConditionOf(ULONGLONG mask, DWORD typeBit)
{
    int index = 0;
    while (typeBit > 1)
    {
        typeBit >>= 1;
        ++index;
    }
    return static_cast<BYTE>((mask >> (index * 3)) & 7);
}
} // namespace

BOOL VerifyVersionInfoW(LPOSVERSIONINFOEXW info, DWORD typeMask, ULONGLONG conditionMask)
{
    if (!info || !typeMask || info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXW))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    DWORD major, minor;
    WORD servicePack;
    {
        std::lock_guard<std::mutex> hold(g_lock);
        major = g_major;
        minor = g_minor;
        servicePack = g_servicePackMajor;
    }
    // Major, minor and service pack compare as one ordered version, as Windows does when all three are asked.
    ULONGLONG actual = 0, wanted = 0;
    BYTE condition = 0;
    if (typeMask & VER_MAJORVERSION)
    {
        actual = major;
        wanted = info->dwMajorVersion;
        condition = ConditionOf(conditionMask, VER_MAJORVERSION);
    }
    if (typeMask & VER_MINORVERSION)
    {
        actual = (actual << 32) | minor;
        wanted = (wanted << 32) | info->dwMinorVersion;
        if (!condition)
            condition = ConditionOf(conditionMask, VER_MINORVERSION);
    }
    bool matches = !condition || Compare(actual, wanted, condition);
    if (matches && (typeMask & VER_SERVICEPACKMAJOR))
    {
        BYTE spCondition = ConditionOf(conditionMask, VER_SERVICEPACKMAJOR);
        // With a greater version the service pack no longer matters.
        if (!(condition && actual != wanted))
            matches = Compare(servicePack, info->wServicePackMajor, spCondition);
    }
    if (!matches)
    {
        SetLastError(ERROR_OLD_WIN_VERSION);
        return FALSE;
    }
    return TRUE;
}

ULONGLONG VerSetConditionMask(ULONGLONG mask, DWORD typeMask, BYTE condition)
{
    for (DWORD bit = 1; bit <= VER_PRODUCT_TYPE; bit <<= 1)
    {
        if (!(typeMask & bit))
            continue;
        int index = 0;
        for (DWORD b = bit; b > 1; b >>= 1)
            ++index;
        mask &= ~(static_cast<ULONGLONG>(7) << (index * 3));
        mask |= static_cast<ULONGLONG>(condition & 7) << (index * 3);
    }
    return mask;
}

LCID GetThreadLocale(void)
{
    return t_locale;
}

BOOL SetThreadLocale(LCID locale)
{
    t_locale = locale;
    return TRUE;
}

void SHChangeNotify(LONG eventId, UINT flags, LPCVOID item1, LPCVOID item2)
{
    std::lock_guard<std::mutex> hold(g_lock);
    ++g_changeCount;
    g_lastChange.eventId = eventId;
    g_lastChange.flags = flags;
    g_lastChange.item1Null = item1 == nullptr;
    g_lastChange.item2Null = item2 == nullptr;
}

void VmHostSetSystemVersion(DWORD major, DWORD minor, WORD servicePackMajor)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_major = major;
    g_minor = minor;
    g_servicePackMajor = servicePackMajor;
}

DWORD VmHostShellChangeCount(VmHostShellChange* last)
{
    std::lock_guard<std::mutex> hold(g_lock);
    if (last)
        *last = g_lastChange;
    return g_changeCount;
}

void VmHostResetShellChanges(void)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_changeCount = 0;
    g_lastChange = VmHostShellChange();
}
